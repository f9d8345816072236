#include "common/TextConvert.h"

#include <gtest/gtest.h>

#include <system_error>

namespace ambrel {
namespace {

TEST(TextConvert, Utf8RoundTripKeepsNonAsciiText) {
  const std::wstring text = L"C:\\Gr\u00fc\u00dfe\\\u65e5\u672c\\\U0001F600";
  const std::string utf8 = WideToUtf8(text);
  EXPECT_EQ(utf8,
            "C:\\Gr\xC3\xBC\xC3\x9F"
            "e\\\xE6\x97\xA5\xE6\x9C\xAC\\\xF0\x9F\x98\x80");
  EXPECT_EQ(Utf8ToWide(utf8), text);
}

TEST(TextConvert, EmptyTextStaysEmpty) {
  EXPECT_EQ(WideToUtf8(L""), "");
  EXPECT_EQ(Utf8ToWide(""), L"");
}

TEST(TextConvert, WidenBytesSignExtendsEachByte) {
  const std::wstring wide = WidenBytes(std::string("A\x7f\x80\xff", 4));
  ASSERT_EQ(wide.size(), 4u);
  EXPECT_EQ(wide[0], L'A');
  EXPECT_EQ(wide[1], static_cast<wchar_t>(0x7F));
  EXPECT_EQ(wide[2], static_cast<wchar_t>(0xFF80));
  EXPECT_EQ(wide[3], static_cast<wchar_t>(0xFFFF));
}

TEST(TextConvert, FileNameToWideUsesTheFileApisCodePage) {
  EXPECT_EQ(FileNameToWide("ambrel_dlprobe.dll"), L"ambrel_dlprobe.dll");
  EXPECT_EQ(FileNameToWide(""), L"");
  // Whatever the code page, the result is what the file APIs would read.
  const std::string name = "caf\xe9.dll";
  const UINT codePage = ::AreFileApisANSI() ? CP_ACP : CP_OEMCP;
  wchar_t expected[16] = {};
  const int length = ::MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, name.data(), 8, expected, 16);
  if (length == 0) {
    EXPECT_THROW(FileNameToWide(name), std::system_error);
  } else {
    EXPECT_EQ(FileNameToWide(name), std::wstring(expected, static_cast<size_t>(length)));
  }
}

TEST(TextConvert, FileNameToWideFollowsASwitchToTheOemCodePage) {
  const std::string name = "\x82.dll";  // 'e' acute in code page 437/850, a low quote in 1252
  ::SetFileApisToOEM();
  const std::wstring oem = FileNameToWide(name);
  ::SetFileApisToANSI();
  const std::wstring ansi = FileNameToWide(name);
  wchar_t expected[8] = {};
  ASSERT_GT(::MultiByteToWideChar(CP_OEMCP, 0, name.data(), 5, expected, 8), 0);
  EXPECT_EQ(oem, std::wstring(expected, 5));
  if (::GetACP() != ::GetOEMCP()) EXPECT_NE(oem, ansi);
}

}  // namespace
}  // namespace ambrel
