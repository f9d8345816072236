#include <gtest/gtest.h>

#include <cstdint>
#include <locale>
#include <stdexcept>

#include "Ambrel.h"
#include "common/TextConvert.h"
#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

using test::LibraryCopy;

// ---- IsEnglish ----
// This program links the library's objects, so it shares their C++ global
// locale (a separate Ambrel.dll with its own static runtime would not).

class GlobalLocaleRestorer {
 public:
  GlobalLocaleRestorer() : saved_(std::locale()) {}
  ~GlobalLocaleRestorer() { std::locale::global(saved_); }

 private:
  std::locale saved_;
};

struct MarkerFacet : std::locale::facet {
  static std::locale::id id;
};
std::locale::id MarkerFacet::id;

TEST(IsEnglish, TrueInAFreshProcess) {
  EXPECT_EQ(std::locale().name(), "C");
  EXPECT_TRUE(OSxMisc::IsEnglish());
}

TEST(IsEnglish, ClassicOrNamedCIsEnglish) {
  GlobalLocaleRestorer restore;
  std::locale::global(std::locale::classic());
  EXPECT_TRUE(OSxMisc::IsEnglish());
  std::locale::global(std::locale("C"));
  EXPECT_TRUE(OSxMisc::IsEnglish());
#if defined(__GLIBCXX__)
  // libstdc++ knows the same locale under its other name; Microsoft's
  // runtime has no locale called "POSIX" (std::locale throws "bad locale name").
  std::locale::global(std::locale("POSIX"));
  EXPECT_TRUE(OSxMisc::IsEnglish());
#endif
}

// libstdc++ on mingw-w64 (its generic locale model) makes no named locale but
// "C" and "POSIX" (checked: "", "en_US.UTF-8", "en_US", "English", "C.UTF-8",
// ".1252" and "English_United States.1252" all throw), so here a host's
// non-"C" global locale is one with a facet of its own (name "*"); where the
// runtime makes named locales (MSVC's does) the named ones are checked too.
TEST(IsEnglish, FalseUnderALocaleOtherThanC) {
  GlobalLocaleRestorer restore;
  std::locale::global(std::locale(std::locale::classic(), new MarkerFacet));
  EXPECT_EQ(std::locale().name(), "*");
  EXPECT_FALSE(OSxMisc::IsEnglish());

  for (const char* name : {"en-US", "English_United States.1252", "de-DE", "en_US.UTF-8"}) {
    std::locale named;
    try {
      named = std::locale(name);
    } catch (const std::runtime_error&) {
      continue;
    }
    ASSERT_NE(named.name(), "C");
    std::locale::global(named);
    EXPECT_FALSE(OSxMisc::IsEnglish()) << name;
  }

  std::locale::global(std::locale::classic());
  EXPECT_TRUE(OSxMisc::IsEnglish());
}

// ---- IsKeyPressed ----

class KeyboardStateRestorer {
 public:
  KeyboardStateRestorer() { ::GetKeyboardState(saved_); }
  ~KeyboardStateRestorer() { ::SetKeyboardState(saved_); }

 private:
  BYTE saved_[256] = {};
};

TEST(IsKeyPressed, FollowsTheThreadsKeyState) {
  KeyboardStateRestorer restore;
  BYTE state[256] = {};
  ASSERT_TRUE(::GetKeyboardState(state));

  state[VK_F13] = 0x00;
  ASSERT_TRUE(::SetKeyboardState(state));
  EXPECT_FALSE(OSxMisc::IsKeyPressed(VK_F13));

  state[VK_F13] = 0x80;
  ASSERT_TRUE(::SetKeyboardState(state));
  EXPECT_TRUE(OSxMisc::IsKeyPressed(VK_F13));

  state[VK_F13] = 0x01;  // toggled, not down
  ASSERT_TRUE(::SetKeyboardState(state));
  EXPECT_FALSE(OSxMisc::IsKeyPressed(VK_F13));

  state[VK_F13] = 0x81;
  ASSERT_TRUE(::SetKeyboardState(state));
  EXPECT_TRUE(OSxMisc::IsKeyPressed(VK_F13));
}

TEST(IsKeyPressed, UntouchedKeyIsUp) { EXPECT_FALSE(OSxMisc::IsKeyPressed(VK_F14)); }

// ---- Uint16ToWchar / WcharToUint16 ----

TEST(Uint16ToWchar, CopiesExactlyCountUnits) {
  const unsigned short source[] = {0x0041, 0xFFFF, 0xD800, 0x0042};
  wchar_t destination[4] = {L'#', L'#', L'#', L'#'};
  OSxMisc::Uint16ToWchar(destination, source, 3);
  EXPECT_EQ(destination[0], static_cast<wchar_t>(0x0041));
  EXPECT_EQ(destination[1], static_cast<wchar_t>(0xFFFF));
  EXPECT_EQ(destination[2], static_cast<wchar_t>(0xD800));
  EXPECT_EQ(destination[3], L'#');
}

TEST(Uint16ToWchar, CountZeroTouchesNothing) {
  wchar_t destination[2] = {L'#', L'#'};
  OSxMisc::Uint16ToWchar(destination, nullptr, 0);
  EXPECT_EQ(destination[0], L'#');
}

TEST(WcharToUint16, CopiesExactlyCountUnits) {
  const wchar_t source[] = L"xyz!";
  unsigned short destination[4] = {7, 7, 7, 7};
  OSxMisc::WcharToUint16(destination, source, 3);
  EXPECT_EQ(destination[0], u'x');
  EXPECT_EQ(destination[2], u'z');
  EXPECT_EQ(destination[3], 7);
}

TEST(Uint16ToWchar, OverlapRunsForwardUnitByUnit) {
  unsigned short units[5] = {1, 2, 3, 4, 5};
  // Destination one unit ahead of the source: each copied unit is read again.
  OSxMisc::Uint16ToWchar(reinterpret_cast<wchar_t*>(units + 1), units, 4);
  EXPECT_EQ(units[0], 1);
  EXPECT_EQ(units[1], 1);
  EXPECT_EQ(units[4], 1);
}

const char* const kUint16ToWchar =
    AMBREL_EXPORT_NAME("?Uint16ToWchar@OSxMisc@@SAXPEA_WPEBG_K@Z", "_ZN7OSxMisc13Uint16ToWcharEPwPKty");
const char* const kWcharToUint16 =
    AMBREL_EXPORT_NAME("?WcharToUint16@OSxMisc@@SAXPEAGPEB_W_K@Z", "_ZN7OSxMisc13WcharToUint16EPtPKwy");

TEST(Uint16ToWchar, BothExportsOfTheLibraryLeadToTheSameCode) {
  LibraryCopy library;
  const FARPROC toWchar = library.Proc(kUint16ToWchar);
  const FARPROC toUint16 = library.Proc(kWcharToUint16);
  ASSERT_NE(toWchar, nullptr);
  ASSERT_NE(toUint16, nullptr);
  EXPECT_EQ(toWchar, toUint16);

  using WcharToUint16Fn = void (*)(unsigned short*, const wchar_t*, size_t);
  unsigned short destination[3] = {9, 9, 9};
  reinterpret_cast<WcharToUint16Fn>(toUint16)(destination, L"ab", 2);
  EXPECT_EQ(destination[0], u'a');
  EXPECT_EQ(destination[1], u'b');
  EXPECT_EQ(destination[2], 9);
}

TEST(Uint16ToWchar, BothNamesInThisProgramAreOneRoutine) {
  // Read back through volatile: the compiler takes two named functions to have
  // two addresses and would fold a direct comparison.
  volatile uintptr_t toWchar = reinterpret_cast<uintptr_t>(&OSxMisc::Uint16ToWchar);
  volatile uintptr_t toUint16 = reinterpret_cast<uintptr_t>(&OSxMisc::WcharToUint16);
  EXPECT_EQ(toWchar, toUint16);
}

// ---- the narrow form Simple MAPI gets ----

TEST(WideToCodePageInDoubleLength, ConvertsWithinTwiceTheLengthPlusOne) {
  EXPECT_EQ(WideToCodePageInDoubleLength(L"someone", CP_ACP), "someone");
  EXPECT_EQ(WideToCodePageInDoubleLength(L"", CP_ACP), "");
  EXPECT_EQ(WideToCodePageInDoubleLength(nullptr, CP_ACP), "");
  EXPECT_EQ(WideToCodePageInDoubleLength(L"\u00e9", 1252), "\xe9");
  EXPECT_EQ(WideToCodePageInDoubleLength(L"\u00e9", CP_UTF8), "\xc3\xa9");  // 2 bytes fit 2 x 1 + 1
}

TEST(WideToCodePageInDoubleLength, TextThatDoesNotFitIsEmpty) {
  // The euro sign takes 3 bytes in UTF-8: more than 2 x 1 + 1 with its NUL.
  EXPECT_EQ(WideToCodePageInDoubleLength(L"\u20ac", CP_UTF8), "");
  EXPECT_EQ(WideToCodePageInDoubleLength(L"\u20ac\u20ac", CP_UTF8), "");          // 7 bytes for 5
  EXPECT_EQ(WideToCodePageInDoubleLength(L"a\u20ac", CP_UTF8), "a\xe2\x82\xac");  // 5 bytes in 5, NUL included
}

TEST(WideToCodePageInDoubleLength, UnmappableCharactersBecomeTheDefaultCharacter) {
  EXPECT_EQ(WideToCodePageInDoubleLength(L"\u4e2dx", 1252), "?x");
}

}  // namespace
}  // namespace ambrel
