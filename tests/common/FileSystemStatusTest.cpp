#include "common/FileSystemStatus.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "common/SystemError.h"
#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

using test::ScratchDir;

TEST(NotFoundErrors, AreExactlyTheFourCodes) {
  for (DWORD code = 0; code < 2000; ++code) {
    const bool expected = code == 2 || code == 3 || code == 53 || code == 123;
    EXPECT_EQ(IsNotFoundError(code), expected) << code;
  }
}

TEST(PathStatus, ExistingFileAndDirectory) {
  ScratchDir dir;
  const std::wstring file = dir.WriteFile(L"a.txt", "x");
  EXPECT_TRUE(PathExists(file));
  EXPECT_FALSE(IsExistingDirectory(file));
  EXPECT_TRUE(PathExists(dir.path()));
  EXPECT_TRUE(IsExistingDirectory(dir.path()));
}

TEST(PathStatus, MissingPathsAreAPlainNo) {
  ScratchDir dir;
  const std::wstring cases[] = {
      dir / L"absent.txt",         // file not found
      dir / L"absent\\child.txt",  // path not found
      dir / L"bad<name>.txt",      // invalid name
      L"",                         // nothing at all
  };
  for (const auto& path : cases) {
    std::error_code ec = MakeWindowsError(5);
    EXPECT_FALSE(PathExists(path, ec)) << test::Narrow(path);
    EXPECT_FALSE(ec) << test::Narrow(path) << ": " << ec.message();
    EXPECT_NO_THROW(EXPECT_FALSE(PathExists(path)));
    EXPECT_NO_THROW(EXPECT_FALSE(IsExistingDirectory(path)));
  }
}

// Asking for the attributes of a raw disk device fails with an error that is
// not "not found" (Wine: ERROR_BAD_DEV_TYPE, 66; Windows without elevation:
// ERROR_ACCESS_DENIED, 5). That error must reach the caller.
TEST(PathStatus, UnexpectedErrorIsReportedAndThrownNamedAfterTheOperation) {
  const std::wstring path = L"\\\\.\\PhysicalDrive0";
  std::error_code ec;
  if (PathExists(path, ec)) GTEST_SKIP() << "this system lets the test read the raw disk's attributes";
  ASSERT_TRUE(ec) << "the query was expected to fail with an error other than not-found";
  EXPECT_FALSE(IsNotFoundError(static_cast<DWORD>(ec.value()))) << ec.value();
  EXPECT_STREQ(ec.category().name(), "system");
  EXPECT_EQ(ec.message(), WindowsErrorText(static_cast<DWORD>(ec.value())));

  for (const char* operation : {"exists", "status"}) {
    try {
      if (std::string(operation) == "exists") {
        (void)PathExists(path);
      } else {
        (void)IsExistingDirectory(path);
      }
      ADD_FAILURE() << operation << " did not throw";
    } catch (const std::filesystem::filesystem_error& error) {
      EXPECT_NE(std::string(error.what()).find(operation), std::string::npos) << error.what();
      EXPECT_EQ(error.path1().wstring(), path);
      EXPECT_EQ(error.code(), ec);
      EXPECT_EQ(error.code().message(), WindowsErrorText(static_cast<DWORD>(ec.value())));
    }
  }
}

TEST(PathStatus, FoundPathClearsTheErrorCode) {
  ScratchDir dir;
  std::error_code ec = MakeWindowsError(5);
  EXPECT_TRUE(PathExists(dir.path(), ec));
  EXPECT_FALSE(ec);
  EXPECT_EQ(ec.value(), 0);
  EXPECT_EQ(ec.message(), WindowsErrorText(0));
}

}  // namespace
}  // namespace ambrel
