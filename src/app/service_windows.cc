#include <windows.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "app/platform.h"
#include "app/process_state.h"
#include "base/error.h"

namespace vantrelo::app::platform {

namespace {

// A SERVICE_WIN32_OWN_PROCESS service may register under the empty name; the name it is
// installed under is the installer's business.
char serviceName[] = "";

// Pre-shutdown comes first and gives the service the time the system grants it for its stop;
// shutdown is the late, short notice of systems that send no pre-shutdown.
constexpr DWORD kAcceptedControls =
    SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_PRESHUTDOWN;

// While a start or stop is pending the checkpoint moves on every tick. The hint tells the
// service control manager when to expect the next report; it allows for a loaded machine.
constexpr auto kTick = std::chrono::seconds(1);
constexpr DWORD kPendingWaitHintMilliseconds = 5000;
// A start or stop still pending after this long is stuck (the workers' stops are bounded and
// a queue file loads or saves in seconds): the checkpoint then stays, and the service control
// manager sees the hang instead of a service that claims progress for ever.
constexpr auto kPendingLimit = std::chrono::seconds(120);

// The service-specific exit code of a failed run: the event log shows the failure and the
// recovery actions fire; the "Run failed: " entry holds the reason.
constexpr DWORD kRunFailedExitCode = 1;

// The service's status as the service control manager sees it. The state only moves forward,
// start pending -> running -> stop pending -> stopped, so a stop requested during start-up is
// not overwritten by a late "running". Shared by the service main, the control handler (on the
// dispatcher's thread) and its own ticking thread, which re-reports a pending state with the
// next checkpoint; every report is made under the lock, so they reach the manager in order.
class ServiceStatus : public RunObserver {
 public:
  // Reports the state so far on `handle` (start pending, or stop pending after an early stop
  // control) and starts ticking.
  void attach(SERVICE_STATUS_HANDLE handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    handle_ = handle;
    enter(state_);
    ticker_ = std::thread([this] { tick(); });
  }

  void running() override { advance(SERVICE_RUNNING); }
  void stopping() override { advance(SERVICE_STOP_PENDING); }

  // Reports the final state, with the failure code when the run failed, and ends the ticking.
  void stopped(bool succeeded) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!succeeded) serviceError_ = kRunFailedExitCode;
      enter(SERVICE_STOPPED);
    }
    wake_.notify_all();
    if (ticker_.joinable()) ticker_.join();
  }

 private:
  // Start pending, running, stop pending, stopped: the order the states come in.
  static int rank(DWORD state) {
    switch (state) {
      case SERVICE_START_PENDING:
        return 0;
      case SERVICE_RUNNING:
        return 1;
      case SERVICE_STOP_PENDING:
        return 2;
      default:
        return 3;
    }
  }

  static bool pending(DWORD state) {
    return state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
  }

  void advance(DWORD state) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (rank(state) > rank(state_)) enter(state);
  }

  // Called with the lock held.
  void enter(DWORD state) {
    state_ = state;
    checkpoint_ = pending(state) ? 1 : 0;
    since_ = std::chrono::steady_clock::now();
    report();
  }

  // Called with the lock held.
  void report() {
    if (handle_ == nullptr) return;
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state_;
    status.dwControlsAccepted = state_ == SERVICE_STOPPED ? 0 : kAcceptedControls;
    status.dwWin32ExitCode = serviceError_ != 0 ? ERROR_SERVICE_SPECIFIC_ERROR : NO_ERROR;
    status.dwServiceSpecificExitCode = serviceError_;
    status.dwCheckPoint = checkpoint_;
    status.dwWaitHint = pending(state_) ? kPendingWaitHintMilliseconds : 0;
    SetServiceStatus(handle_, &status);
  }

  void tick() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (state_ != SERVICE_STOPPED) {
      wake_.wait_for(lock, kTick);
      if (pending(state_) && std::chrono::steady_clock::now() - since_ < kPendingLimit) {
        ++checkpoint_;
        report();
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  SERVICE_STATUS_HANDLE handle_ = nullptr;
  DWORD state_ = SERVICE_START_PENDING;
  DWORD checkpoint_ = 0;
  DWORD serviceError_ = 0;
  std::chrono::steady_clock::time_point since_;
  std::thread ticker_;
};

// Set once before the dispatcher starts; read by the service main on the dispatcher's thread.
ServiceRun serviceRun = nullptr;
bool serviceSucceeded = false;
// Lives for the whole process: a control that races the final report still finds it.
ServiceStatus serviceStatus;

DWORD WINAPI controlHandler(DWORD control, DWORD, LPVOID, LPVOID) {
  switch (control) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
    case SERVICE_CONTROL_PRESHUTDOWN:
      serviceStatus.stopping();
      requestStop();
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
      // The manager answers from the last report.
      return NO_ERROR;
    default:
      return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

void WINAPI serviceMain(DWORD, LPSTR*) {
  SERVICE_STATUS_HANDLE handle =
      RegisterServiceCtrlHandlerExA(serviceName, controlHandler, nullptr);
  if (handle == nullptr) return;
  // Running is reported by the run itself, once its workers have started.
  serviceStatus.attach(handle);
  serviceSucceeded = serviceRun(serviceStatus);
  serviceStatus.stopped(serviceSucceeded);
}

}  // namespace

bool runService(ServiceRun run) {
  serviceRun = run;
  const SERVICE_TABLE_ENTRYA table[] = {
      {serviceName, serviceMain},
      {nullptr, nullptr},
  };
  if (StartServiceCtrlDispatcherA(table)) return serviceSucceeded;
  const DWORD failure = GetLastError();
  if (failure == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) {
    // Started from a console rather than by the service control manager.
    return runInForeground(run);
  }
  throw error::UnknownError("StartServiceCtrlDispatcher() failed: " +
                            error::systemErrorText(failure));
}

}  // namespace vantrelo::app::platform
