#include <gtest/gtest.h>
#include <shlobj.h>

#include <string>

#include "Ambrel.h"
#include "osx/TruncatingCopy.h"
#include "qel_loader/InstallQueries.h"
#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

// The documents folder's path as the item list gives it (Wine adds a
// trailing separator there), checked against another shell call.
std::wstring DocumentsFolder() {
  LPITEMIDLIST items = nullptr;
  EXPECT_HRESULT_SUCCEEDED(::SHGetSpecialFolderLocation(nullptr, CSIDL_PERSONAL, &items));
  wchar_t path[MAX_PATH] = {};
  EXPECT_TRUE(::SHGetPathFromIDListW(items, path));
  ::CoTaskMemFree(items);
  wchar_t other[MAX_PATH] = {};
  EXPECT_HRESULT_SUCCEEDED(::SHGetFolderPathW(nullptr, CSIDL_PERSONAL, nullptr, SHGFP_TYPE_CURRENT, other));
  std::wstring trimmed = path;
  if (!trimmed.empty() && trimmed.back() == L'\\') trimmed.pop_back();
  EXPECT_EQ(_wcsicmp(trimmed.c_str(), other), 0) << test::Narrow(path) << " / " << test::Narrow(other);
  return path;
}

TEST(GetMyDocumentsDir, FillsTheBufferWithTheDocumentsFolder) {
  wchar_t buffer[MAX_PATH];
  std::fill(std::begin(buffer), std::end(buffer), L'#');
  EXPECT_TRUE(OSxFolder::GetMyDocumentsDir(buffer, MAX_PATH));
  EXPECT_EQ(std::wstring(buffer), DocumentsFolder());
  EXPECT_FALSE(DocumentsFolder().empty());
}

TEST(GetMyDocumentsDir, SizeZeroLeavesTheBufferAndIsTrue) {
  wchar_t buffer[8];
  std::fill(std::begin(buffer), std::end(buffer), L'#');
  EXPECT_TRUE(OSxFolder::GetMyDocumentsDir(buffer, 0));
  EXPECT_EQ(std::wstring(buffer, 8), std::wstring(8, L'#'));
}

TEST(GetMyDocumentsDir, FiveCharactersKeepFourAndANul) {
  const std::wstring folder = DocumentsFolder();
  ASSERT_GT(folder.size(), 5u);
  wchar_t buffer[8];
  std::fill(std::begin(buffer), std::end(buffer), L'#');
  EXPECT_TRUE(OSxFolder::GetMyDocumentsDir(buffer, 5));
  EXPECT_EQ(std::wstring(buffer, 4), folder.substr(0, 4));
  EXPECT_EQ(buffer[4], L'\0');
  EXPECT_EQ(std::wstring(buffer + 5, 3), L"###");
}

TEST(GetMyDocumentsDir, OversizedSizeGivesAnEmptyStringAndIsTrue) {
  wchar_t buffer[8];
  std::fill(std::begin(buffer), std::end(buffer), L'#');
  EXPECT_TRUE(OSxFolder::GetMyDocumentsDir(buffer, size_t{0x80000000}));
  EXPECT_EQ(buffer[0], L'\0');
  EXPECT_EQ(std::wstring(buffer + 1, 7), std::wstring(7, L'#'));
}

// ---- the copy rules themselves ----

TEST(CopyTruncating, ExactFitAndOneShort) {
  wchar_t buffer[8];
  std::fill(std::begin(buffer), std::end(buffer), L'#');
  CopyTruncating(buffer, 4, L"abc");
  EXPECT_EQ(std::wstring(buffer, 5), std::wstring(L"abc\0#", 5));

  std::fill(std::begin(buffer), std::end(buffer), L'#');
  CopyTruncating(buffer, 3, L"abc");
  EXPECT_EQ(std::wstring(buffer, 4), std::wstring(L"ab\0#", 4));
}

TEST(CopyTruncating, SizeOneKeepsOnlyTheNul) {
  wchar_t buffer[3] = {L'#', L'#', L'#'};
  CopyTruncating(buffer, 1, L"abc");
  EXPECT_EQ(std::wstring(buffer, 3), std::wstring(L"\0##", 3));
}

TEST(CopyTruncating, EmptySourceWritesANul) {
  wchar_t buffer[3] = {L'#', L'#', L'#'};
  CopyTruncating(buffer, 3, L"");
  EXPECT_EQ(std::wstring(buffer, 3), std::wstring(L"\0##", 3));
}

TEST(CopyTruncating, LargestAcceptedSizeCopiesNormally) {
  wchar_t buffer[6];
  std::fill(std::begin(buffer), std::end(buffer), L'#');
  CopyTruncating(buffer, kMaxCopyCharacters, L"abcd");  // only the NUL-terminated source is read
  EXPECT_EQ(std::wstring(buffer, 6), std::wstring(L"abcd\0#", 6));
  std::fill(std::begin(buffer), std::end(buffer), L'#');
  CopyTruncating(buffer, kMaxCopyCharacters + 1, L"abcd");
  EXPECT_EQ(std::wstring(buffer, 6), std::wstring(L"\0#####", 6));
}

// ---- the shared-components folder ----

TEST(OSxFolderGetSharedDllPath, HandsOutTheRecordedStringsCharacters) {
  std::wstring& recorded = SharedDllPath();
  const std::wstring saved = recorded;
  ASSERT_TRUE(saved.empty()) << "no bootstrap runs in this program";
  const wchar_t* empty = OSxFolder::GetSharedDllPath();
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(std::wstring(empty), L"");

  recorded = L"C:\\Program Files\\Tavrel\\Shared\\2026\\Components\\Long enough for the heap";
  EXPECT_EQ(OSxFolder::GetSharedDllPath(), recorded.c_str());
  EXPECT_EQ(std::wstring(OSxFolder::GetSharedDllPath()), recorded);
  recorded = saved;
}

}  // namespace
}  // namespace ambrel
