// One shared-components session cycle (Initialize, LockInstallLocation,
// Uninitialize) over the signed stand-in SDK, against a floor that makes only
// the system calls such a cycle needs: the environment and registry reads, the
// self-update lock-file test and process snapshot, the trust check and its
// close call, the certificate query and search, the SDK's load, calls and
// unload, and one open-write-close of the log file per log line.
//
// Runs in the registry sandbox with scratch LOCALAPPDATA and program-data
// folders. Two scenarios: a stale self-update lock file (a process id that is
// not running, so the snapshot is walked every time), and no lock file.
#include <windows.h>

#include <shlobj.h>
#include <softpub.h>
#include <tlhelp32.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <cstdio>
#include <string>

#include "bench/BenchHarness.h"
#include "qel_session/QelSession.h"
#include "tests/support/ProcessMemory.h"
#include "tests/support/SdkSandbox.h"
#include "tests/support/StandInSdk.h"
#include "tests/support/TestSupport.h"

namespace ambrel::test {
namespace {

// ---- the library's path

bool LibraryCycle(const std::wstring& expectedLocation) {
  QelSession session;
  if (session.Initialize(L"2026") != Success) return false;
  std::wstring location;
  const bool locked = session.LockInstallLocation(location) == Success;
  return session.Uninitialize() == Success && locked && location == expectedLocation;
}

// ---- the floor

using SdkInitialize = int (*)(const char*, const char*, const char*, char**);
using SdkReleaseMemory = int (*)(const char*, char**);
using SdkUninitialize = int (*)(const char*);
using SdkDirectory = int (*)(const char*, const char*);

template <typename Function>
Function Export(HMODULE module, const char* name) {
  return reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

std::wstring ExpandedLogPath() {
  wchar_t expanded[MAX_PATH + 1] = {};
  ::ExpandEnvironmentStringsW(L"%LOCALAPPDATA%", expanded, MAX_PATH);
  return std::wstring(expanded) + L"\\Tavrel\\HALDO\\HALDO_APIWrapper.log";
}

void AppendLine(const std::wstring& logPath, const std::string& text) {
  const HANDLE file = ::CreateFileW(logPath.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return;
  DWORD written = 0;
  ::WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  ::CloseHandle(file);
}

void AppendRecord(const std::wstring& logPath, const std::string& message) {
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "[%04u-%02u-%02uT%02u:%02u:%02u] ", now.wYear, now.wMonth, now.wDay, now.wHour,
                now.wMinute, now.wSecond);
  AppendLine(logPath, stamp + message + "\r\n");
}

bool FloorSelfUpdateRunning() {
  PWSTR known = nullptr;
  std::wstring lockFile;
  if (SUCCEEDED(::SHGetKnownFolderPath(FOLDERID_ProgramData, KF_FLAG_DONT_VERIFY | KF_FLAG_NO_ALIAS, nullptr, &known)))
    lockFile = std::wstring(known) + L"\\Tavrel\\HALDO\\TvHALDOInstaller.run.lock";
  ::CoTaskMemFree(known);
  if (::GetFileAttributesW(lockFile.c_str()) == INVALID_FILE_ATTRIBUTES) return false;

  char content[64] = {};
  DWORD length = 0;
  const HANDLE file = ::CreateFileW(lockFile.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file != INVALID_HANDLE_VALUE) {
    ::ReadFile(file, content, sizeof content - 1, &length, nullptr);
    ::CloseHandle(file);
  }
  const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return false;
  bool running = false;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Process32FirstW(snapshot, &entry); more && !running; more = ::Process32NextW(snapshot, &entry)) {
    char id[16];
    const int idLength = std::snprintf(id, sizeof id, "%lu", static_cast<unsigned long>(entry.th32ProcessID));
    running = idLength == static_cast<int>(length) && std::memcmp(id, content, length) == 0;
  }
  ::CloseHandle(snapshot);
  return running;
}

// The SDK's path is read from the registry once per process, as the wrapper does.
const std::wstring& FloorSdkPath() {
  static const std::wstring path = [] {
    HKEY key = nullptr;
    wchar_t value[1024] = {};
    DWORD size = sizeof value - sizeof(wchar_t);
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tavrel\\HALDO\\", 0, KEY_READ, &key) != ERROR_SUCCESS)
      return std::wstring();
    ::RegQueryValueExW(key, L"HALDOSDKLocation", nullptr, nullptr, reinterpret_cast<BYTE*>(value), &size);
    ::RegCloseKey(key);
    wchar_t expanded[MAX_PATH + 1] = {};
    ::ExpandEnvironmentStringsW(value, expanded, MAX_PATH);
    return ::GetFileAttributesW(expanded) != INVALID_FILE_ATTRIBUTES ? std::wstring(expanded) : std::wstring();
  }();
  return path;
}

bool FloorSignatureValid(const std::wstring& path) {
  WINTRUST_FILE_INFO file{};
  file.cbStruct = sizeof file;
  file.pcwszFilePath = path.c_str();
  WINTRUST_DATA data{};
  data.cbStruct = sizeof data;
  data.dwUIChoice = WTD_UI_NONE;
  data.fdwRevocationChecks = WTD_REVOKE_NONE;
  data.dwUnionChoice = WTD_CHOICE_FILE;
  data.pFile = &file;
  data.dwStateAction = WTD_STATEACTION_VERIFY;
  GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
  const LONG status = ::WinVerifyTrust(nullptr, &action, &data);
  data.dwStateAction = WTD_STATEACTION_CLOSE;
  ::WinVerifyTrust(nullptr, &action, &data);
  if (status != 0) return false;

  DWORD encoding = 0, content = 0, format = 0;
  HCERTSTORE store = nullptr;
  HCRYPTMSG message = nullptr;
  if (!::CryptQueryObject(CERT_QUERY_OBJECT_FILE, path.c_str(), CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
                          CERT_QUERY_FORMAT_FLAG_BINARY, 0, &encoding, &content, &format, &store, &message, nullptr))
    return false;
  const PCCERT_CONTEXT found =
      ::CertFindCertificateInStore(store, encoding, 0, CERT_FIND_SUBJECT_STR_W, L"Tavrel, Inc", nullptr);
  if (found) ::CertFreeCertificateContext(found);
  ::CertCloseStore(store, 0);
  ::CryptMsgClose(message);
  return found != nullptr;
}

// Reads a string value of at most 129 characters, as the session does.
bool ReadText(HKEY key, const wchar_t* name, wchar_t (&buffer)[261]) {
  DWORD size = 260;
  buffer[0] = 0;
  if (::RegQueryValueExW(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer), &size) != ERROR_SUCCESS)
    return false;
  buffer[size / sizeof(wchar_t)] = 0;
  return true;
}

bool FloorLocate(std::wstring& location) {
  HKEY key = nullptr;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSharedComponentsKey.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
    return false;
  DWORD enabled = 0, size = sizeof enabled;
  ::RegQueryValueExW(key, L"EnablePathOverride", nullptr, nullptr, reinterpret_cast<BYTE*>(&enabled), &size);
  ::RegCloseKey(key);
  if (enabled == 1) return false;  // not this benchmark's registry

  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kSharedComponentsKey.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
    return false;
  wchar_t installPath[261], version[261];
  bool found = ReadText(key, L"InstallPath", installPath) &&
               ::GetFileAttributesW(installPath) != INVALID_FILE_ATTRIBUTES && ReadText(key, L"Version", version);
  if (found) {
    location = std::wstring(installPath) + L"\\" + version;
    found = ::GetFileAttributesW(location.c_str()) != INVALID_FILE_ATTRIBUTES;
  }
  ::RegCloseKey(key);
  return found;
}

bool FloorCycle(const std::wstring& expectedLocation) {
  wchar_t bypass[8];
  if (::GetEnvironmentVariableW(L"QEL_INITIALIZE_BYPASSED", bypass, 8) != 0) return false;

  // Start: log block, self-update test, SDK path, signature, load, session.
  const std::wstring logPath = ExpandedLogPath();
  AppendLine(logPath, std::string(71, '=') + "\r\n");
  AppendRecord(logPath,
               "[INFO] HALDOAPIWrapperImpl::Initialize: plc = \"QEL\", release = \"2026\", language = \"neutral\"");
  if (FloorSelfUpdateRunning()) return false;
  const std::wstring& sdkPath = FloorSdkPath();
  if (sdkPath.empty()) return false;
  std::string narrowPath(sdkPath.begin(), sdkPath.end());  // the test paths are ASCII
  AppendRecord(logPath, "[INFO] Load: HALDO SDK path = " + narrowPath);
  if (!FloorSignatureValid(sdkPath)) return false;
  const HMODULE sdk = ::LoadLibraryW(sdkPath.c_str());
  if (!sdk) return false;
  AppendRecord(logPath, "[INFO] HALDOAPIWrapperImpl::Initialize: HALDO SDK loaded successfully");
  char* returned = nullptr;
  const int started = Export<SdkInitialize>(sdk, "Initialize")("QEL", "2026", "neutral", &returned);
  const std::string sessionId = started == 0 && returned ? returned : "";
  AppendRecord(logPath, "[INFO] HALDOAPIWrapperImpl::Initialize: session id = " + sessionId);
  Export<SdkReleaseMemory>(sdk, "ReleaseMemory")(sessionId.c_str(), &returned);

  // Locate and lock.
  std::wstring location;
  const bool located = FloorLocate(location);
  std::string lockPath(location.begin(), location.end());
  lockPath += "\\";
  const int locked = Export<SdkDirectory>(sdk, "LockDirectory")(sessionId.c_str(), lockPath.c_str());

  // Unlock, end, unload.
  const int unlocked = Export<SdkDirectory>(sdk, "UnLockDirectory")(sessionId.c_str(), lockPath.c_str());
  const int ended = Export<SdkUninitialize>(sdk, "Uninitialize")(sessionId.c_str());
  const bool freed = ::FreeLibrary(sdk) != FALSE;
  AppendRecord(logPath, "[INFO] HALDOAPIWrapperImpl::Initialize: HALDO SDK unloaded successfully");
  return started == 0 && located && location == expectedLocation && locked == 0 && unlocked == 0 && ended == 0 && freed;
}

// Private bytes left behind by `count` runs of `operation`, after one run to warm up.
template <typename Operation>
void PrintGrowth(const char* name, int count, Operation&& operation) {
  operation();
  const long long before = PrivateBytes();
  for (int i = 0; i < count; ++i) operation();
  const long long growth = PrivateBytes() - before;
  std::printf("%-40s %6d runs: private bytes %+lld (%+.0f per run)\n", name, count, growth,
              static_cast<double>(growth) / count);
  std::fflush(stdout);
}

// Where a cycle's memory goes: the whole paths and their system pieces, each
// repeated on its own.
void PrintGrowthOfPieces(int count, const std::wstring& expected) {
  const std::wstring& sdkPath = FloorSdkPath();
  const std::wstring logPath = ExpandedLogPath();
  PrintGrowth("library cycle", count, [&] { LibraryCycle(expected); });
  PrintGrowth("floor cycle", count, [&] { FloorCycle(expected); });
  PrintGrowth("WinVerifyTrust + CryptQueryObject", count, [&] { FloorSignatureValid(sdkPath); });
  PrintGrowth("LoadLibraryW + FreeLibrary of the SDK", count, [&] { ::FreeLibrary(::LoadLibraryW(sdkPath.c_str())); });
  const std::wstring plainDll = TestBinDirectory() + L"\\ambrel_benchprobe.dll";
  PrintGrowth("LoadLibraryW + FreeLibrary of a C-only DLL", count,
              [&] { ::FreeLibrary(::LoadLibraryW(plainDll.c_str())); });
  PrintGrowth("self-update test", count, [&] { FloorSelfUpdateRunning(); });
  PrintGrowth("one log line", count, [&] { AppendRecord(logPath, "[INFO] growth"); });
  std::wstring location;
  PrintGrowth("locate (registry, existence tests)", count, [&] { FloorLocate(location); });
}

int RunBench(int argc, char** argv) {
  const int rounds = bench::RoundsArgument(argc, argv, 150);

  SdkSandbox sandbox{SdkSandbox::Contents::Installed, SdkSandbox::Record::Nothing};
  const WrapperLogFolder& log = sandbox.log();
  const std::wstring& expected = sandbox.sharedDir();

  // Both paths must succeed and write the same number of log lines before
  // any figure counts.
  bench::Require(LibraryCycle(expected), "the library's session cycle did not succeed");
  const size_t afterFirst = log.Lines().size();
  bench::Require(LibraryCycle(expected), "the library's session cycle did not succeed");
  const size_t libraryLines = log.Lines().size() - afterFirst;
  bench::Require(FloorCycle(expected), "the floor's cycle did not succeed");
  const size_t floorLines = log.Lines().size() - afterFirst - libraryLines;
  std::printf("log lines per cycle: library %zu, floor %zu\n", libraryLines, floorLines);
  bench::Require(libraryLines == floorLines && libraryLines > 0, "the two paths write different numbers of log lines");

  // A stale self-update lock file: 4294967295 is no process id, so the
  // snapshot is walked to its end on every cycle.
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "--growth") == 0) {
      sandbox.programData().WriteLock("4294967295");
      PrintGrowthOfPieces(std::max(1, std::atoi(argv[i + 1])), expected);
      return 0;
    }
  }

  sandbox.programData().WriteLock("4294967295");
  bench::Require(LibraryCycle(expected) && FloorCycle(expected), "a cycle failed with the stale lock file");
  bool allSucceeded = true;
  const bench::Comparison stale = bench::Compare(
      rounds, 1, [&] { allSucceeded &= LibraryCycle(expected); }, [&] { allSucceeded &= FloorCycle(expected); });
  bench::Print("bootstrap cycle (stale lock file)", stale, 1.10);

  sandbox.programData().RemoveLock();
  const bench::Comparison noLock = bench::Compare(
      rounds, 1, [&] { allSucceeded &= LibraryCycle(expected); }, [&] { allSucceeded &= FloorCycle(expected); });
  bench::Print("bootstrap cycle (no lock file)", noLock, 1.10);
  bench::Require(allSucceeded, "a timed cycle failed");
  return 0;
}

}  // namespace
}  // namespace ambrel::test

int main(int argc, char** argv) { return ambrel::test::RunBench(argc, argv); }
