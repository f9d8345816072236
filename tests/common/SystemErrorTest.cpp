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
  EXPECT_EQ(&MakeWindowsError(5).category(), &MakeWindowsError(2).category());
  EXPECT_EQ(MakeWindowsError(5), MakeWindowsError(5));
  EXPECT_NE(MakeWindowsError(5), MakeWindowsError(2));
}

TEST(WindowsError, ZeroIsNoError) { EXPECT_FALSE(MakeWindowsError(0)); }

}  // namespace
}  // namespace ambrel
