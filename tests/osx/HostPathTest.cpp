#include "osx/HostPath.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cwctype>
#include <filesystem>

#include "Ambrel.h"
#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

using test::EnvGuard;
using test::RegistrySandbox;

std::wstring ProgramPath() {
  wchar_t path[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, path, MAX_PATH);
  return path;
}

std::wstring ProgramDirectory() { return std::filesystem::path(ProgramPath()).parent_path().wstring(); }

std::wstring Upper(std::wstring text) {
  std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) { return std::towupper(c); });
  return text;
}

// ---- the host executable ----

TEST(HostExecutable, IsThisProgram) {
  EXPECT_TRUE(std::filesystem::equivalent(HostExecutablePath(), ProgramPath()));
  EXPECT_EQ(HostExecutableName(), L"test_osx.exe");
  EXPECT_EQ(HostExecutablePath(), HostExecutablePath());  // the same answer every time
}

TEST(ExecutableNameOf, FileNameAndExtension) {
  EXPECT_EQ(ExecutableNameOf(L"C:\\Apps\\Kalvex\\Bin\\Kalvex.exe"), L"Kalvex.exe");
  EXPECT_EQ(ExecutableNameOf(L"C:/Apps/tool"), L"tool");
  EXPECT_EQ(ExecutableNameOf(L"C:\\Apps\\archive.tar.gz"), L"archive.tar.gz");
  EXPECT_EQ(ExecutableNameOf(L""), L"");
  EXPECT_EQ(ExecutableNameOf(L"C:\\" + std::wstring(300, L'n') + L".exe"), L"");  // name part too long
}

// ---- PrependKalvexPath ----

TEST(PrependKalvexPath, PutsTheProgramFolderInFrontOnce) {
  EnvGuard env;
  env.Set(L"PATH", L"C:\\windows;C:\\tools");
  const std::wstring expected = ProgramDirectory() + L";C:\\windows;C:\\tools";

  EXPECT_TRUE(OSxUtil::PrependKalvexPath());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), expected);
  wchar_t win32[4096] = {};
  ::GetEnvironmentVariableW(L"PATH", win32, 4096);
  EXPECT_EQ(std::wstring(win32), expected);  // child processes see it too

  EXPECT_TRUE(OSxUtil::PrependKalvexPath());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), expected);
}

TEST(PrependKalvexPath, FolderInOtherLetterCaseCountsAsPresent) {
  EnvGuard env;
  const std::wstring path = L"C:\\windows;" + Upper(ProgramDirectory()) + L";C:\\tools";
  ASSERT_NE(Upper(ProgramDirectory()), ProgramDirectory());
  env.Set(L"PATH", path);
  EXPECT_TRUE(OSxUtil::PrependKalvexPath());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), path);
}

TEST(PrependKalvexPath, FolderWithTrailingSeparatorIsAnotherEntry) {
  EnvGuard env;
  env.Set(L"PATH", ProgramDirectory() + L"\\;C:\\tools");
  EXPECT_TRUE(OSxUtil::PrependKalvexPath());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), ProgramDirectory() + L";" + ProgramDirectory() + L"\\;C:\\tools");
}

TEST(PrependKalvexPath, UnsetPathIsFalseAndNotCreated) {
  EnvGuard env;
  env.Unset(L"PATH");
  EXPECT_FALSE(OSxUtil::PrependKalvexPath());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), std::nullopt);
  EXPECT_EQ(::GetEnvironmentVariableW(L"PATH", nullptr, 0), 0u);
}

// ---- the PATH edit ----

struct CutCase {
  const wchar_t* path;
  const wchar_t* text;
  std::optional<std::wstring> expected;
};

class CutFirstOccurrenceTest : public ::testing::TestWithParam<CutCase> {};

TEST_P(CutFirstOccurrenceTest, Cases) {
  EXPECT_EQ(CutFirstOccurrence(GetParam().path, GetParam().text), GetParam().expected)
      << test::Narrow(GetParam().path) << " minus " << test::Narrow(GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Cases, CutFirstOccurrenceTest,
                         ::testing::Values(CutCase{L"X;C:\\AB;Y", L"C:\\A", L"X;Y"},  // rest of the entry goes too
                                           CutCase{L"X;C:\\A", L"C:\\A", L"X;"},  // last entry keeps the ';' before it
                                           CutCase{L"C:\\A;Y", L"C:\\A", L"Y"},
                                           CutCase{L"C:\\A;X;C:\\A", L"C:\\A", L"X;C:\\A"},  // first occurrence only
                                           CutCase{L"X;c:\\a;Y", L"C:\\A", std::nullopt},    // case matters
                                           CutCase{L"First;Second", L"", L"Second"},         // empty text is found at 0
                                           CutCase{L"A;B", L"A;B;C", std::nullopt},          // longer than PATH
                                           CutCase{L"X;Y", L"Z", std::nullopt},
                                           CutCase{L"X;aC:\\A;Y", L"C:\\A",
                                                   L"X;aY"}));  // cut from the match, not the entry

// ---- RemoveAppPathSetting, with the App Paths entry in the sandboxed HKCU ----

class RemoveAppPathSettingTest : public ::testing::Test {
 protected:
  const std::wstring key = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\App Paths\\test_osx.exe";

  bool ValueKept() { return RegistrySandbox::ValueExists(HKEY_CURRENT_USER, key, L"Path"); }

  RegistrySandbox registry;
  EnvGuard env{L"PATH"};
};

TEST_F(RemoveAppPathSettingTest, WithoutTheKeyIsFalse) {
  env.Set(L"PATH", L"X;Y");
  EXPECT_FALSE(OSxUtil::RemoveAppPathSetting());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), L"X;Y");
}

TEST_F(RemoveAppPathSettingTest, KeyWithoutPathValueIsFalse) {
  RegistrySandbox::CreateKey(HKEY_CURRENT_USER, key);
  env.Set(L"PATH", L"X;Y");
  EXPECT_FALSE(OSxUtil::RemoveAppPathSetting());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), L"X;Y");
}

TEST_F(RemoveAppPathSettingTest, OtherExecutablesEntryIsNotOurs) {
  RegistrySandbox::SetString(HKEY_CURRENT_USER, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\App Paths\\Kalvex.exe",
                             L"Path", L"X");
  env.Set(L"PATH", L"X;Y");
  EXPECT_FALSE(OSxUtil::RemoveAppPathSetting());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), L"X;Y");
}

TEST_F(RemoveAppPathSettingTest, DwordValueIsFalseAndKept) {
  RegistrySandbox::SetDword(HKEY_CURRENT_USER, key, L"Path", 7);
  env.Set(L"PATH", L"X;Y");
  EXPECT_FALSE(OSxUtil::RemoveAppPathSetting());
  EXPECT_TRUE(ValueKept());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), L"X;Y");
}

// The registry text, PATH before, PATH after: every case returns true and
// deletes the value, whether or not the text was found.
struct RemovalCase {
  const char* name;
  const wchar_t* text;
  const wchar_t* pathBefore;
  const wchar_t* pathAfter;
};

class RemoveAppPathTextTest : public RemoveAppPathSettingTest, public ::testing::WithParamInterface<RemovalCase> {};

TEST_P(RemoveAppPathTextTest, CutsThePathAndDeletesTheValue) {
  const RemovalCase& c = GetParam();
  RegistrySandbox::SetString(HKEY_CURRENT_USER, key, L"Path", c.text);
  env.Set(L"PATH", c.pathBefore);
  EXPECT_TRUE(OSxUtil::RemoveAppPathSetting());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), c.pathAfter);
  EXPECT_FALSE(ValueKept());
}

INSTANTIATE_TEST_SUITE_P(
    Texts, RemoveAppPathTextTest,
    ::testing::Values(RemovalCase{"CutToTheNextSeparator", L"C:\\A", L"X;C:\\AB;Y", L"X;Y"},
                      RemovalCase{"NotInPath", L"C:\\Elsewhere", L"X;C:\\AB;Y", L"X;C:\\AB;Y"},
                      RemovalCase{"OtherLetterCaseIsNotFound", L"c:\\a", L"X;C:\\A;Y", L"X;C:\\A;Y"},
                      RemovalCase{"InTheLastEntryKeepsTheSeparatorBeforeIt", L"C:\\Kalvex\\Bin", L"X;C:\\Kalvex\\Bin",
                                  L"X;"}),
    [](const ::testing::TestParamInfo<RemovalCase>& info) { return std::string(info.param.name); });

TEST_F(RemoveAppPathSettingTest, EmptyTextRemovesTheFirstEntry) {
  const wchar_t nul = L'\0';
  RegistrySandbox::SetRaw(HKEY_CURRENT_USER, key, L"Path", REG_SZ, &nul, 2);
  env.Set(L"PATH", L"First;Second;Third");
  EXPECT_TRUE(OSxUtil::RemoveAppPathSetting());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), L"Second;Third");
  EXPECT_FALSE(ValueKept());
}

TEST_F(RemoveAppPathSettingTest, ExpandableTextIsUsedUnexpanded) {
  RegistrySandbox::SetString(HKEY_CURRENT_USER, key, L"Path", L"%KALVEXROOT%\\Bin", REG_EXPAND_SZ);
  env.Set(L"KALVEXROOT", L"C:\\Kalvex");
  env.Set(L"PATH", L"X;C:\\Kalvex\\Bin;%KALVEXROOT%\\Bin;Y");
  EXPECT_TRUE(OSxUtil::RemoveAppPathSetting());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), L"X;C:\\Kalvex\\Bin;Y");
  EXPECT_FALSE(ValueKept());
}

TEST_F(RemoveAppPathSettingTest, ZeroByteValueIsFalseAndKept) {
  RegistrySandbox::SetRaw(HKEY_CURRENT_USER, key, L"Path", REG_SZ, nullptr, 0);
  env.Set(L"PATH", L"X;Y");
  EXPECT_FALSE(OSxUtil::RemoveAppPathSetting());
  EXPECT_TRUE(ValueKept());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), L"X;Y");
}

TEST_F(RemoveAppPathSettingTest, TextWithoutTerminatorIsFalseAndKept) {
  // The registry completes a text whose count left out a NUL that follows it
  // in memory, so the stored character is followed by another one.
  const std::wstring text = L"XY";
  RegistrySandbox::SetRaw(HKEY_CURRENT_USER, key, L"Path", REG_SZ, text.data(), 2);
  env.Set(L"PATH", L"X;Y");
  EXPECT_FALSE(OSxUtil::RemoveAppPathSetting());
  EXPECT_TRUE(ValueKept());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), L"X;Y");
}

TEST_F(RemoveAppPathSettingTest, OddByteLengthIsFalseAndKept) {
  const char bytes[] = {'X', 0, 0, 'Z'};
  RegistrySandbox::SetRaw(HKEY_CURRENT_USER, key, L"Path", REG_SZ, bytes, 3);
  env.Set(L"PATH", L"X;Y");
  EXPECT_FALSE(OSxUtil::RemoveAppPathSetting());
  EXPECT_TRUE(ValueKept());
}

TEST_F(RemoveAppPathSettingTest, BinaryValueIsFalseAndKept) {
  const wchar_t text[] = L"X";
  RegistrySandbox::SetRaw(HKEY_CURRENT_USER, key, L"Path", REG_BINARY, text, sizeof(text));
  env.Set(L"PATH", L"X;Y");
  EXPECT_FALSE(OSxUtil::RemoveAppPathSetting());
  EXPECT_TRUE(ValueKept());
}

TEST_F(RemoveAppPathSettingTest, UnsetPathStillDeletesTheValueAndDoesNotCreatePath) {
  RegistrySandbox::SetString(HKEY_CURRENT_USER, key, L"Path", L"C:\\A");
  env.Unset(L"PATH");
  EXPECT_TRUE(OSxUtil::RemoveAppPathSetting());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), std::nullopt);
  EXPECT_FALSE(ValueKept());
}

}  // namespace
}  // namespace ambrel
