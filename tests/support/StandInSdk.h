// Test fixtures around the installer SDK wrapper, for any test program that
// drives it (unit tests of the wrapper, end-to-end tests of the bootstrap):
// - the stand-in SDK DLL built by the project, in signed, unsigned, tampered
//   and missing-export copies, and its steering (results, session id) and
//   call record;
// - the SDK location value in the sandboxed registry;
// - a scratch LOCALAPPDATA with the wrapper log's folder, and the log's lines;
// - a scratch program-data folder for the installer's self-update lock file;
// - a reset of the wrapper's process-wide state between tests.
// All of them need a live RegistrySandbox where they touch the registry.
#pragma once

#include <windows.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TestSupport.h"

namespace ambrel::test {

// The copies of the stand-in, each bin/standin_sdk/<folder>/StandInSdk.dll.
// All signed ones chain to one throw-away test root made at build time.
enum class StandInKind {
  Signed,              // signed/            O=Tavrel, Inc
  Unsigned,            // unsigned/          no signature at all
  Tampered,            // tampered/          Signed with one code byte changed afterwards
  OtherPublisher,      // other_publisher/   O=Northwind Software Ltd
  OtherCase,           // other_case/        O=TAVREL, INC
  LongerOrganisation,  // longer_org/        O=Old Tavrel, Incorporated Holdings
  CommonName,          // common_name/       CN=Tavrel, Inc, O=Ambrel Signing Test
  NoInitialize,        // no_Initialize/     signed like Signed, export missing
  NoReleaseMemory,     // no_ReleaseMemory/
  NoUninitialize,      // no_Uninitialize/
  NoLockDirectory,     // no_LockDirectory/
  NoUnLockDirectory,   // no_UnLockDirectory/
  ThirtyTwoBit,        // x86/               signed like Signed, built for 32-bit Windows
};
std::wstring StandInSdkPath(StandInKind kind);
const char* StandInKindName(StandInKind kind);

// HKLM "SOFTWARE\Tavrel\HALDO\" "HALDOSDKLocation" in the sandboxed registry.
inline constexpr wchar_t kHaldoKey[] = L"SOFTWARE\\Tavrel\\HALDO";
inline constexpr wchar_t kSdkLocationName[] = L"HALDOSDKLocation";
void SetSdkLocation(const std::wstring& value, DWORD type = REG_SZ);
void SetSdkLocation(StandInKind kind);

// Steers the stand-in and reads back what it was called with. Points the two
// environment variables the stand-in reads at files in a scratch folder; both
// are restored at the end of the scope.
//
// Record lines, fields separated by '\t':
//   "Attach" / "Detach"                       the DLL was loaded / unloaded
//   "AttachRefused"                           the DLL refused to load (SetRefuseLoad)
//   "Initialize" plc release language slot result
//        slot: what the session-id slot held on entry: "null", "set" or "no-slot"
//   "ReleaseMemory" id pointer
//        pointer: "handed-out" (the memory Initialize handed out), "null",
//        "foreign" or "no-slot"
//   "Uninitialize" id result
//   "LockDirectory" id directory result,  "UnLockDirectory" id directory result
// A null string argument is recorded as "<null>".
class StandInSdk {
 public:
  StandInSdk();
  StandInSdk(const StandInSdk&) = delete;
  StandInSdk& operator=(const StandInSdk&) = delete;

  // The result the export returns from now on (default 0).
  void SetResult(const std::string& exportName, int result);
  // The session id Initialize hands out on success (default "standin-session").
  void SetSessionId(const std::string& id);
  // Makes the DLL's entry point refuse the load, so LoadLibraryW fails.
  void SetRefuseLoad(bool refuse);
  // Has Initialize and LockDirectory note the handles this process holds
  // when they are entered; HandleCounts() reads them back, in call order.
  void CountHandles();
  std::vector<std::pair<std::string, long>> HandleCounts() const;
  // Has the DLL's entry point, while the loader loads it, try to open its own
  // file for deletion (which every sharing mode but a reader-only hold
  // allows); HoldAtLoad() then reads back "opened", or the Windows error as
  // a number ("" when the DLL has not been loaded since).
  void ProbeHoldAtLoad();
  std::string HoldAtLoad() const;

  // The calls so far, in order; the loading lines only when asked for.
  std::vector<std::string> Calls(bool withLoading = false) const;
  void ClearCalls() const;

  static constexpr char kDefaultSessionId[] = "standin-session";

 private:
  void WriteConfig() const;
  ScratchDir dir_;
  EnvGuard env_;
  std::map<std::string, std::string> config_;
};

// LOCALAPPDATA pointed at a scratch folder (restored at the end), with
// Tavrel\HALDO created in it unless told otherwise.
class WrapperLogFolder {
 public:
  explicit WrapperLogFolder(bool createLogFolder = true);
  WrapperLogFolder(const WrapperLogFolder&) = delete;
  WrapperLogFolder& operator=(const WrapperLogFolder&) = delete;

  const std::wstring& localAppData() const { return dir_.path(); }
  std::wstring LogFile() const;
  bool LogExists() const;
  // The log's lines as written.
  std::vector<std::string> Lines() const;
  // The lines with each record's "[YYYY-MM-DDTHH:MM:SS] " removed; a record
  // without a timestamp of that shape is returned with "<bad timestamp> " in
  // front, so comparisons with expected messages fail.
  std::vector<std::string> Messages() const;
  void Clear() const;

 private:
  ScratchDir dir_;
  EnvGuard env_;
};

// Seventy-one '=' signs.
extern const std::string kLogSeparator;

// The log of a successful wrapper Initialize (as WrapperLogFolder::Messages()
// returns it): separator, arguments, SDK path, loaded, session id.
std::vector<std::string> SuccessfulInitializeLog(const std::string& dllPath,
                                                 const std::string& sessionId = StandInSdk::kDefaultSessionId,
                                                 const std::string& plc = "QEL", const std::string& release = "2026",
                                                 const std::string& language = "neutral");
// True when `line` begins with "[YYYY-MM-DDTHH:MM:SS] ".
bool HasTimestampShape(const std::string& line);

// The machine-wide program-data folder redirected, through the sandboxed
// registry ("User Shell Folders" "Common AppData", which Wine's known-folder
// lookup follows), to a scratch folder; the lock file is written there.
// Throws when the redirection does not take, so no test writes to the real
// program-data folder.
class ProgramDataFolder {
 public:
  ProgramDataFolder();
  ~ProgramDataFolder();
  ProgramDataFolder(const ProgramDataFolder&) = delete;
  ProgramDataFolder& operator=(const ProgramDataFolder&) = delete;

  const std::wstring& path() const { return dir_.path(); }
  // <folder>\Tavrel\HALDO\TvHALDOInstaller.run.lock
  std::wstring LockFile() const;
  // Writes the lock file with exactly these bytes (folders created).
  void WriteLock(const std::string& content) const;
  void RemoveLock() const;

 private:
  ScratchDir dir_;
};

// Unloads the SDK if the wrapper holds it and empties the wrapper's
// process-wide state, so each test starts as a fresh process would. Needs the
// library's objects linked into the test program.
void ResetWrapperState();

}  // namespace ambrel::test
