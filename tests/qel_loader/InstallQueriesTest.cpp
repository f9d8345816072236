#include "qel_loader/InstallQueries.h"

#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "Ambrel.h"
#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

using test::kSharedComponentsKey;
using test::LibraryCopy;
using test::RegistrySandbox;
using test::ScratchDir;

TEST(QelRelease, IsTheOnlyRelease2026) { EXPECT_EQ(std::wstring(QelRelease), L"2026"); }

TEST(SharedDllPath, StartsEmptyAndIsOneProcessWideString) {
  EXPECT_TRUE(SharedDllPath().empty());
  // What one call records, every later call reads.
  SharedDllPath() = L"C:\\Shared\\2026";
  EXPECT_EQ(SharedDllPath(), L"C:\\Shared\\2026");
  SharedDllPath().clear();
  EXPECT_TRUE(SharedDllPath().empty());
}

// ---- development build ----

struct DevelopmentCase {
  const wchar_t* path;
  bool expected;
};

class DevelopmentPathTest : public ::testing::TestWithParam<DevelopmentCase> {};

TEST_P(DevelopmentPathTest, OnlyDriveRInDriveLetterForm) {
  EXPECT_EQ(IsDevelopmentModulePath(GetParam().path), GetParam().expected)
      << testing::PrintToString(std::wstring(GetParam().path));
}

INSTANTIATE_TEST_SUITE_P(Cases, DevelopmentPathTest,
                         ::testing::Values(DevelopmentCase{L"R:\\build\\bin\\Ambrel.dll", true},
                                           DevelopmentCase{L"r:\\build\\bin\\Ambrel.dll", true},
                                           DevelopmentCase{L"R:/build/Ambrel.dll", true},
                                           DevelopmentCase{L"C:\\Program Files\\Kalvex\\Ambrel.dll", false},
                                           DevelopmentCase{L"S:\\Ambrel.dll", false},
                                           DevelopmentCase{L"\\\\server\\R$\\Ambrel.dll", false},
                                           DevelopmentCase{L"\\\\server\\share\\R:\\Ambrel.dll", false},
                                           DevelopmentCase{L"\\\\?\\R:\\build\\Ambrel.dll", false},
                                           DevelopmentCase{L"\\\\.\\R:\\build\\Ambrel.dll", false},
                                           DevelopmentCase{L"build\\R:\\Ambrel.dll", false},
                                           DevelopmentCase{L"", false}));

using IsDevelopmentFn = bool (*)();
const char* const kIsDevelopment =
    AMBREL_EXPORT_NAME("?IsDevelopment@QelLoadHelper@@YA_NXZ", "_ZN13QelLoadHelper13IsDevelopmentEv");

TEST(IsDevelopment, LibraryLoadedFromDriveRIsADevelopmentBuild) {
  LibraryCopy copy(L"R:\\");
  auto isDevelopment = copy.As<IsDevelopmentFn>(kIsDevelopment);
  ASSERT_NE(isDevelopment, nullptr);
  EXPECT_TRUE(isDevelopment());
}

TEST(IsDevelopment, LibraryLoadedFromDriveCIsNot) {
  LibraryCopy copy;  // the prefix's temporary folder, on C:
  ASSERT_EQ(towupper(copy.directory()[0]), L'C');
  auto isDevelopment = copy.As<IsDevelopmentFn>(kIsDevelopment);
  ASSERT_NE(isDevelopment, nullptr);
  EXPECT_FALSE(isDevelopment());
}

TEST(IsDevelopment, TestProgramOnDriveZIsNot) { EXPECT_FALSE(QelLoadHelper::IsDevelopment()); }

// ---- IsQELInstalled ----

class IsQELInstalledTest : public ::testing::Test {
 protected:
  RegistrySandbox registry;
  ScratchDir dir;
};

// An entry of release 2026 over a scratch folder that holds a folder
// "2026.1": InstallPath is the scratch folder with `installPathSuffix`
// appended; a value left out where nullopt (neither: no key at all).
struct EntryCase {
  const char* name;
  std::optional<std::wstring> installPathSuffix;
  std::optional<std::wstring> version;
  bool installed;
};

// Named in the test list and failure messages by its case name.
void PrintTo(const EntryCase& c, std::ostream* os) { *os << c.name; }

const EntryCase kEntries[] = {
    {"CompleteEntry", L"", L"2026.1", true},
    {"InstallPathWithTrailingBackslashJoinsWithoutDoubling", L"\\", L"2026.1", true},
    {"MissingKey", std::nullopt, std::nullopt, false},
    {"MissingInstallPathValue", std::nullopt, L"2026.1", false},
    {"MissingInstallDirectory", L"\\absent", L"2026.1", false},
    {"EmptyVersion", L"", L"", false},
    {"MissingVersionValue", L"", std::nullopt, false},
    {"VersionNamingAMissingFolder", L"", L"2026.9", false},
};

class InstallEntryTest : public IsQELInstalledTest, public ::testing::WithParamInterface<EntryCase> {};

TEST_P(InstallEntryTest, IsInstalledOnlyWhenTheVersionFolderIsThere) {
  const EntryCase& entry = GetParam();
  dir.MakeDir(L"2026.1");
  if (entry.installPathSuffix)
    RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath",
                               dir.path() + *entry.installPathSuffix);
  if (entry.version) RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", *entry.version);
  EXPECT_EQ(QelLoadHelper::IsQELInstalled(), entry.installed);
}

INSTANTIATE_TEST_SUITE_P(Entries, InstallEntryTest, ::testing::ValuesIn(kEntries),
                         [](const ::testing::TestParamInfo<EntryCase>& info) { return info.param.name; });

TEST_F(IsQELInstalledTest, ValuesOfAnotherTypeAreReadAsText) {
  dir.MakeDir(L"2026.1");
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", dir.path(), REG_EXPAND_SZ);
  const std::wstring version = L"2026.1";
  RegistrySandbox::SetRaw(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", REG_BINARY, version.c_str(),
                          static_cast<DWORD>((version.size() + 1) * sizeof(wchar_t)));
  EXPECT_TRUE(QelLoadHelper::IsQELInstalled());
}

TEST_F(IsQELInstalledTest, ValueWithoutTerminatingNulIsStillReadAsText) {
  dir.MakeDir(L"2026.1");
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", dir.path());
  const std::wstring version = L"2026.1";
  RegistrySandbox::SetRaw(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", REG_SZ, version.data(),
                          static_cast<DWORD>(version.size() * sizeof(wchar_t)));
  EXPECT_TRUE(QelLoadHelper::IsQELInstalled());
}

// "InstallPath" is read through 260 bytes: 129 characters and the terminator.
std::wstring PathOfLength(const ScratchDir& dir, size_t length) {
  std::wstring path = dir.path() + L"\\";
  path += std::wstring(length - path.size(), L'p');
  return path;
}

// InstallPath of a given length, existing with its Version folder: read up to
// 129 characters, missing from 130 on (the query offers 260 bytes).
class InstallPathLengthTest : public IsQELInstalledTest,
                              public ::testing::WithParamInterface<std::pair<size_t, bool>> {};

TEST_P(InstallPathLengthTest, IsReadOnlyWithinTheQuerysSize) {
  const auto [length, installed] = GetParam();
  const std::wstring installPath = PathOfLength(dir, length);
  ASSERT_EQ(installPath.size(), length);
  dir.MakeDir(installPath.substr(dir.path().size() + 1) + L"\\v");
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", installPath);
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", L"v");
  EXPECT_EQ(QelLoadHelper::IsQELInstalled(), installed);
}

INSTANTIATE_TEST_SUITE_P(Lengths, InstallPathLengthTest,
                         ::testing::Values(std::pair<size_t, bool>{129, true}, std::pair<size_t, bool>{130, false}),
                         [](const ::testing::TestParamInfo<std::pair<size_t, bool>>& info) {
                           return "Of" + std::to_string(info.param.first) + "Characters";
                         });

TEST_F(IsQELInstalledTest, OtherReleasesDoNotCount) {
  dir.MakeDir(L"2025.1");
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tavrel\\SharedComponents\\2025", L"InstallPath",
                             dir.path());
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tavrel\\SharedComponents\\2025", L"Version", L"2025.1");
  EXPECT_FALSE(QelLoadHelper::IsQELInstalled());
}

// ---- lite edition ----

TEST(IsLiteEdition, AbsentIniIsNotLite) {
  ScratchDir dir;
  EXPECT_FALSE(IsLiteEditionIn(dir.path()));
}

TEST(IsLiteEdition, IniWithoutSectionOrKeyIsNotLite) {
  ScratchDir dir;
  dir.WriteFile(L"Kalvex.ini", "[Other]\r\nProductEdition=KLXLITE\r\n");
  EXPECT_FALSE(IsLiteEditionIn(dir.path()));
  dir.WriteFile(L"Kalvex.ini", "[Tavrel Kalvex Installation Options]\r\nEdition=KLXLITE\r\n");
  EXPECT_FALSE(IsLiteEditionIn(dir.path()));
}

TEST(IsLiteEdition, KlxliteInTheSectionIsLite) {
  ScratchDir dir;
  dir.WriteFile(L"Kalvex.ini", "[Tavrel Kalvex Installation Options]\r\nProductEdition=KLXLITE\r\n");
  EXPECT_TRUE(IsLiteEditionIn(dir.path()));
}

TEST(IsLiteEdition, OnlyTheExactValueCounts) {
  ScratchDir dir;
  for (const char* value : {"klxlite", "KLXLITE2", "KLX", "KLXPRO", ""}) {
    dir.WriteFile(L"Kalvex.ini",
                  std::string("[Tavrel Kalvex Installation Options]\r\nProductEdition=") + value + "\r\n");
    EXPECT_FALSE(IsLiteEditionIn(dir.path())) << value;
  }
  // A quoted value keeps a trailing blank, which makes it another edition.
  dir.WriteFile(L"Kalvex.ini", "[Tavrel Kalvex Installation Options]\r\nProductEdition=\"KLXLITE \"\r\n");
  EXPECT_FALSE(IsLiteEditionIn(dir.path()));
}

TEST(IsLiteEdition, TestProgramFolderHasNoIni) { EXPECT_FALSE(IsLiteEdition()); }

}  // namespace
}  // namespace ambrel
