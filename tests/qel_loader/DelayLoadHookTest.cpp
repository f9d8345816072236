#include "qel_loader/DelayLoadHook.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <ostream>
#include <system_error>

#include "Ambrel.h"
#include "qel_loader/InstallQueries.h"
#include "common/Environment.h"
#include "tests/qel_loader/HostLayout.h"

namespace ambrel {
namespace {

using test::BinFile;
using test::CopyFileTo;
using test::ScratchDir;
using test::SdkSandbox;

using Calls = std::vector<std::string>;
using test::kWholeSession;

FARPROC CallHook(unsigned notification, const char* dllName) {
  DelayLoadInfo info{};
  info.cb = sizeof(info);
  info.szDll = dllName;
  return QelLoadHelper::DelayLoadHook(notification, &info);
}

std::wstring ModuleFile(HMODULE module) {
  wchar_t buffer[MAX_PATH] = {};
  ::GetModuleFileNameW(module, buffer, MAX_PATH);
  return buffer;
}

bool SamePath(const std::wstring& a, const std::wstring& b) {
  return _wcsicmp(std::filesystem::path(a).lexically_normal().c_str(),
                  std::filesystem::path(b).lexically_normal().c_str()) == 0;
}

// In this test program the library's objects are linked in, so "this
// library's folder" is the program's own folder, where the test DLLs are
// built. DLLs meant to be found only in the shared folder get names that
// exist nowhere else.
class DelayLoadHookInProcess : public ::testing::Test {
 protected:
  void SetUp() override { DelayLoadSharedDllPath().clear(); }
  void TearDown() override { DelayLoadSharedDllPath().clear(); }

  // A copy of a test DLL under a new name in the shared folder.
  std::wstring PlaceInShared(const std::wstring& source, const std::wstring& name) {
    const std::wstring file = sandbox.sharedDir() + L"\\" + name;
    CopyFileTo(BinFile(source), file);
    return file;
  }

  SdkSandbox sandbox{SdkSandbox::Contents::Installed};
};

TEST_F(DelayLoadHookInProcess, NotificationsOtherThanFailLoadLibGiveNullAndDoNothing) {
  ASSERT_EQ(::GetModuleHandleW(L"ambrel_dlloose.dll"), nullptr);
  for (unsigned notification : {0u, 1u, 2u, 4u, 5u, 6u, 0xFFFFFFFFu}) {
    EXPECT_EQ(CallHook(notification, "ambrel_dlloose.dll"), nullptr) << notification;
  }
  EXPECT_EQ(::GetModuleHandleW(L"ambrel_dlloose.dll"), nullptr) << "no load";
  EXPECT_TRUE(DelayLoadSharedDllPath().empty()) << "no lookup";
  EXPECT_TRUE(sandbox.SdkCalls(true).empty()) << "no session";
  EXPECT_EQ(sandbox.log().Lines(), std::vector<std::string>{}) << "no session";
}

TEST_F(DelayLoadHookInProcess, FirstFailingLoadLooksTheFolderUpOnceAndKeepsIt) {
  PlaceInShared(L"ambrel_dlloose.dll", L"ambrel_dl_lookup_a.dll");
  PlaceInShared(L"ambrel_dlloose.dll", L"ambrel_dl_lookup_b.dll");

  const FARPROC first = CallHook(dliFailLoadLib, "ambrel_dl_lookup_a.dll");
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(
      SamePath(ModuleFile(reinterpret_cast<HMODULE>(first)), sandbox.sharedDir() + L"\\ambrel_dl_lookup_a.dll"));
  EXPECT_EQ(DelayLoadSharedDllPath(), sandbox.sharedDir());
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);

  sandbox.sdk().ClearCalls();
  const FARPROC second = CallHook(dliFailLoadLib, "ambrel_dl_lookup_b.dll");
  ASSERT_NE(second, nullptr);
  EXPECT_TRUE(
      SamePath(ModuleFile(reinterpret_cast<HMODULE>(second)), sandbox.sharedDir() + L"\\ambrel_dl_lookup_b.dll"));
  EXPECT_TRUE(sandbox.SdkCalls(true).empty()) << "the folder is kept: no second session";
  ::FreeLibrary(reinterpret_cast<HMODULE>(first));
  ::FreeLibrary(reinterpret_cast<HMODULE>(second));
}

TEST_F(DelayLoadHookInProcess, DllBesideThisLibraryWinsOverTheSharedCopy) {
  PlaceInShared(L"ambrel_dlloose.dll", L"ambrel_dlloose.dll");
  DelayLoadSharedDllPath() = sandbox.sharedDir();
  const FARPROC result = CallHook(dliFailLoadLib, "ambrel_dlloose.dll");
  ASSERT_NE(result, nullptr);
  EXPECT_TRUE(SamePath(ModuleFile(reinterpret_cast<HMODULE>(result)), BinFile(L"ambrel_dlloose.dll")));
  ::FreeLibrary(reinterpret_cast<HMODULE>(result));
}

TEST_F(DelayLoadHookInProcess, RegistrationIsGoneAfterTheCall) {
  PlaceInShared(L"ambrel_dlloose.dll", L"ambrel_dl_reg_a.dll");
  PlaceInShared(L"ambrel_dlloose.dll", L"ambrel_dl_reg_b.dll");
  DelayLoadSharedDllPath() = sandbox.sharedDir();

  // Control: registered, the folder is searched for a bare name.
  {
    const DLL_DIRECTORY_COOKIE cookie = ::AddDllDirectory(sandbox.sharedDir().c_str());
    ASSERT_NE(cookie, nullptr);
    HMODULE control = ::LoadLibraryExW(L"ambrel_dl_reg_b.dll", nullptr, LOAD_LIBRARY_SEARCH_USER_DIRS);
    EXPECT_NE(control, nullptr);
    if (control) ::FreeLibrary(control);
    ::RemoveDllDirectory(cookie);
  }
  const FARPROC result = CallHook(dliFailLoadLib, "ambrel_dl_reg_a.dll");
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(::LoadLibraryExW(L"ambrel_dl_reg_b.dll", nullptr, LOAD_LIBRARY_SEARCH_USER_DIRS), nullptr);
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
  ::FreeLibrary(reinterpret_cast<HMODULE>(result));
}

TEST_F(DelayLoadHookInProcess, MissingEverywhereGivesNullAndSetsNoErrorOfItsOwn) {
  DelayLoadSharedDllPath() = sandbox.sharedDir();
  EXPECT_EQ(CallHook(dliFailLoadLib, "ambrel_dl_nowhere.dll"), nullptr);
  EXPECT_TRUE(sandbox.SdkCalls(true).empty());
}

TEST_F(DelayLoadHookInProcess, BypassedProcessFindsNoFolderAndAsksAgainOnEveryFailingLoad) {
  PlaceInShared(L"ambrel_dlloose.dll", L"ambrel_dl_bypass.dll");
  sandbox.env().Set(test::kMarker, L"1");
  EXPECT_EQ(CallHook(dliFailLoadLib, "ambrel_dl_bypass.dll"), nullptr);
  EXPECT_EQ(CallHook(dliFailLoadLib, "ambrel_dl_bypass.dll"), nullptr);
  EXPECT_TRUE(DelayLoadSharedDllPath().empty());
  EXPECT_TRUE(sandbox.SdkCalls(true).empty()) << "a bypassed session never reaches the SDK";

  // Still empty, so the next failing load looks again and now finds it.
  sandbox.env().Unset(test::kMarker);
  const FARPROC result = CallHook(dliFailLoadLib, "ambrel_dl_bypass.dll");
  EXPECT_NE(result, nullptr);
  EXPECT_EQ(DelayLoadSharedDllPath(), sandbox.sharedDir());
  if (result) ::FreeLibrary(reinterpret_cast<HMODULE>(result));
}

TEST_F(DelayLoadHookInProcess, UnexpectedFileSystemErrorOfTheLookupPropagates) {
  // Wine answers ERROR_BAD_DEV_TYPE for a raw disk's attributes, Windows
  // ERROR_ACCESS_DENIED: neither means "not found".
  sandbox.OverrideLocation(L"\\\\.\\PhysicalDrive0");
  try {
    CallHook(dliFailLoadLib, "ambrel_dl_nowhere.dll");
    ADD_FAILURE() << "no exception";
  } catch (const std::filesystem::filesystem_error& error) {
    EXPECT_NE(std::string(error.what()).find("status"), std::string::npos) << error.what();
  }
  EXPECT_TRUE(DelayLoadSharedDllPath().empty());
}

// A byte the file APIs' code page cannot convert, or 0 when every byte converts.
char UnconvertibleByte() {
  const UINT codePage = ::AreFileApisANSI() ? CP_ACP : CP_OEMCP;
  for (int byte = 0x80; byte <= 0xFF; ++byte) {
    const char text[2] = {static_cast<char>(byte), 'x'};
    if (::MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, text, 2, nullptr, 0) == 0) return text[0];
  }
  return 0;
}

// Wine's default code page (1252) converts every byte, so there this case is
// skipped; under a code page with gaps (or UTF-8) it runs.
TEST_F(DelayLoadHookInProcess, UnconvertibleNamePropagatesAndTheRegistrationIsRemoved) {
  const char bad = UnconvertibleByte();
  if (!bad) GTEST_SKIP() << "every byte converts in code page " << ::GetACP();
  PlaceInShared(L"ambrel_dlloose.dll", L"ambrel_dl_conv.dll");
  DelayLoadSharedDllPath() = sandbox.sharedDir();
  const std::string name = std::string("ambrel_") + bad + ".dll";
  EXPECT_THROW(CallHook(dliFailLoadLib, name.c_str()), std::system_error);
  EXPECT_EQ(::LoadLibraryExW(L"ambrel_dl_conv.dll", nullptr, LOAD_LIBRARY_SEARCH_USER_DIRS), nullptr)
      << "the shared folder is still registered";
}

// ---- a real delay load, in a host image run as a child process ----

// Layout: the host alone in its folder; Ambrel.dll (and whatever lies beside
// it) in another; the shared components in a third. The ordinary search of
// the host (its folder, the system folders, the current directory, PATH)
// then reaches none of the test DLLs, so whatever loads came through the hook.
class DelayLoadHookChild : public ::testing::Test {
 protected:
  explicit DelayLoadHookChild(const std::wstring& libraryParent = L"") : host(libraryParent) {}

  void Beside(const std::wstring& dll) { CopyFileTo(BinFile(dll), host.libraryDir() / dll); }
  void InShared(const std::wstring& dll) { CopyFileTo(BinFile(dll), sandbox.sharedDir() + L"\\" + dll); }

  std::map<std::string, std::string> Run(const std::wstring& mode, const std::wstring& folder = L"") {
    auto lines = host.Run(sandbox, mode, folder);
    EXPECT_EQ(lines["exit code"], "0") << lines["start"];
    return lines;
  }

  std::string Expected(const ScratchDir& dir, const std::wstring& dll) { return test::Narrow(dir / dll); }
  std::string InSharedPath(const std::wstring& dll) { return test::Narrow(sandbox.sharedDir() + L"\\" + dll); }

  SdkSandbox sandbox{SdkSandbox::Contents::Installed};
  test::HostLayout host;
};

TEST_F(DelayLoadHookChild, WithoutTheHookTheOrdinarySearchFindsNothing) {
  Beside(L"ambrel_dlprobe.dll");
  InShared(L"ambrel_dlprobe.dll");
  EXPECT_EQ(Run(L"probe-nohook")["probe"], "failed 0xC06D007E");
}

TEST_F(DelayLoadHookChild, DllBesideTheLibraryLoadsFromThereEvenWithASharedCopy) {
  Beside(L"ambrel_dlprobe.dll");
  InShared(L"ambrel_dlprobe.dll");
  auto out = Run(L"probe");
  EXPECT_EQ(out["probe"], Expected(host.libraryDir(), L"ambrel_dlprobe.dll"));
  // The hook looked the shared folder up first: one throw-away session.
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

TEST_F(DelayLoadHookChild, DllOnlyInTheSharedFolderLoadsWithItsDependencyAndTheRegistrationIsGone) {
  InShared(L"ambrel_dlchain.dll");
  InShared(L"ambrel_dldep.dll");
  InShared(L"ambrel_dlloose.dll");
  auto out = Run(L"chain");
  EXPECT_EQ(out["chain"], InSharedPath(L"ambrel_dlchain.dll"));
  EXPECT_EQ(out["chain dependency"], InSharedPath(L"ambrel_dldep.dll"));
  EXPECT_EQ(out["after"], "error 126") << "the shared folder is still registered";

  // Control: with the folder registered the same load succeeds.
  EXPECT_EQ(Run(L"control", sandbox.sharedDir())["control"], InSharedPath(L"ambrel_dlloose.dll"));
}

TEST_F(DelayLoadHookChild, DllBesideTheLibraryFindsItsDependencyOnlyInTheSharedFolder) {
  // The registered folder is searched for the dependencies of a DLL loaded
  // from the library's folder too: neither its own folder nor System32 has
  // ambrel_dldep.dll.
  Beside(L"ambrel_dlchain.dll");
  InShared(L"ambrel_dldep.dll");
  InShared(L"ambrel_dlloose.dll");
  auto out = Run(L"chain");
  EXPECT_EQ(out["chain"], Expected(host.libraryDir(), L"ambrel_dlchain.dll"));
  EXPECT_EQ(out["chain dependency"], InSharedPath(L"ambrel_dldep.dll"));
  EXPECT_EQ(out["after"], "error 126") << "the shared folder is still registered";
}

// ---- unloading at shutdown with the documented code

#if defined(AMBREL_TEST_UNLOADABLE_HOST)
// mingw-w64: the host built over delay-import libraries with an unload IAT.
const wchar_t kUnloadableHost[] = L"ambrel_dlhost_unloadable.exe";
#else
// MSVC: the one host, linked with /DELAY:UNLOAD.
const wchar_t kUnloadableHost[] = L"ambrel_dlhost.exe";
#endif

// Whether every delay-import descriptor of the unloadable host carries the
// unload IAT __FUnloadDelayLoadedDLL2 restores from; without it nothing can be
// unloaded. lld-link 16 writes none for /DELAY:UNLOAD.
bool UnloadableHostHasUnloadTables() {
  const std::wstring path = ambrel::test::TestBinDirectory() + L"\\" + kUnloadableHost;
  HMODULE image = ::LoadLibraryExW(path.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
  if (image == nullptr) return false;
  const auto* base = reinterpret_cast<const BYTE*>(image);
  const auto* headers =
      reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const IMAGE_DATA_DIRECTORY& delay = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT];
  bool all = delay.VirtualAddress != 0;
  for (auto* descriptor = reinterpret_cast<const IMAGE_DELAYLOAD_DESCRIPTOR*>(base + delay.VirtualAddress);
       all && descriptor->DllNameRVA != 0; ++descriptor)
    all = descriptor->UnloadInformationTableRVA != 0;
  ::FreeLibrary(image);
  return all;
}

#define SKIP_WITHOUT_UNLOAD_TABLES()                                                          \
  if (!UnloadableHostHasUnloadTables())                                                       \
  GTEST_SKIP() << "the host image has no unload IAT (lld-link 16 ignores /DELAY:UNLOAD), so " \
                  "__FUnloadDelayLoadedDLL2 can unload nothing"

TEST_F(DelayLoadHookChild, DocumentedShutdownCodeUnloadsAndTheNextCallLoadsThroughTheHookAgain) {
  SKIP_WITHOUT_UNLOAD_TABLES();
  Beside(L"ambrel_dlprobe.dll");
  auto out = host.RunHost(kUnloadableHost, sandbox, L"unload");
  EXPECT_EQ(out["exit code"], "0");
  const std::string beside = Expected(host.libraryDir(), L"ambrel_dlprobe.dll");
  EXPECT_EQ(out["probe"], beside);
  EXPECT_EQ(out["loaded"], beside);
  EXPECT_EQ(out["after unload"], "(not loaded)");
  // Only the hook can find the DLL, so the reload went through it.
  EXPECT_EQ(out["probe again"], beside);
  EXPECT_EQ(out["reloaded"], beside);
}

TEST_F(DelayLoadHookChild, TheUnloadableHostLoadsAndFailsAsTheOtherDoes) {
  InShared(L"ambrel_dlchain.dll");
  InShared(L"ambrel_dldep.dll");
  auto chain = host.RunHost(kUnloadableHost, sandbox, L"chain");
  EXPECT_EQ(chain["chain"], InSharedPath(L"ambrel_dlchain.dll"));
  EXPECT_EQ(chain["chain dependency"], InSharedPath(L"ambrel_dldep.dll"));
  // The helper's load failure reaches the caller's handler through the thunks.
  EXPECT_EQ(host.RunHost(kUnloadableHost, sandbox, L"probe-nohook")["probe"], "failed 0xC06D007E");
}

TEST_F(DelayLoadHookChild, TheRuntimesUnloadMatchesTheRecordedNameExactly) {
  SKIP_WITHOUT_UNLOAD_TABLES();
  Beside(L"ambrel_dlprobe.dll");
  auto exact = host.RunHost(kUnloadableHost, sandbox, L"unload-direct", L"ambrel_dlprobe.dll");
  EXPECT_EQ(exact["result"], "TRUE");
  EXPECT_EQ(exact["after unload"], "(not loaded)");
#if defined(AMBREL_TEST_UNLOADABLE_HOST)
  // mingw-w64 compares length and bytes: another letter case finds nothing.
  auto otherCase = host.RunHost(kUnloadableHost, sandbox, L"unload-direct", L"AMBREL_DLPROBE.DLL");
  EXPECT_EQ(otherCase["result"], "FALSE");
  EXPECT_EQ(otherCase["after unload"], Expected(host.libraryDir(), L"ambrel_dlprobe.dll"));
#endif
}

#if defined(AMBREL_TEST_UNLOADABLE_HOST)
// Why the documented code keeps the DLL with `dlltool -y` libraries: their
// descriptors have no unload IAT, so mingw-w64's helper keeps no unload record
// and __FUnloadDelayLoadedDLL2 finds nothing to unload, whatever the name.
TEST_F(DelayLoadHookChild, WithDlltoolDelayLibrariesTheRuntimeUnloadsNothing) {
  Beside(L"ambrel_dlprobe.dll");
  const std::string beside = Expected(host.libraryDir(), L"ambrel_dlprobe.dll");
  auto direct = Run(L"unload-direct", L"ambrel_dlprobe.dll");
  EXPECT_EQ(direct["result"], "FALSE");
  EXPECT_EQ(direct["after unload"], beside);
  auto documented = Run(L"unload");
  EXPECT_EQ(documented["after unload"], beside);
}
#endif

// A folder the ordinary search looks in but the hook does not: the host's
// mode names it (the current directory, a folder on PATH).
struct ElsewhereCase {
  const char* name;
  const wchar_t* mode;
};

// Named in the test list and failure messages by its case name.
void PrintTo(const ElsewhereCase& c, std::ostream* os) { *os << c.name; }

class DllOnlyElsewhereTest : public DelayLoadHookChild, public ::testing::WithParamInterface<ElsewhereCase> {};

TEST_P(DllOnlyElsewhereTest, IsNotLoadedByTheHook) {
  ScratchDir elsewhere;
  CopyFileTo(BinFile(L"ambrel_dlloose.dll"), elsewhere / L"ambrel_dlloose.dll");
  auto out = Run(GetParam().mode, elsewhere.path());
  EXPECT_EQ(out["hook"], "null");
  EXPECT_EQ(out["ordinary"], Expected(elsewhere, L"ambrel_dlloose.dll")) << "control: the ordinary search finds it";
}

INSTANTIATE_TEST_SUITE_P(Folders, DllOnlyElsewhereTest,
                         ::testing::Values(ElsewhereCase{"InTheCurrentDirectory", L"hook-cwd"},
                                           ElsewhereCase{"OnPath", L"hook-path"}),
                         [](const ::testing::TestParamInfo<ElsewhereCase>& info) { return info.param.name; });

TEST_F(DelayLoadHookChild, AfterInitializeQelTheHookFindsNoSharedFolderButPathDoes) {
  InShared(L"ambrel_dlchain.dll");
  InShared(L"ambrel_dldep.dll");
  auto out = Run(L"init-then-chain");
  EXPECT_EQ(out["init"], "true");
  EXPECT_EQ(out["hook"], "null") << "the lookup's session reports Bypassed";
  EXPECT_EQ(out["chain"], InSharedPath(L"ambrel_dlchain.dll")) << "found by the ordinary search through PATH";
  EXPECT_EQ(out["chain dependency"], InSharedPath(L"ambrel_dldep.dll"));
  // Only the bootstrap's own session reached the SDK.
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

class DelayLoadHookDevelopmentChild : public DelayLoadHookChild {
 protected:
  DelayLoadHookDevelopmentChild() : DelayLoadHookChild(L"R:\\") {}
};

TEST_F(DelayLoadHookDevelopmentChild, OnlyTheLibraryFolderIsTriedAndNoSessionIsCreated) {
  Beside(L"ambrel_dlprobe.dll");
  InShared(L"ambrel_dlchain.dll");
  InShared(L"ambrel_dldep.dll");
  EXPECT_EQ(Run(L"probe")["probe"], Expected(host.libraryDir(), L"ambrel_dlprobe.dll"));
  EXPECT_EQ(Run(L"chain")["chain dependency"], "failed 0xC06D007E");
  EXPECT_TRUE(sandbox.SdkCalls(true).empty());
  EXPECT_EQ(sandbox.log().Lines(), std::vector<std::string>{});
}

}  // namespace
}  // namespace ambrel
