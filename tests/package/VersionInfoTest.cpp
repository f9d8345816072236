// Ambrel.dll's version resource, read back the way Windows Explorer and
// installers read it.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

class VersionInfo : public ::testing::Test {
 protected:
  void SetUp() override {
    DWORD handle = 0;
    const DWORD size = ::GetFileVersionInfoSizeW(file_.c_str(), &handle);
    ASSERT_NE(size, 0u) << "no version resource, error " << ::GetLastError();
    data_.resize(size);
    ASSERT_TRUE(::GetFileVersionInfoW(file_.c_str(), 0, size, data_.data()));
  }

  // A string of the U.S. English, Unicode table, or nothing.
  std::wstring String(const wchar_t* name) {
    void* value = nullptr;
    UINT length = 0;
    const std::wstring path = std::wstring(L"\\StringFileInfo\\040904b0\\") + name;
    if (!::VerQueryValueW(data_.data(), path.c_str(), &value, &length) || !value) return L"<missing>";
    return static_cast<const wchar_t*>(value);
  }

  const std::wstring file_ = test::TestBinDirectory() + L"\\Ambrel.dll";
  std::vector<unsigned char> data_;
};

TEST_F(VersionInfo, FixedPartCarriesTheProjectVersion) {
  VS_FIXEDFILEINFO* fixed = nullptr;
  UINT length = 0;
  ASSERT_TRUE(::VerQueryValueW(data_.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
  ASSERT_EQ(length, sizeof(VS_FIXEDFILEINFO));
  EXPECT_EQ(fixed->dwSignature, 0xFEEF04BDu);
  const DWORD expectedMs = MAKELONG(AMBREL_VERSION_MINOR, AMBREL_VERSION_MAJOR);
  // The file version's fourth field is the build number; the product's is 0.
  EXPECT_EQ(fixed->dwFileVersionMS, expectedMs);
  EXPECT_EQ(fixed->dwFileVersionLS, static_cast<DWORD>(MAKELONG(AMBREL_BUILD_NUMBER, AMBREL_VERSION_PATCH)));
  EXPECT_EQ(fixed->dwProductVersionMS, expectedMs);
  EXPECT_EQ(fixed->dwProductVersionLS, static_cast<DWORD>(MAKELONG(0, AMBREL_VERSION_PATCH)));
  EXPECT_EQ(fixed->dwFileType, static_cast<DWORD>(VFT_DLL));
}

TEST_F(VersionInfo, StringsNameTheMakerProductAndVersion) {
  EXPECT_EQ(String(L"CompanyName"), L"Tavrel, Inc");
  EXPECT_EQ(String(L"ProductName"), L"Ambrel");
  EXPECT_EQ(String(L"FileDescription"), AMBREL_DESCRIPTION_TEXT);
  EXPECT_EQ(String(L"FileVersion"), std::wstring(AMBREL_VERSION_TEXT) + L"." + std::to_wstring(AMBREL_BUILD_NUMBER));
  EXPECT_EQ(String(L"ProductVersion"), AMBREL_VERSION_TEXT);
  EXPECT_EQ(String(L"OriginalFilename"), L"Ambrel.dll");
}

TEST_F(VersionInfo, TranslationIsUsEnglishUnicode) {
  struct Translation {
    WORD language;
    WORD codePage;
  }* translation = nullptr;
  UINT length = 0;
  ASSERT_TRUE(::VerQueryValueW(data_.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&translation),
                               &length));
  ASSERT_GE(length, sizeof(Translation));
  EXPECT_EQ(translation->language, 0x0409);
  EXPECT_EQ(translation->codePage, 1200);
}

}  // namespace
}  // namespace ambrel
