// The data directory's security descriptor, as the installers write it (install.ps1 and the
// package's tables), read back through the system's own SDDL parser. windows_server_test.ps1
// checks the directory that real installations leave.
#include <windows.h>
// After windows.h.
#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>

namespace {

// The descriptor text of one installer: the first quoted "D:..." after `name`.
std::string sddlOf(const std::string& file, const std::string& name) {
  std::ifstream in(std::string(VANTRELO_SOURCE_DIR) + "/packaging/windows/" + file,
                   std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  std::smatch match;
  if (!std::regex_search(text, match, std::regex(name + R"(\s*=\s*'(D:[^']*)')"))) return "";
  return match[1];
}

TEST(DataDirectoryAclTest, OnlySystemAndAdministratorsAndNothingInherited) {
  const std::string script = sddlOf("install.ps1", R"(\$DataDirectorySddl)");
  ASSERT_FALSE(script.empty());
  EXPECT_EQ(script, sddlOf("msi-tables.sh", "data_directory_sddl"))
      << "install.ps1 and the package must lock the directory alike";

  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorA(script.c_str(), SDDL_REVISION_1,
                                                                   &descriptor, nullptr))
      << GetLastError();
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  ASSERT_TRUE(GetSecurityDescriptorControl(descriptor, &control, &revision));
  // Nothing comes down from ProgramData, whose grants let ordinary users create files.
  EXPECT_TRUE(control & SE_DACL_PROTECTED);

  BOOL present = FALSE, defaulted = FALSE;
  PACL dacl = nullptr;
  ASSERT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted));
  ASSERT_TRUE(present && dacl != nullptr);  // a null DACL would grant everyone everything

  const WELL_KNOWN_SID_TYPE grants[] = {WinLocalSystemSid, WinBuiltinAdministratorsSid};
  ASSERT_EQ(dacl->AceCount, std::size(grants));
  for (DWORD i = 0; i < dacl->AceCount; ++i) {
    SCOPED_TRACE(i);
    void* entry = nullptr;
    ASSERT_TRUE(GetAce(dacl, i, &entry));
    auto* ace = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    EXPECT_EQ(ace->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
    // Full control, on the directory and on every file and directory made in it later.
    EXPECT_EQ(ace->Mask, static_cast<DWORD>(FILE_ALL_ACCESS));
    EXPECT_EQ(ace->Header.AceFlags, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE);
    EXPECT_TRUE(IsWellKnownSid(&ace->SidStart, grants[i]));
  }
  LocalFree(descriptor);
}

}  // namespace
