#include "osx/ShellLink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <shlguid.h>
#include <shlobj.h>

#include <filesystem>
#include <ostream>
#include <stdexcept>
#include <thread>

#include "Ambrel.h"
#include "common/WinResource.h"
#include "tests/osx/FakeShellLink.h"
#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

using test::FakeShellLink;
using test::ScratchDir;

// What a shortcut file says, read through the shell's own link object.
struct LinkContents {
  std::wstring target;
  std::wstring arguments;
  std::wstring workingDirectory;
  std::wstring description;
};

LinkContents ReadLink(const std::wstring& file) {
  ComPtr<IShellLinkW> link;
  EXPECT_HRESULT_SUCCEEDED(CreateShellLink(link.put()));
  ComPtr<IPersistFile> persist;
  EXPECT_HRESULT_SUCCEEDED(link->QueryInterface(IID_IPersistFile, persist.put_void()));
  EXPECT_HRESULT_SUCCEEDED(persist->Load(file.c_str(), STGM_READ));
  wchar_t text[MAX_PATH] = {};
  LinkContents contents;
  link->GetPath(text, MAX_PATH, nullptr, 0);
  contents.target = text;
  text[0] = 0;
  link->GetArguments(text, MAX_PATH);
  contents.arguments = text;
  text[0] = 0;
  link->GetWorkingDirectory(text, MAX_PATH);
  contents.workingDirectory = text;
  text[0] = 0;
  link->GetDescription(text, MAX_PATH);
  contents.description = text;
  return contents;
}

void WriteLink(const std::wstring& file, const LinkContents& contents) {
  ComPtr<IShellLinkW> link;
  ASSERT_HRESULT_SUCCEEDED(CreateShellLink(link.put()));
  ASSERT_HRESULT_SUCCEEDED(link->SetPath(contents.target.c_str()));
  ASSERT_HRESULT_SUCCEEDED(link->SetArguments(contents.arguments.c_str()));
  ASSERT_HRESULT_SUCCEEDED(link->SetWorkingDirectory(contents.workingDirectory.c_str()));
  ASSERT_HRESULT_SUCCEEDED(link->SetDescription(contents.description.c_str()));
  ComPtr<IPersistFile> persist;
  ASSERT_HRESULT_SUCCEEDED(link->QueryInterface(IID_IPersistFile, persist.put_void()));
  ASSERT_HRESULT_SUCCEEDED(persist->Save(file.c_str(), TRUE));
}

// The host initialises COM on its thread before it asks for shortcuts.
class ShortcutTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_HRESULT_SUCCEEDED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)); }
  void TearDown() override { ::CoUninitialize(); }

  std::wstring MakeTarget(const std::wstring& name) { return dir.WriteFile(name, "target"); }

  ScratchDir dir;
};

// ---- real shortcut files ----

TEST_F(ShortcutTest, ReadsTheTargetOfARealShortcut) {
  const std::wstring target = MakeTarget(L"tool.exe");
  const std::wstring file = dir / L"tool.lnk";
  WriteLink(file, {target, L"-x", dir.path(), L"the tool"});
  EXPECT_EQ(OSxFolder::GetPathFromShortcut(file.c_str()), ReadLink(file).target);
  EXPECT_TRUE(std::filesystem::equivalent(OSxFolder::GetPathFromShortcut(file.c_str()), target));
}

TEST_F(ShortcutTest, AFileThatIsNotAShortcutGivesAnEmptyPath) {
  const std::wstring file = dir.WriteFile(L"notes.lnk", "this is plain text, not a shell link");
  EXPECT_EQ(OSxFolder::GetPathFromShortcut(file.c_str()), L"");
}

TEST_F(ShortcutTest, AMissingShortcutGivesAnEmptyPath) {
  const std::wstring file = dir / L"absent.lnk";
  EXPECT_EQ(OSxFolder::GetPathFromShortcut(file.c_str()), L"");
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(ShortcutTest, UpdateChangesOnlyTheTarget) {
  const std::wstring oldTarget = MakeTarget(L"old.exe");
  const std::wstring newTarget = MakeTarget(L"new.exe");
  const std::wstring file = dir / L"app.lnk";
  WriteLink(file, {oldTarget, L"--fast file.txt", dir.path(), L"Kalvex tool"});
  const LinkContents before = ReadLink(file);

  EXPECT_TRUE(OSxFolder::UpdateShortcut(file.c_str(), newTarget.c_str()));

  const LinkContents after = ReadLink(file);
  EXPECT_TRUE(std::filesystem::equivalent(after.target, newTarget)) << test::Narrow(after.target);
  EXPECT_EQ(OSxFolder::GetPathFromShortcut(file.c_str()), after.target);
  EXPECT_EQ(after.arguments, before.arguments);
  EXPECT_EQ(after.workingDirectory, before.workingDirectory);
  EXPECT_EQ(after.description, before.description);
  EXPECT_EQ(after.arguments, L"--fast file.txt");
  EXPECT_EQ(after.description, L"Kalvex tool");
}

TEST_F(ShortcutTest, UpdateOfAMissingShortcutIsFalseAndCreatesNothing) {
  const std::wstring file = dir / L"absent.lnk";
  const std::wstring target = MakeTarget(L"new.exe");
  EXPECT_FALSE(OSxFolder::UpdateShortcut(file.c_str(), target.c_str()));
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(ShortcutTest, UpdateOfAFileThatIsNotAShortcutIsFalseAndLeavesIt) {
  const std::string text = "plain text";
  const std::wstring file = dir.WriteFile(L"notes.lnk", text);
  const std::wstring target = MakeTarget(L"new.exe");
  EXPECT_FALSE(OSxFolder::UpdateShortcut(file.c_str(), target.c_str()));
  EXPECT_EQ(test::ReadFileBytes(file), text);
}

// The shell's link object refuses a null target (E_INVALIDARG): the update
// reports true and writes nothing.
TEST_F(ShortcutTest, UpdateWhoseSetPathFailsIsTrueAndDoesNotSave) {
  const std::wstring target = MakeTarget(L"tool.exe");
  const std::wstring file = dir / L"tool.lnk";
  WriteLink(file, {target, L"", L"", L""});
  {
    ComPtr<IShellLinkW> probe;
    ASSERT_HRESULT_SUCCEEDED(CreateShellLink(probe.put()));
    ASSERT_HRESULT_FAILED(probe->SetPath(nullptr)) << "this link object accepts a null target";
  }
  const std::string bytes = test::ReadFileBytes(file);
  const auto written = std::filesystem::last_write_time(file);

  EXPECT_TRUE(OSxFolder::UpdateShortcut(file.c_str(), nullptr));

  EXPECT_EQ(test::ReadFileBytes(file), bytes);
  EXPECT_EQ(std::filesystem::last_write_time(file), written);
}

// On a thread that has not initialised COM the link object cannot be made.
TEST(ShortcutWithoutCom, EveryOperationTakesTheNoLinkObjectPath) {
  ScratchDir dir;
  const std::wstring file = dir.WriteFile(L"any.lnk", "x");
  std::wstring path = L"unset";
  bool updated = true;
  HRESULT created = S_OK;
  std::thread worker([&] {
    IShellLinkW* link = nullptr;
    created = CreateShellLink(&link);
    if (link) link->Release();
    path = OSxFolder::GetPathFromShortcut(file.c_str());
    updated = OSxFolder::UpdateShortcut(file.c_str(), L"C:\\x.exe");
  });
  worker.join();
  EXPECT_EQ(created, CO_E_NOTINITIALIZED);
  EXPECT_EQ(path, L"");
  EXPECT_FALSE(updated);
  EXPECT_EQ(test::ReadFileBytes(file), "x");
}

// A shortcut to a shell item that has no file-system path: GetPath succeeds
// (S_FALSE) with an empty buffer, and the answer is an empty string, not an
// exception.
TEST_F(ShortcutTest, ShortcutWithoutAFileSystemTargetGivesAnEmptyPath) {
  const std::wstring file = dir / L"computer.lnk";
  {
    ComPtr<IShellLinkW> link;
    ASSERT_HRESULT_SUCCEEDED(CreateShellLink(link.put()));
    LPITEMIDLIST computer = nullptr;
    ASSERT_HRESULT_SUCCEEDED(::SHGetSpecialFolderLocation(nullptr, CSIDL_DRIVES, &computer));
    const HRESULT set = link->SetIDList(computer);
    ::CoTaskMemFree(computer);
    ASSERT_HRESULT_SUCCEEDED(set);
    ComPtr<IPersistFile> persist;
    ASSERT_HRESULT_SUCCEEDED(link->QueryInterface(IID_IPersistFile, persist.put_void()));
    ASSERT_HRESULT_SUCCEEDED(persist->Save(file.c_str(), TRUE));
  }
  {
    ComPtr<IShellLinkW> link;
    ASSERT_HRESULT_SUCCEEDED(CreateShellLink(link.put()));
    ComPtr<IPersistFile> persist;
    ASSERT_HRESULT_SUCCEEDED(link->QueryInterface(IID_IPersistFile, persist.put_void()));
    ASSERT_HRESULT_SUCCEEDED(persist->Load(file.c_str(), STGM_READ));
    wchar_t path[MAX_PATH] = L"x";
    ASSERT_EQ(link->GetPath(path, MAX_PATH, nullptr, 0), S_FALSE);
    ASSERT_EQ(path[0], L'\0');
  }
  EXPECT_EQ(OSxFolder::GetPathFromShortcut(file.c_str()), L"");
}

// ---- every step's answer, through link objects of the test's own ----
// Wine's link object never fails GetPath on a loaded link (links to files and
// to shell items without a path answer S_OK or S_FALSE), never lacks
// IPersistFile and fails Save only with the file system, so those answers
// (the std::length_error among them) come from FakeShellLink.

ShellLinkFactory Giving(FakeShellLink& fake, HRESULT result = S_OK) {
  return [&fake, result](IShellLinkW** link) {
    *link = &fake;
    return result;
  };
}

TEST(ReadShortcutTarget, AskedOnceWithTheFixedArguments) {
  FakeShellLink fake;
  fake.getPathText = L"D:\\Apps\\Kalvex.exe";
  EXPECT_EQ(ReadShortcutTarget(Giving(fake), L"C:\\a.lnk"), L"D:\\Apps\\Kalvex.exe");
  EXPECT_EQ(fake.loadedFile, L"C:\\a.lnk");
  EXPECT_EQ(fake.loadMode, static_cast<DWORD>(STGM_READ));
  EXPECT_EQ(fake.getPathCapacity, 260);
  EXPECT_EQ(fake.getPathFindData, nullptr);
  EXPECT_EQ(fake.getPathFlags, 0u);
  EXPECT_EQ(fake.resolveCalls, 0);
  EXPECT_EQ(fake.references, 0);  // link and IPersistFile released
}

TEST(ReadShortcutTarget, GetPathFailureThrowsLengthError) {
  FakeShellLink fake;
  fake.getPathResult = E_FAIL;
  try {
    (void)ReadShortcutTarget(Giving(fake), L"C:\\a.lnk");
    ADD_FAILURE() << "no exception";
  } catch (const std::length_error& error) {
    EXPECT_STREQ(error.what(), "string too long");
  }
  EXPECT_EQ(fake.getPathCalls, 1);
  EXPECT_EQ(fake.references, 0);  // released before the throw
}

// A step that fails or finds no target: the answer is empty, the steps after
// it are not taken, and every reference is released.
struct EmptyReadCase {
  const char* name;
  void (*arrange)(FakeShellLink&);
  int loadCalls;
  int getPathCalls;
};

// Named in the test list and failure messages by its case name.
void PrintTo(const EmptyReadCase& c, std::ostream* os) { *os << c.name; }

void NoTarget(FakeShellLink& fake) {
  fake.getPathResult = S_FALSE;
  fake.getPathText = L"";
}

// name, arrange, then the Load and GetPath calls made
const EmptyReadCase kEmptyReads[] = {
    {"GetPathSucceedsWithoutATarget", NoTarget, 1, 1},
    {"LoadFails", [](FakeShellLink& f) { f.loadResult = STG_E_FILENOTFOUND; }, 1, 0},
    {"NoPersistFile", [](FakeShellLink& f) { f.queryPersistResult = E_NOINTERFACE; }, 0, 0},
    {"PersistFileAnsweredWithNull", [](FakeShellLink& f) { f.queryPersistGivesNull = true; }, 0, 0},
};

class EmptyReadTest : public ::testing::TestWithParam<EmptyReadCase> {};

TEST_P(EmptyReadTest, GivesAnEmptyAnswer) {
  const EmptyReadCase& c = GetParam();
  FakeShellLink fake;
  c.arrange(fake);
  EXPECT_EQ(ReadShortcutTarget(Giving(fake), L"C:\\a.lnk"), L"");
  EXPECT_EQ(fake.loadCalls, c.loadCalls);
  EXPECT_EQ(fake.getPathCalls, c.getPathCalls);
  EXPECT_EQ(fake.references, 0);
}

INSTANTIATE_TEST_SUITE_P(ReadShortcutTarget, EmptyReadTest, ::testing::ValuesIn(kEmptyReads),
                         [](const ::testing::TestParamInfo<EmptyReadCase>& info) { return info.param.name; });

TEST(ReadShortcutTarget, NoLinkObjectIsEmpty) {
  EXPECT_EQ(ReadShortcutTarget([](IShellLinkW**) { return REGDB_E_CLASSNOTREG; }, L"C:\\a.lnk"), L"");
  EXPECT_EQ(ReadShortcutTarget([](IShellLinkW**) { return S_OK; }, L"C:\\a.lnk"), L"");
}

TEST(ReadShortcutTarget, FullLengthTargetIsCutAtItsNul) {
  FakeShellLink fake;
  fake.getPathText = std::wstring(300, L'a');  // GetPath keeps 259 and a NUL
  EXPECT_EQ(ReadShortcutTarget(Giving(fake), L"C:\\a.lnk"), std::wstring(259, L'a'));
}

TEST(RewriteShortcutTarget, LoadsSetsAndSavesToTheSameFile) {
  FakeShellLink fake;
  EXPECT_TRUE(RewriteShortcutTarget(Giving(fake), L"C:\\a.lnk", L"D:\\new.exe"));
  EXPECT_EQ(fake.loadedFile, L"C:\\a.lnk");
  EXPECT_EQ(fake.loadMode, static_cast<DWORD>(STGM_READ));
  EXPECT_EQ(fake.newTarget, L"D:\\new.exe");
  EXPECT_EQ(fake.savedFile, L"C:\\a.lnk");
  EXPECT_EQ(fake.saveRemember, FALSE);
  EXPECT_EQ(fake.references, 0);
}

// A step of the rewrite that fails: the result, the steps taken, and the
// references left (without IPersistFile the link is deliberately not released).
struct FailedRewriteCase {
  const char* name;
  void (*arrange)(FakeShellLink&);
  bool result;
  int loadCalls;
  int setPathCalls;
  int saveCalls;
  LONG references;
};

// Named in the test list and failure messages by its case name.
void PrintTo(const FailedRewriteCase& c, std::ostream* os) { *os << c.name; }

// name, arrange, result, then the Load, SetPath and Save calls made and the references left
const FailedRewriteCase kFailedRewrites[] = {
    {"SetPathFailsIsTrueWithoutSave", [](FakeShellLink& f) { f.setPathResult = E_INVALIDARG; }, true, 1, 1, 0, 0},
    {"SaveFailsIsFalse", [](FakeShellLink& f) { f.saveResult = STG_E_ACCESSDENIED; }, false, 1, 1, 1, 0},
    {"LoadFailsIsFalseWithoutSetPath", [](FakeShellLink& f) { f.loadResult = E_FAIL; }, false, 1, 0, 0, 0},
    {"NoPersistFileIsTrue", [](FakeShellLink& f) { f.queryPersistResult = E_NOINTERFACE; }, true, 0, 0, 0, 1},
    {"NullPersistFileIsTrue", [](FakeShellLink& f) { f.queryPersistGivesNull = true; }, true, 0, 0, 0, 1},
};

class FailedRewriteTest : public ::testing::TestWithParam<FailedRewriteCase> {};

TEST_P(FailedRewriteTest, DecidesTheResultAndStopsTheRest) {
  const FailedRewriteCase& c = GetParam();
  FakeShellLink fake;
  c.arrange(fake);
  EXPECT_EQ(RewriteShortcutTarget(Giving(fake), L"C:\\a.lnk", L"D:\\new.exe"), c.result);
  EXPECT_EQ(fake.loadCalls, c.loadCalls);
  EXPECT_EQ(fake.setPathCalls, c.setPathCalls);
  EXPECT_EQ(fake.saveCalls, c.saveCalls);
  EXPECT_EQ(fake.references, c.references);
}

INSTANTIATE_TEST_SUITE_P(RewriteShortcutTarget, FailedRewriteTest, ::testing::ValuesIn(kFailedRewrites),
                         [](const ::testing::TestParamInfo<FailedRewriteCase>& info) { return info.param.name; });

TEST(RewriteShortcutTarget, CreationDecidesWhenThereIsNoLinkObject) {
  EXPECT_FALSE(RewriteShortcutTarget([](IShellLinkW**) { return REGDB_E_CLASSNOTREG; }, L"C:\\a.lnk", L"x"));
  EXPECT_TRUE(RewriteShortcutTarget([](IShellLinkW**) { return S_OK; }, L"C:\\a.lnk", L"x"));
  EXPECT_TRUE(RewriteShortcutTarget([](IShellLinkW**) { return S_FALSE; }, L"C:\\a.lnk", L"x"));
}

}  // namespace
}  // namespace ambrel
