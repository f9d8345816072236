// Ambrel.dll's and ambrel-diagnose.exe's version resources, read back the way
// Windows Explorer and installers read them, and the program's manifest.
#include <windows.h>

#include <gtest/gtest.h>

#include <regex>
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
  ASSERT_TRUE(
      ::VerQueryValueW(data_.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&translation), &length));
  ASSERT_GE(length, sizeof(Translation));
  EXPECT_EQ(translation->language, 0x0409);
  EXPECT_EQ(translation->codePage, 1200);
}

// ambrel-diagnose.exe: a version resource of its own, and a manifest that
// asks for no elevation and keeps the host's 260-character path limit.
std::string ResourceText(const std::wstring& file, LPCWSTR type, LPCWSTR name) {
  const HMODULE image =
      ::LoadLibraryExW(file.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
  if (!image) return {};
  std::string text;
  if (const HRSRC resource = ::FindResourceW(image, name, type)) {
    const HGLOBAL loaded = ::LoadResource(image, resource);
    const auto* bytes = static_cast<const char*>(::LockResource(loaded));
    if (bytes) text.assign(bytes, ::SizeofResource(image, resource));
  }
  ::FreeLibrary(image);
  return text;
}

TEST(DiagnoseProgram, CarriesTheProjectVersion) {
  const std::wstring file = test::TestBinDirectory() + L"\\ambrel-diagnose.exe";
  DWORD handle = 0;
  const DWORD size = ::GetFileVersionInfoSizeW(file.c_str(), &handle);
  ASSERT_NE(size, 0u) << "no version resource, error " << ::GetLastError();
  std::vector<unsigned char> data(size);
  ASSERT_TRUE(::GetFileVersionInfoW(file.c_str(), 0, size, data.data()));
  VS_FIXEDFILEINFO* fixed = nullptr;
  UINT length = 0;
  ASSERT_TRUE(::VerQueryValueW(data.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
  EXPECT_EQ(fixed->dwFileVersionMS, static_cast<DWORD>(MAKELONG(AMBREL_VERSION_MINOR, AMBREL_VERSION_MAJOR)));
  EXPECT_EQ(fixed->dwFileVersionLS, static_cast<DWORD>(MAKELONG(AMBREL_BUILD_NUMBER, AMBREL_VERSION_PATCH)));
  EXPECT_EQ(fixed->dwFileType, static_cast<DWORD>(VFT_APP));
  void* value = nullptr;
  ASSERT_TRUE(::VerQueryValueW(data.data(), L"\\StringFileInfo\\040904b0\\OriginalFilename", &value, &length));
  EXPECT_STREQ(static_cast<const wchar_t*>(value), L"ambrel-diagnose.exe");
}

TEST(DiagnoseProgram, ManifestAsksForNoElevationAndNoLongPaths) {
  const std::string manifest =
      ResourceText(test::TestBinDirectory() + L"\\ambrel-diagnose.exe", RT_MANIFEST, MAKEINTRESOURCEW(1));
  ASSERT_FALSE(manifest.empty()) << "no manifest resource 1";
  // As written, or as a manifest tool that merged it writes it (the
  // elements and attributes with a namespace prefix).
  EXPECT_TRUE(std::regex_search(
      manifest, std::regex(R"(<(\w+:)?requestedExecutionLevel (\w+:)?level="asInvoker" (\w+:)?uiAccess="false"/>)")))
      << manifest;
  EXPECT_NE(manifest.find("<ws2016:longPathAware>false</ws2016:longPathAware>"), std::string::npos) << manifest;
  EXPECT_NE(manifest.find("<supportedOS Id=\"{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}\"/>"), std::string::npos);
}

}  // namespace
}  // namespace ambrel
