// Exception base of the whole agent and the system's error texts.
//
// Every failure is an exception that carries one finished message text. Each module defines one
// class derived from UnknownError, named after the module (DataError, DnsError, SocketError...),
// so a caller can tell where a failure came from while the top of every worker loop catches
// std::exception and logs what().
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace vantrelo::error {

class UnknownError : public std::exception {
 public:
  explicit UnknownError(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }
  const std::string& message() const noexcept { return message_; }

 private:
  std::string message_;
};

// The system's message text for a system error code: a Windows error code (GetLastError,
// WSAGetLastError) on Windows, taken from the system's message table with the line end kept as
// the system gives it; the C library's strerror text elsewhere. Unknown codes give
// "Unknown error <code>". Thread-safe.
std::string systemErrorText(uint32_t code);

// The C library's text for an errno value, on every platform. Thread-safe.
std::string cErrorText(uint32_t code);

// The message text of an NTSTATUS, taken from NTDLL.DLL on Windows; "Unknown error <status>"
// where there is no such table.
std::string ntStatusText(uint32_t status);

// The calling thread's last error of the C library (errno).
uint32_t lastCError();

// The calling thread's last system error: GetLastError() on Windows, errno elsewhere.
uint32_t lastSystemError();

}  // namespace vantrelo::error

// Defines a module's exception class: one per module, all carrying only a message.
#define NS_DEFINE_ERROR(Name)                            \
  class Name : public ::vantrelo::error::UnknownError {  \
   public:                                               \
    using ::vantrelo::error::UnknownError::UnknownError; \
  }
