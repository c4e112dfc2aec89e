// The message table compiled into vantrelo.exe: the event log formats every entry of the
// "Morskel Vantrelo" source through it, so each of the three event ids must give back the
// entry's only insertion string.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

namespace {

// vantrelo.exe of the same build: <build>/src/app, this test being in <build>/tests/app.
std::string programPath() {
  char self[MAX_PATH] = {};
  GetModuleFileNameA(nullptr, self, sizeof self);
  std::string path = self;
  for (int level = 0; level < 3; ++level) path.erase(path.find_last_of("\\/"));
  return path + "\\src\\app\\vantrelo.exe";
}

class MessageTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    module_ = LoadLibraryExA(programPath().c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    ASSERT_NE(module_, nullptr) << programPath() << ": " << GetLastError();
  }
  void TearDown() override {
    if (module_ != nullptr) FreeLibrary(module_);
  }

  // The text the event log shows for `id` with `message` as the insertion string; empty with
  // the error code in `failure` when the table has no such message.
  std::string format(DWORD id, const std::string& message, DWORD& failure) {
    char buffer[1024] = {};
    DWORD_PTR arguments[] = {reinterpret_cast<DWORD_PTR>(message.c_str())};
    DWORD length =
        FormatMessageA(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module_, id, 0,
                       buffer, sizeof buffer, reinterpret_cast<va_list*>(arguments));
    failure = length == 0 ? GetLastError() : 0;
    std::string text(buffer, length);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
  }

  HMODULE module_ = nullptr;
};

TEST_F(MessageTableTest, EveryLevelShowsTheWholeMessage) {
  // Information, warning, error, as the log reports them.
  const DWORD ids[] = {1, 2, 3};
  const std::string messages[] = {"Started", "Forwarder[collector]: Process loop failed: 100%", ""};
  for (DWORD id : ids) {
    for (const std::string& message : messages) {
      DWORD failure = 0;
      EXPECT_EQ(format(id, message, failure), message) << "event id " << id;
      EXPECT_EQ(failure, 0u) << "event id " << id;
    }
  }
}

TEST_F(MessageTableTest, HoldsNoOtherIds) {
  // Ids with severity or facility bits set would not match what the agent reports.
  const DWORD absent[] = {0, 4, 0x40000001, 0x0FFF0001};
  for (DWORD id : absent) {
    DWORD failure = 0;
    format(id, "x", failure);
    EXPECT_EQ(failure, static_cast<DWORD>(ERROR_MR_MID_NOT_FOUND)) << "event id " << id;
  }
}

}  // namespace
