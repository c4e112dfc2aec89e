// The message table compiled into vantrelo.exe: the event log formats every entry of the
// "Morskel Vantrelo" source through it, so each of the three event ids must give back the
// entry's only insertion string.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

namespace {

// The text the event log shows for `id` with `message` as the insertion string, or the error
// code when the table has no such message.
std::string format(HMODULE module, DWORD id, const std::string& message) {
  char buffer[1024] = {};
  DWORD_PTR arguments[] = {reinterpret_cast<DWORD_PTR>(message.c_str())};
  const DWORD length =
      FormatMessageA(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module, id, 0,
                     buffer, sizeof buffer, reinterpret_cast<va_list*>(arguments));
  if (length == 0) return "error " + std::to_string(GetLastError());
  std::string text(buffer, length);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

TEST(MessageTableTest, EveryLevelShowsTheWholeMessage) {
  // vantrelo.exe of the same build: <build>/src/app, this test being in <build>/tests/app.
  char self[MAX_PATH] = {};
  GetModuleFileNameA(nullptr, self, sizeof self);
  std::string program = self;
  for (int level = 0; level < 3; ++level) program.erase(program.find_last_of("\\/"));
  program += "\\src\\app\\vantrelo.exe";
  HMODULE module = LoadLibraryExA(program.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
  ASSERT_NE(module, nullptr) << program << ": " << GetLastError();
  // Information, warning, error, as the log reports them.
  for (DWORD id : {1, 2, 3}) {
    for (const std::string message : {"Started", "Forwarder[x]: Process loop failed: 100%", ""}) {
      EXPECT_EQ(format(module, id, message), message) << "event id " << id;
    }
  }
  // The agent reports no other id (a table whose ids carried severity bits fails above).
  EXPECT_EQ(format(module, 4, "x"), "error " + std::to_string(ERROR_MR_MID_NOT_FOUND));
  FreeLibrary(module);
}

}  // namespace
