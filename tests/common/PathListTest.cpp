#include "common/PathList.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

struct PathListCase {
  const wchar_t* list;
  const wchar_t* entry;
  bool expected;
};

class PathListContainsTest : public ::testing::TestWithParam<PathListCase> {};

TEST_P(PathListContainsTest, MatchesWholeEntriesIgnoringCase) {
  const auto& c = GetParam();
  EXPECT_EQ(PathListContains(c.list, c.entry), c.expected)
      << "list=" << testing::PrintToString(std::wstring(c.list))
      << " entry=" << testing::PrintToString(std::wstring(c.entry));
}

INSTANTIATE_TEST_SUITE_P(Cases, PathListContainsTest,
                         ::testing::Values(
                             // An empty entry finds the empty element between two adjacent semicolons.
                             PathListCase{L"C:\\A;;C:\\B", L"", true}, PathListCase{L"C:\\A;C:\\B", L"", false},
                             PathListCase{L";C:\\A", L"", true},  // leading ';'
                             PathListCase{L"C:\\A;", L"", true},  // trailing ';'
                             PathListCase{L"", L"", true},        // the empty list is one empty element
                             // No trailing separator is removed.
                             PathListCase{L"C:\\Shared\\2026\\;X", L"C:\\Shared\\2026", false},
                             PathListCase{L"C:\\Shared\\2026;X", L"C:\\Shared\\2026\\", false},
                             // Case is ignored.
                             PathListCase{L"C:\\SHARED\\2026;X", L"c:\\shared\\2026", true},
                             PathListCase{L"x;c:\\shared\\2026", L"C:\\Shared\\2026", true},
                             // Whole entries only: no prefix or substring match.
                             PathListCase{L"C:\\Shared\\20261;X", L"C:\\Shared\\2026", false},
                             PathListCase{L"XC:\\Shared\\2026", L"C:\\Shared\\2026", false},
                             // Nothing trimmed, unquoted or expanded.
                             PathListCase{L" C:\\A ;X", L"C:\\A", false}, PathListCase{L"\"C:\\A\";X", L"C:\\A", false},
                             PathListCase{L"%SystemRoot%;X", L"C:\\Windows", false},
                             PathListCase{L"%SystemRoot%;X", L"%systemroot%", true}, PathListCase{L"a;b;c", L"c", true},
                             PathListCase{L"a;b;c", L"d", false}));

// ---- putting a folder in front of PATH ----

using test::EnvGuard;

TEST(PrependToPathList, DirectorySemicolonOldValue) {
  EXPECT_EQ(PrependToPathList(L"D:\\Shared\\2026.1", L"C:\\a;C:\\b;"), L"D:\\Shared\\2026.1;C:\\a;C:\\b;");
  EXPECT_EQ(PrependToPathList(L"D:\\Shared\\2026.1", L""), L"D:\\Shared\\2026.1;");
}

TEST(PrependToPathVariable, EmptyFolderIsFalse) {
  EnvGuard env;
  env.Set(L"PATH", L"C:\\a");
  EXPECT_FALSE(PrependToPathVariable(L""));
  EXPECT_EQ(EnvGuard::Get(L"PATH"), L"C:\\a");
}

TEST(PrependToPathVariable, RootFolderKeepsItsSeparator) {
  EXPECT_EQ(std::filesystem::path(L"C:\\Kalvex.exe").parent_path().wstring(), L"C:\\");
  EnvGuard env;
  env.Set(L"PATH", L"C:\\a");
  EXPECT_TRUE(PrependToPathVariable(L"C:\\"));
  EXPECT_EQ(EnvGuard::Get(L"PATH"), L"C:\\;C:\\a");
}

}  // namespace
}  // namespace ambrel
