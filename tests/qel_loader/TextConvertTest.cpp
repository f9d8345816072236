#include "qel_loader/TextConvert.h"

#include <gtest/gtest.h>

namespace ambrel {
namespace {

TEST(TextConvert, Utf8RoundTripKeepsNonAsciiText) {
  const std::wstring text = L"C:\\Gr\u00fc\u00dfe\\\u65e5\u672c\\\U0001F600";
  const std::string utf8 = WideToUtf8(text);
  EXPECT_EQ(utf8, "C:\\Gr\xC3\xBC\xC3\x9F" "e\\\xE6\x97\xA5\xE6\x9C\xAC\\\xF0\x9F\x98\x80");
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

}  // namespace
}  // namespace ambrel
