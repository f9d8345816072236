#include "osx/EnvironmentBlock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "Ambrel.h"
#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

using test::EnvGuard;
using test::LibraryCopy;

TEST(EnvironmentBlockLength, CountsEveryStringAndTheFinalNul) {
  EXPECT_EQ(EnvironmentBlockLength(L"A=1\0BB=22\0"), 11u);  // the literal adds the final NUL
  EXPECT_EQ(EnvironmentBlockLength(L"\0"), 2u);             // empty block: the first string always counts
  EXPECT_EQ(EnvironmentBlockLength(L"=C:=C:\\\0"), 9u);
}

TEST(CopyEnvironmentBlock, CopiesTheWholeBlock) {
  const wchar_t block[] = L"A=1\0B=2\0";
  const EnvironmentCopy copy = CopyEnvironmentBlock(block);
  ASSERT_EQ(copy.length, 9u);
  EXPECT_EQ(std::wstring(copy.characters.get(), copy.length), std::wstring(block, 9));
  EXPECT_NE(copy.characters.get(), block);
}

int g_invalidParameterCalls = 0;
void CountInvalidParameter(const wchar_t*, const wchar_t*, const wchar_t*, unsigned, uintptr_t) {
  ++g_invalidParameterCalls;
}

TEST(CopyEnvironmentBlock, NullBlockIsZeroFilledAndRaisesTheInvalidParameterHandler) {
  g_invalidParameterCalls = 0;
  const _invalid_parameter_handler previous = _set_invalid_parameter_handler(CountInvalidParameter);
  errno = 0;
  const EnvironmentCopy copy = CopyEnvironmentBlock(nullptr);
  const int error = errno;
  _set_invalid_parameter_handler(previous);
  ASSERT_EQ(copy.length, 2u);
  EXPECT_EQ(copy.characters[0], L'\0');
  EXPECT_EQ(copy.characters[1], L'\0');
  EXPECT_EQ(error, EINVAL);
  EXPECT_EQ(g_invalidParameterCalls, 1);
}

// A fresh copy of the library has taken no copy yet.
TEST(InitialEnvironmentBlock, NullBeforeTheBackupThenTheBlockOfTheFirstBackup) {
  LibraryCopy library;
  const auto backup = library.As<void (*)()>("BackupInitialEnvironmentBlock");
  const auto get = library.As<const wchar_t* (*)()>("GetInitialEnvironmentBlock");
  ASSERT_NE(backup, nullptr);
  ASSERT_NE(get, nullptr);
  EXPECT_EQ(get(), nullptr);

  EnvGuard env;
  env.Set(L"AMBREL_BLOCK_BEFORE", L"before");
  wchar_t* live = ::GetEnvironmentStringsW();
  const std::wstring expected(live, EnvironmentBlockLength(live));
  ::FreeEnvironmentStringsW(live);

  backup();
  const wchar_t* copy = get();
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(std::wstring(copy, EnvironmentBlockLength(copy)), expected);
  EXPECT_NE(expected.find(L"AMBREL_BLOCK_BEFORE=before"), std::wstring::npos);

  env.Set(L"AMBREL_BLOCK_AFTER", L"after");
  env.Set(L"AMBREL_BLOCK_BEFORE", L"changed");
  backup();  // the first copy stays
  EXPECT_EQ(get(), copy);
  EXPECT_EQ(std::wstring(copy, EnvironmentBlockLength(copy)), expected);
  EXPECT_EQ(std::wstring(copy, EnvironmentBlockLength(copy)).find(L"AMBREL_BLOCK_AFTER"), std::wstring::npos);
}

TEST(InitialEnvironmentBlock, LinkedObjectsKeepOneCopyPerProcess) {
  BackupInitialEnvironmentBlock();
  const wchar_t* first = GetInitialEnvironmentBlock();
  ASSERT_NE(first, nullptr);
  BackupInitialEnvironmentBlock();
  EXPECT_EQ(GetInitialEnvironmentBlock(), first);
}

}  // namespace
}  // namespace ambrel
