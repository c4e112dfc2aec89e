#include <windows.h>

#include "app/platform.h"
#include "app/process_state.h"
#include "base/error.h"

namespace vantrelo::app::platform {

namespace {

// A SERVICE_WIN32_OWN_PROCESS service may register under the empty name; the name it is
// installed under is the installer's business.
char serviceName[] = "";

constexpr DWORD kAcceptedControls = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN;
constexpr DWORD kWaitHintMilliseconds = 10000;

// Set once before the dispatcher starts; read by the service main on the dispatcher's thread.
void (*serviceRun)() = nullptr;
SERVICE_STATUS_HANDLE statusHandle = nullptr;

void reportStatus(DWORD state, DWORD win32Error, DWORD serviceError) {
  SERVICE_STATUS status{};
  status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
  status.dwCurrentState = state;
  status.dwControlsAccepted = kAcceptedControls;
  status.dwWin32ExitCode = serviceError != 0 ? ERROR_SERVICE_SPECIFIC_ERROR : win32Error;
  status.dwServiceSpecificExitCode = serviceError;
  status.dwCheckPoint = 0;
  status.dwWaitHint = kWaitHintMilliseconds;
  SetServiceStatus(statusHandle, &status);
}

void WINAPI controlHandler(DWORD control) {
  if (control != SERVICE_CONTROL_STOP && control != SERVICE_CONTROL_SHUTDOWN) return;
  reportStatus(SERVICE_STOP_PENDING, NO_ERROR, 0);
  requestStop();
}

void WINAPI serviceMain(DWORD, LPSTR*) {
  statusHandle = RegisterServiceCtrlHandlerA(serviceName, controlHandler);
  if (statusHandle == nullptr) {
    reportStatus(SERVICE_STOPPED, GetLastError(), 0);
    return;
  }
  // Running is reported before the configuration is read: a failing configuration ends in a
  // plain stop, and the reason is in the event log.
  reportStatus(SERVICE_RUNNING, NO_ERROR, 0);
  serviceRun();
  reportStatus(SERVICE_STOPPED, NO_ERROR, 0);
}

}  // namespace

void runService(void (*run)()) {
  serviceRun = run;
  const SERVICE_TABLE_ENTRYA table[] = {
      {serviceName, serviceMain},
      {nullptr, nullptr},
  };
  if (StartServiceCtrlDispatcherA(table)) return;
  const DWORD failure = GetLastError();
  if (failure == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) {
    // Started from a console rather than by the service control manager.
    run();
    return;
  }
  throw error::UnknownError("StartServiceCtrlDispatcher() failed: " +
                            error::systemErrorText(failure));
}

}  // namespace vantrelo::app::platform
