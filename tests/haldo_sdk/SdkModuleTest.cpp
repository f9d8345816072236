#include "haldo_sdk/SdkModule.h"

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <stdexcept>

#include "haldo_sdk/RegistryBuffer.h"
#include "tests/support/ImportPatch.h"

#include "tests/haldo_sdk/WrapperTest.h"

namespace ambrel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

const std::string kReadFailedLine = "[ERROR] HALDOAPIWrapperImpl::GetDllPath: Failed to read registry!";

// Log of an Initialize whose load stopped at the given lines.
std::vector<std::string> FailedLoad(std::vector<std::string> loadLines) {
  std::vector<std::string> lines = {kLogSeparator, kArgsLine};
  lines.insert(lines.end(), loadLines.begin(), loadLines.end());
  lines.push_back(kLoadFailedLine);
  return lines;
}

// A copy of the signed stand-in whose full path is exactly `length` characters.
std::wstring SignedCopyWithPathLength(const ScratchDir& dir, size_t length) {
  const std::wstring tail = L"\\StandInSdk.dll";
  const size_t base = dir.path().size() + 1;
  if (length < base + tail.size() + 1) throw std::runtime_error("path too short for the scratch folder");
  const std::wstring folder = dir.MakeDir(std::wstring(length - base - tail.size(), L'p'));
  const std::wstring dll = folder + tail;
  if (!::CopyFileW(StandInSdkPath(StandInKind::Signed).c_str(), dll.c_str(), FALSE))
    throw std::runtime_error("copy failed");
  return dll;
}

// The module that holds the wrapper's registry read, whose imports the tests patch.
HMODULE LibraryModule() { return ModuleOf(reinterpret_cast<const void*>(&ReadSdkLocationValue)); }

// While it lives, the byte count each query of "HALDOSDKLocation" is offered,
// as RegQueryValueExW sees it.
class OfferedSizes {
 public:
  OfferedSizes() : patch_(LibraryModule(), "advapi32.dll", "RegQueryValueExW", reinterpret_cast<void*>(&Query)) {
    active_ = this;
  }
  ~OfferedSizes() { active_ = nullptr; }
  OfferedSizes(const OfferedSizes&) = delete;
  OfferedSizes& operator=(const OfferedSizes&) = delete;
  const std::vector<DWORD>& sizes() const { return sizes_; }

 private:
  static LSTATUS WINAPI Query(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
    if (name && size && std::wstring(name) == kSdkLocationValue) active_->sizes_.push_back(*size);
    return reinterpret_cast<decltype(&Query)>(active_->patch_.original())(key, name, reserved, type, data, size);
  }
  static inline OfferedSizes* active_ = nullptr;
  ImportPatch patch_;
  std::vector<DWORD> sizes_;
};

std::wstring ReadSdkLocation() {
  wchar_t* value = nullptr;
  if (!ReadStringFromRegistry(&value)) return L"<failed>";
  const RegistryBuffer owner(value);
  return value ? value : L"<null>";
}

// While it lives, the library's registry buffer (the block of 2048 bytes it
// asks malloc for, and its enlargements) is followed through malloc, realloc
// and free; the first such malloc fails with `failAllocation`, every realloc
// of it with `failEnlargement`. Other blocks pass through untouched.
class RegistryBufferWatch {
 public:
  RegistryBufferWatch(bool failAllocation, bool failEnlargement)
      : failAllocation_(failAllocation),
        failEnlargement_(failEnlargement),
        malloc_(LibraryModule(), CrtDll(), "malloc", reinterpret_cast<void*>(&Allocate)),
        realloc_(LibraryModule(), CrtDll(), "realloc", reinterpret_cast<void*>(&Reallocate)),
        free_(LibraryModule(), CrtDll(), "free", reinterpret_cast<void*>(&Release)) {
    active_ = this;
  }
  ~RegistryBufferWatch() { active_ = nullptr; }
  RegistryBufferWatch(const RegistryBufferWatch&) = delete;
  RegistryBufferWatch& operator=(const RegistryBufferWatch&) = delete;

  int buffersSeen() const { return seen_; }
  // Blocks of the buffer handed out and not given back.
  std::size_t outstanding() const { return live_ ? 1 : 0; }

 private:
  static constexpr std::size_t kBufferBytes = 2048;
  // The C runtime the library's malloc comes from in this build.
  static const char* CrtDll() {
    for (const char* dll : {"msvcrt.dll", "ucrtbase.dll", "api-ms-win-crt-heap-l1-1-0.dll"}) {
      if (ImportPatch::Imports(LibraryModule(), dll, "malloc")) return dll;
    }
    throw std::runtime_error("the library imports malloc from no known C runtime");
  }
  static void* Allocate(std::size_t size) {
    RegistryBufferWatch& self = *active_;
    const bool buffer = size == kBufferBytes && self.seen_ == 0;
    if (buffer) ++self.seen_;
    if (buffer && self.failAllocation_) return nullptr;
    void* memory = reinterpret_cast<decltype(&Allocate)>(self.malloc_.original())(size);
    if (buffer && memory) self.live_ = memory;
    return memory;
  }
  static void* Reallocate(void* memory, std::size_t size) {
    RegistryBufferWatch& self = *active_;
    const bool buffer = memory && memory == self.live_;
    if (buffer && self.failEnlargement_) return nullptr;
    void* larger = reinterpret_cast<decltype(&Reallocate)>(self.realloc_.original())(memory, size);
    if (buffer && larger) self.live_ = larger;
    return larger;
  }
  static void Release(void* memory) {
    RegistryBufferWatch& self = *active_;
    if (memory && memory == self.live_) self.live_ = nullptr;
    reinterpret_cast<decltype(&Release)>(self.free_.original())(memory);
  }

  static inline RegistryBufferWatch* active_ = nullptr;
  bool failAllocation_;
  bool failEnlargement_;
  int seen_ = 0;
  void* live_ = nullptr;  // the buffer's block; nothing here allocates, as these run inside malloc and free
  ImportPatch malloc_;
  ImportPatch realloc_;
  ImportPatch free_;
};

// ---- ReadStringFromRegistry: first query of 256 bytes, growth by 256

using RegistryReadTest = WrapperTest;

TEST_F(RegistryReadTest, ValueOf127CharactersFitsTheFirstQuery) {
  const std::wstring value(127, L'a');
  SetSdkLocation(value);
  const OfferedSizes offered;
  EXPECT_EQ(ReadSdkLocation(), value);
  EXPECT_THAT(offered.sizes(), ElementsAre(256u));
}

TEST_F(RegistryReadTest, ValueOf128CharactersNeedsOneEnlargement) {
  const std::wstring value(128, L'b');  // 258 bytes with its terminator
  SetSdkLocation(value);
  const OfferedSizes offered;
  EXPECT_EQ(ReadSdkLocation(), value);
  EXPECT_THAT(offered.sizes(), ElementsAre(256u, 512u));
}

TEST_F(RegistryReadTest, ValueOf129CharactersNeedsOneEnlargement) {
  const std::wstring value(129, L'c');  // 260 bytes: still within 512
  SetSdkLocation(value);
  const OfferedSizes offered;
  EXPECT_EQ(ReadSdkLocation(), value);
  EXPECT_THAT(offered.sizes(), ElementsAre(256u, 512u));
}

TEST_F(RegistryReadTest, ValueOf256CharactersNeedsTwoEnlargements) {
  const std::wstring value(256, L'd');  // 514 bytes
  SetSdkLocation(value);
  const OfferedSizes offered;
  EXPECT_EQ(ReadSdkLocation(), value);
  EXPECT_THAT(offered.sizes(), ElementsAre(256u, 512u, 768u));
}

TEST_F(RegistryReadTest, ValueStoredWithoutTerminatorIsReadTerminated) {
  for (size_t length : {127u, 128u, 255u, 256u}) {
    const std::wstring value(length, L'e');
    RegistrySandbox::SetRaw(HKEY_LOCAL_MACHINE, kHaldoKey, kSdkLocationName, REG_SZ, value.data(),
                            static_cast<DWORD>(value.size() * sizeof(wchar_t)));
    EXPECT_EQ(ReadSdkLocation(), value) << length;
  }
}

TEST_F(RegistryReadTest, TheValueTypeIsNotChecked) {
  const std::wstring value = L"C:\\SDK\\HaldoSdk.dll";
  RegistrySandbox::SetRaw(HKEY_LOCAL_MACHINE, kHaldoKey, kSdkLocationName, REG_BINARY, value.c_str(),
                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
  EXPECT_EQ(ReadSdkLocation(), value);
}

TEST_F(RegistryReadTest, PathsOf127128And129CharactersLoad) {
  ScratchDir dir;
  for (size_t length : {127u, 128u, 129u}) {
    ResetWrapperState();
    const std::wstring dll = SignedCopyWithPathLength(dir, length);
    ASSERT_EQ(dll.size(), length);
    SetSdkLocation(dll);
    sandbox_.log().Clear();
    EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0) << length;
    EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(Path(dll)))) << length;
    EXPECT_EQ(wrapper_.Uninitialize(), 0);
  }
}

TEST_F(RegistryReadTest, MissingKey) {
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 3);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAreArray(FailedLoad({"[ERROR] HALDOAPIWrapperImpl::ReadStringFromRegistry: RegOpenKeyEx failed!",
                                           kReadFailedLine, kPathEmptyLine})));
}

TEST_F(RegistryReadTest, MissingValue) {
  RegistrySandbox::CreateKey(HKEY_LOCAL_MACHINE, kHaldoKey);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 3);
  EXPECT_THAT(
      sandbox_.log().Messages(),
      ElementsAreArray(FailedLoad({"[ERROR] HALDOAPIWrapperImpl::ReadStringFromRegistry: RegQueryValueEx failed!",
                                   kReadFailedLine, kPathEmptyLine})));
}

TEST_F(RegistryReadTest, EmptyValue) {
  SetSdkLocation(L"");
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 3);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(FailedLoad({kPathEmptyLine})));
}

TEST_F(RegistryReadTest, BufferAllocationFailure) {
  SetSdkLocation(StandInKind::Signed);
  const RegistryBufferWatch watch(/*failAllocation=*/true, /*failEnlargement=*/false);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 3);
  EXPECT_EQ(watch.buffersSeen(), 1);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAreArray(FailedLoad({"[ERROR] HALDOAPIWrapperImpl::ReadStringFromRegistry: Failed to allocate "
                                           "memory for buffer to read registry!",
                                           kReadFailedLine, kPathEmptyLine})));
}

TEST_F(RegistryReadTest, BufferEnlargementFailure) {
  ScratchDir dir;
  SetSdkLocation(SignedCopyWithPathLength(dir, 200));
  const RegistryBufferWatch watch(/*failAllocation=*/false, /*failEnlargement=*/true);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 3);
  EXPECT_EQ(watch.outstanding(), 0u);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(FailedLoad({kReadFailedLine, kPathEmptyLine})));
}

TEST_F(RegistryReadTest, TheBufferIsGivenBackOnEveryPath) {
  struct Case {
    const char* name;
    void (*prepare)(const ScratchDir& dir);
    bool failEnlargement;
    int expected;
  };
  const Case cases[] = {
      {"key missing", [](const ScratchDir&) {}, false, 3},
      {"value missing", [](const ScratchDir&) { RegistrySandbox::CreateKey(HKEY_LOCAL_MACHINE, kHaldoKey); }, false, 3},
      {"value empty", [](const ScratchDir&) { SetSdkLocation(L""); }, false, 3},
      {"enlargement failed", [](const ScratchDir& dir) { SetSdkLocation(SignedCopyWithPathLength(dir, 200)); }, true,
       3},
      {"enlarged and read", [](const ScratchDir& dir) { SetSdkLocation(SignedCopyWithPathLength(dir, 200)); }, false,
       0},
      {"read at once", [](const ScratchDir&) { SetSdkLocation(StandInKind::Signed); }, false, 0},
  };
  for (const Case& c : cases) {
    ResetWrapperState();
    RegistrySandbox::DeleteKey(HKEY_LOCAL_MACHINE, kHaldoKey);
    ScratchDir dir;
    c.prepare(dir);
    {
      const RegistryBufferWatch watch(/*failAllocation=*/false, c.failEnlargement);
      EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), c.expected) << c.name;
      EXPECT_EQ(watch.buffersSeen(), 1) << c.name;
      EXPECT_EQ(watch.outstanding(), 0u) << c.name;
    }
    if (c.expected == 0) EXPECT_EQ(wrapper_.Uninitialize(), 0);
  }
}

TEST_F(RegistryReadTest, AFailedReadIsRetriedByTheNextLoad) {
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 3);
  SetSdkLocation(StandInKind::Signed);
  sandbox_.log().Clear();
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed))));
}

// ---- GetDllPath: expansion and existence

using DllPathTest = WrapperTest;

TEST_F(DllPathTest, ProgramFilesReferenceIsExpandedBeforeTheExistenceTest) {
  ScratchDir programFiles;
  const std::wstring folder = programFiles.MakeDir(L"Tavrel\\HALDO SDK");
  ASSERT_TRUE(::CopyFileW(StandInSdkPath(StandInKind::Signed).c_str(), (folder + L"\\StandInSdk.dll").c_str(), FALSE));
  EnvGuard env;
  env.Set(L"ProgramFiles", programFiles.path());
  SetSdkLocation(L"%ProgramFiles%\\Tavrel\\HALDO SDK\\StandInSdk.dll", REG_EXPAND_SZ);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_EQ(WrapperState().dllPath, folder + L"\\StandInSdk.dll");
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAreArray(SuccessfulInitializeLines(Path(folder + L"\\StandInSdk.dll"))));
}

TEST_F(DllPathTest, MissingExpandedPath) {
  ScratchDir dir;
  SetSdkLocation(dir / L"NoSuchSdk.dll");
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 3);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAreArray(FailedLoad(
                  {"[ERROR] HALDOAPIWrapperImpl::GetDllPath: expanded Dll Path does not exist!", kPathEmptyLine})));
  EXPECT_TRUE(WrapperState().dllPath.empty());
}

TEST_F(DllPathTest, ExpansionThatDoesNotFitIn260CharactersFails) {
  // The file exists, but its expanded path is longer than the expansion buffer.
  ScratchDir dir;
  const std::wstring dll = SignedCopyWithPathLength(dir, 200);
  EnvGuard env;
  env.Set(L"AMBREL_TEST_SDK_DIR", dll.substr(0, dll.rfind(L'\\')));
  SetSdkLocation(L"%AMBREL_TEST_SDK_DIR%\\..\\" + dll.substr(dir.path().size() + 1));
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 3);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAreArray(FailedLoad(
                  {"[ERROR] HALDOAPIWrapperImpl::GetDllPath: expanded Dll Path does not exist!", kPathEmptyLine})));
}

TEST_F(DllPathTest, UnexpectedErrorTestingThePathCountsAsMissing) {
  // Asking for the attributes of a path below a device fails with
  // ERROR_BAD_DEV_TYPE (66): only the lock-file test may raise, so this one
  // reports the path as missing.
  SetSdkLocation(L"\\\\.\\NUL\\StandInSdk.dll");
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 3);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAreArray(FailedLoad(
                  {"[ERROR] HALDOAPIWrapperImpl::GetDllPath: expanded Dll Path does not exist!", kPathEmptyLine})));
}

// ExpandEnvironmentStringsW does not fail under Wine for any text we can give
// it (an over-long one returns its size with ERROR_INSUFFICIENT_BUFFER), so the
// row "expansion failed" cannot be reached here.

TEST_F(DllPathTest, DirectoryPassesTheExistenceTestThenFailsTheSignatureCheck) {
  ScratchDir dir;
  SetSdkLocation(dir.path());
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 9);
  EXPECT_EQ(WrapperState().dllPath, dir.path());
  const auto messages = sandbox_.log().Messages();
  ASSERT_EQ(messages.size(), 7u);
  EXPECT_EQ(messages[2], "[INFO] Load: HALDO SDK path = " + Path(dir.path()));
  // The status is whatever the system reports for a directory (Wine: 5, access
  // denied); what matters is that it is a failure.
  EXPECT_TRUE(std::regex_match(messages[3], std::regex(R"(\[ERROR\] WinVerifyTrust returned status: -?[1-9][0-9]*)")))
      << messages[3];
  EXPECT_EQ(messages[4], "[ERROR] VerifyCertificate failed!");
  EXPECT_EQ(messages[5], "[ERROR] IsSignatureValid: Signature invalid at path = " + Path(dir.path()));
  EXPECT_EQ(messages[6], kLoadFailedLine);
}

// ---- Load

using LoadTest = WrapperTest;

TEST_F(LoadTest, SignatureRejectedReturns9) {
  SetSdkLocation(StandInKind::Unsigned);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 9);
  const std::string path = SdkPath(StandInKind::Unsigned);
  EXPECT_THAT(
      sandbox_.log().Messages(),
      ElementsAreArray(FailedLoad(
          {"[INFO] Load: HALDO SDK path = " + path, "[ERROR] WinVerifyTrust returned status: -2146762496",
           "[ERROR] VerifyCertificate failed!", "[ERROR] IsSignatureValid: Signature invalid at path = " + path})));
  EXPECT_EQ(WrapperState().module.get(), nullptr);
  EXPECT_THAT(sandbox_.sdk().Calls(true), IsEmpty());
}

TEST_F(LoadTest, LoadLibraryFailureReturns3) {
  SetSdkLocation(StandInKind::Signed);
  sandbox_.sdk().SetRefuseLoad(true);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 3);
  const std::string path = SdkPath(StandInKind::Signed);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAreArray(FailedLoad(
                  {"[INFO] Load: HALDO SDK path = " + path, "[ERROR] Load: LoadLibraryW failed to load " + path})));
  EXPECT_EQ(WrapperState().module.get(), nullptr);
  // The loader tells a DLL that refused to attach that it is detached again.
  EXPECT_THAT(sandbox_.sdk().Calls(true), ElementsAre("AttachRefused", "Detach"));
}

TEST_F(LoadTest, LoadFunctionReportsItsCode) {
  int code = -1;
  EXPECT_FALSE(LoadSdk(code));
  EXPECT_EQ(code, 3);
  SetSdkLocation(StandInKind::OtherPublisher);
  EXPECT_FALSE(LoadSdk(code));
  EXPECT_EQ(code, 9);
  ResetWrapperState();
  SetSdkLocation(StandInKind::Signed);
  EXPECT_TRUE(LoadSdk(code));
  EXPECT_NE(WrapperState().module.get(), nullptr);
  // Already loaded: true at once, nothing logged.
  const auto before = sandbox_.log().Lines();
  EXPECT_TRUE(LoadSdk(code));
  EXPECT_EQ(sandbox_.log().Lines(), before);
}

// ---- Self-update detection

using SelfUpdateTest = WrapperTest;

std::string Pid(DWORD pid) { return std::to_string(pid); }

TEST_F(SelfUpdateTest, LockFileLivesUnderProgramDataTavrelHaldo) {
  EXPECT_EQ(SelfUpdateLockFilePath().wstring(), sandbox_.programData().LockFile());
  EXPECT_FALSE(IsSelfUpdateRunning());
}

TEST_F(SelfUpdateTest, OwnProcessIdReturns8WithoutTouchingTheRegistry) {
  // No SDK key in the registry: had the registry been read, its lines would show.
  sandbox_.programData().WriteLock(Pid(::GetCurrentProcessId()));
  EXPECT_TRUE(IsSelfUpdateRunning());
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 8);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(FailedLoad({"[INFO] Load: Self-update is running"})));
  EXPECT_FALSE(wrapper_.IsInitialized());
}

TEST_F(SelfUpdateTest, RemovingTheLockLetsTheNextInitializeLoad) {
  SetSdkLocation(StandInKind::Signed);
  sandbox_.programData().WriteLock(Pid(::GetCurrentProcessId()));
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 8);
  EXPECT_THAT(sandbox_.sdk().Calls(true), IsEmpty());
  sandbox_.programData().RemoveLock();
  sandbox_.log().Clear();
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed))));
}

TEST_F(SelfUpdateTest, EndingTheLockingProcessLetsTheNextInitializeLoad) {
  SetSdkLocation(StandInKind::Signed);
  // A suspended copy of this program stands in for the updating installer.
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  std::wstring commandLine = L"\"" + TestBinDirectory() + L"\\test_haldo_sdk.exe\" --gtest_list_tests";
  ASSERT_TRUE(::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, CREATE_SUSPENDED, nullptr, nullptr,
                               &startup, &process));
  sandbox_.programData().WriteLock(Pid(process.dwProcessId));
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 8);

  ::TerminateProcess(process.hProcess, 0);
  ::WaitForSingleObject(process.hProcess, 10000);
  ::CloseHandle(process.hThread);
  ::CloseHandle(process.hProcess);
  sandbox_.log().Clear();
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed))));
}

TEST_F(SelfUpdateTest, ContentsThatNeverMatchLetTheSdkLoad) {
  const std::string own = Pid(::GetCurrentProcessId());
  for (const std::string& content : {own + "\r\n", own + "\n", std::string(), " " + own, "0" + own, own + " "}) {
    ResetWrapperState();
    SetSdkLocation(StandInKind::Signed);
    sandbox_.programData().WriteLock(content);
    sandbox_.log().Clear();
    EXPECT_FALSE(IsSelfUpdateRunning()) << "[" << content << "]";
    EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0) << "[" << content << "]";
    EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed))));
    EXPECT_EQ(wrapper_.Uninitialize(), 0);
  }
}

TEST_F(SelfUpdateTest, AlreadyLoadedSdkLoadsEvenWithTheLockPresent) {
  SetSdkLocation(StandInKind::Signed);
  sandbox_.sdk().SetResult("Initialize", 12);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 12);
  sandbox_.programData().WriteLock(Pid(::GetCurrentProcessId()));
  ASSERT_TRUE(IsSelfUpdateRunning());
  sandbox_.sdk().SetResult("Initialize", 0);
  sandbox_.log().Clear();
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_THAT(
      sandbox_.log().Messages(),
      ElementsAre(kLogSeparator, kArgsLine, "[INFO] HALDOAPIWrapperImpl::Initialize: HALDO SDK loaded successfully",
                  "[INFO] HALDOAPIWrapperImpl::Initialize: session id = standin-session"));
}

TEST_F(SelfUpdateTest, TheLockIsCheckedOnEveryLoad) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  ASSERT_EQ(wrapper_.Uninitialize(), 0);
  sandbox_.programData().WriteLock(Pid(::GetCurrentProcessId()));
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 8);
}

TEST_F(SelfUpdateTest, UnexpectedErrorTestingForTheLockPropagatesAsExists) {
  // A device path as the program-data folder: asking for the lock file's
  // attributes fails with ERROR_BAD_DEV_TYPE (66), which is not "missing".
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE,
                             L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders",
                             L"Common AppData", L"\\\\.\\NUL");
  SetSdkLocation(StandInKind::Signed);
  try {
    wrapper_.Initialize("QEL", "2026", "neutral");
    FAIL() << "no exception";
  } catch (const std::filesystem::filesystem_error& error) {
    EXPECT_EQ(error.code().value(), 66);
    EXPECT_NE(std::string(error.what()).find("exists"), std::string::npos) << error.what();
  }
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAre(kLogSeparator, kArgsLine));
  EXPECT_EQ(WrapperState().module.get(), nullptr);
  EXPECT_THAT(sandbox_.sdk().Calls(true), IsEmpty());
}

// SHGetKnownFolderPath(FOLDERID_ProgramData) succeeded under Wine for every
// registry value we tried (empty, wrong type, unexpandable), so the fallback
// to the temporary directory cannot be reached here.

}  // namespace
}  // namespace ambrel::test
