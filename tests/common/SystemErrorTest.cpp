#include "common/SystemError.h"

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

// The system's own text, fetched here independently of the library.
std::string SystemText(DWORD code) {
  wchar_t buffer[512] = {};
  ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, buffer, 512, nullptr);
  std::wstring text = buffer;
  while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' ')) text.pop_back();
  return test::Narrow(text);
}

TEST(WindowsError, MessageIsTheSystemsOwnText) {
  for (DWORD code : {0u, 2u, 3u, 5u, 53u, 123u, 1392u}) {
    const std::error_code ec = MakeWindowsError(code);
    EXPECT_EQ(ec.value(), static_cast<int>(code));
    EXPECT_STREQ(ec.category().name(), "system");
    ASSERT_FALSE(SystemText(code).empty()) << code;
    EXPECT_EQ(ec.message(), SystemText(code)) << code;
  }
}

TEST(WindowsError, OneCategoryForEveryCode) {
  EXPECT_TRUE(MakeWindowsError(5).category() == MakeWindowsError(2).category());
  EXPECT_TRUE(MakeWindowsError(5).category() == WindowsErrorCategory());
  EXPECT_EQ(MakeWindowsError(5), MakeWindowsError(5));
  EXPECT_NE(MakeWindowsError(5), MakeWindowsError(2));
}

TEST(WindowsError, ZeroIsNoError) { EXPECT_FALSE(MakeWindowsError(0)); }

// Portable conditions come from the system category, as for any system code.
TEST(WindowsError, DefaultConditionIsTheSystemCategorys) {
  for (const DWORD code : {DWORD{ERROR_FILE_NOT_FOUND}, DWORD{ERROR_ACCESS_DENIED}, DWORD{ERROR_SHARING_VIOLATION}}) {
    EXPECT_EQ(MakeWindowsError(code).default_error_condition(),
              std::system_category().default_error_condition(static_cast<int>(code)))
        << code;
  }
}

// A condition of the category matches codes of the same value from it and
// from the system category, and nothing else.
TEST(WindowsError, ConditionMatchesTheSameValueOfEitherSystemCategory) {
  const std::error_condition denied(ERROR_ACCESS_DENIED, WindowsErrorCategory());
  EXPECT_TRUE(denied == MakeWindowsError(ERROR_ACCESS_DENIED));
  EXPECT_TRUE(denied == std::error_code(ERROR_ACCESS_DENIED, std::system_category()));
  EXPECT_FALSE(denied == MakeWindowsError(ERROR_FILE_NOT_FOUND));
  EXPECT_FALSE(denied == std::error_code(ERROR_FILE_NOT_FOUND, std::system_category()));
  EXPECT_FALSE(denied == std::error_code(ERROR_ACCESS_DENIED, std::generic_category()));
}

}  // namespace
}  // namespace ambrel
