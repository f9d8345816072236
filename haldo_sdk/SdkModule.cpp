#include "haldo_sdk/SdkModule.h"

#include <shlobj.h>
#include <tlhelp32.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <system_error>

#include "haldo_sdk/QelHaldoSdkWrapperState.h"
#include "haldo_sdk/SignatureCheck.h"
#include "haldo_sdk/WrapperLog.h"
#include "haldo_sdk/WrapperStatus.h"
#include "common/Environment.h"
#include "common/FileSystemStatus.h"
#include "common/WinResource.h"

namespace ambrel {
namespace {

constexpr std::size_t kRegistryBufferBytes = 2048;
constexpr DWORD kRegistryQueryStep = 256;

// Puts a NUL after what the query returned. Every buffer has room for it: the
// first is far larger than the first query, each enlargement one unit larger
// than the byte count it offers.
void TerminateAfter(wchar_t* buffer, DWORD returnedBytes) { buffer[returnedBytes / sizeof(wchar_t)] = L'\0'; }

// The registry buffer goes back through the allocator it came from.
struct RegistryBufferTraits {
  using Type = void*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type memory) noexcept { SdkLocationBufferAllocator().release(memory); }
};
using RegistryBuffer = UniqueResource<RegistryBufferTraits>;

std::string ReadWholeFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::in);
  if (!file) return {};
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

bool IsRunningProcessId(const std::string& text) {
  const UniqueFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  if (!snapshot) return false;
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more; more = ::Process32NextW(snapshot.get(), &entry)) {
    if (std::to_string(entry.th32ProcessID) == text) return true;
  }
  return false;
}

// ReadStringFromRegistry's log line for each failure; a failed enlargement
// has none of its own (the caller's line says the read failed).
void LogLocationReadFailure(SdkLocationRead read) {
  switch (read) {
    case SdkLocationRead::NoBuffer:
      LogWrapperError("ReadStringFromRegistry: Failed to allocate memory for buffer to read registry!");
      break;
    case SdkLocationRead::KeyNotOpened:
      LogWrapperError("ReadStringFromRegistry: RegOpenKeyEx failed!");
      break;
    case SdkLocationRead::ValueNotRead:
      LogWrapperError("ReadStringFromRegistry: RegQueryValueEx failed!");
      break;
    case SdkLocationRead::BufferNotEnlarged:
    case SdkLocationRead::Read:
      break;
  }
}

}  // namespace

RegistryBufferAllocator& SdkLocationBufferAllocator() {
  // The buffer grows with realloc, which only malloc's memory allows; the
  // RegistryBuffer that takes it frees it on every path.
  // NOLINTBEGIN(cppcoreguidelines-no-malloc)
  static RegistryBufferAllocator allocator{[](std::size_t size) { return std::malloc(size); },
                                           [](void* memory, std::size_t size) { return std::realloc(memory, size); },
                                           [](void* memory) { std::free(memory); }};
  // NOLINTEND(cppcoreguidelines-no-malloc)
  return allocator;
}

ModuleUnloadFunction& SdkModuleUnloader() {
  static ModuleUnloadFunction unload = &::FreeLibrary;
  return unload;
}

SdkLocationRead ReadSdkLocationValue(wchar_t** value, std::vector<DWORD>* offeredSizes) {
  *value = nullptr;
  const RegistryBufferAllocator& allocator = SdkLocationBufferAllocator();
  RegistryBuffer buffer(allocator.allocate(kRegistryBufferBytes));
  if (!buffer) return SdkLocationRead::NoBuffer;

  UniqueRegKey key;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kHaldoKeyPath, 0, KEY_READ, key.put()) != ERROR_SUCCESS) {
    return SdkLocationRead::KeyNotOpened;
  }

  DWORD offered = kRegistryQueryStep;
  DWORD size = offered;
  auto query = [&] {
    if (offeredSizes) offeredSizes->push_back(size);
    return ::RegQueryValueExW(key.get(), kSdkLocationValue, nullptr, nullptr, static_cast<BYTE*>(buffer.get()),
                              &size);
  };
  LSTATUS status = query();
  while (status == ERROR_MORE_DATA) {
    offered += kRegistryQueryStep;
    void* larger = allocator.reallocate(buffer.get(), offered + sizeof(wchar_t));
    if (!larger) return SdkLocationRead::BufferNotEnlarged;  // the owners free the old buffer and close the key
    (void)buffer.release();                                 // realloc has taken over the old block
    buffer.reset(larger);
    size = offered;
    status = query();
  }
  if (status != ERROR_SUCCESS) return SdkLocationRead::ValueNotRead;

  TerminateAfter(static_cast<wchar_t*>(buffer.get()), size);
  *value = static_cast<wchar_t*>(buffer.release());  // the caller frees it
  return SdkLocationRead::Read;
}

bool ReadStringFromRegistry(wchar_t** value, std::vector<DWORD>* offeredSizes) {
  const SdkLocationRead read = ReadSdkLocationValue(value, offeredSizes);
  LogLocationReadFailure(read);
  return read == SdkLocationRead::Read;
}

SdkPathLookup LookUpSdkPath() {
  SdkPathLookup lookup;
  wchar_t* raw = nullptr;
  lookup.read = ReadSdkLocationValue(&raw);
  if (lookup.read != SdkLocationRead::Read || !raw) {
    lookup.outcome = SdkPathLookup::Outcome::RegistryUnreadable;
    return lookup;
  }
  const RegistryBuffer owner(raw);
  lookup.value = raw;
  if (lookup.value.empty()) {
    lookup.outcome = SdkPathLookup::Outcome::Empty;
    return lookup;
  }

  const PathExpansion expanded = ExpandEnvironmentPath(lookup.value.c_str());
  if (expanded.needed == 0) {
    lookup.outcome = SdkPathLookup::Outcome::ExpansionFailed;
    return lookup;
  }
  lookup.expanded = expanded.text;
  // An expansion that did not fit names no usable file; and only the lock-file
  // test may raise, so an unexpected error here also counts as "missing".
  std::error_code ec;
  lookup.outcome = expanded.fits() && PathExists(expanded.text, ec) ? SdkPathLookup::Outcome::Found
                                                                    : SdkPathLookup::Outcome::Missing;
  return lookup;
}

void GetDllPath() {
  const SdkPathLookup lookup = LookUpSdkPath();
  switch (lookup.outcome) {
    case SdkPathLookup::Outcome::RegistryUnreadable:
      LogLocationReadFailure(lookup.read);  // ReadStringFromRegistry's own line first, as it has always come
      LogWrapperError("GetDllPath: Failed to read registry!");
      return;
    case SdkPathLookup::Outcome::Empty:
      return;
    case SdkPathLookup::Outcome::ExpansionFailed:
      LogWrapperError("GetDllPath: Failed to expand dll path!");
      return;
    case SdkPathLookup::Outcome::Missing:
      LogWrapperError("GetDllPath: expanded Dll Path does not exist!");
      return;
    case SdkPathLookup::Outcome::Found:
      WrapperState().dllPath = lookup.expanded;
      return;
  }
}

std::filesystem::path SelfUpdateLockFilePath() {
  std::filesystem::path folder;
  PWSTR known = nullptr;
  const HRESULT result =
      ::SHGetKnownFolderPath(FOLDERID_ProgramData, KF_FLAG_DONT_VERIFY | KF_FLAG_NO_ALIAS, nullptr, &known);
  const UniqueCoTaskMem knownOwner(known);
  if (SUCCEEDED(result) && known) {
    folder = std::filesystem::path(known) / L"Tavrel\\HALDO";
  } else {
    folder = std::filesystem::temp_directory_path();
  }
  return folder / kSelfUpdateLockFileName;
}

SelfUpdateLock InspectSelfUpdateLock() {
  SelfUpdateLock lock;
  lock.file = SelfUpdateLockFilePath();
  lock.present = PathExists(lock.file.native());
  if (!lock.present) return lock;
  lock.content = ReadWholeFile(lock.file);
  lock.running = IsRunningProcessId(lock.content);
  return lock;
}

bool IsSelfUpdateRunning() { return InspectSelfUpdateLock().running; }

UniqueFileHandle HoldAgainstChanges(const std::wstring& path) {
  return UniqueFileHandle(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool LoadSdk(int& code) {
  code = kWrapperSdkNotLoaded;
  QelHaldoSdkWrapperState& state = WrapperState();
  if (state.module) return true;

  if (IsSelfUpdateRunning()) {
    WriteWrapperLogLine(L"[INFO] Load: Self-update is running");
    code = kWrapperSelfUpdateRunning;
    return false;
  }

  if (state.dllPath.empty()) GetDllPath();
  if (state.dllPath.empty()) {
    WriteWrapperLogLine(L"[ERROR] Load: dll path empty!");
    return false;
  }
  WriteWrapperLogLine(L"[INFO] Load: HALDO SDK path = " + state.dllPath);

  // Nobody may write, rename or delete the file between its check and its
  // load, or a file other than the checked one could load. The check and the
  // loader only read, so they share it with this reader. Without the hold
  // (a folder, no access, a writer already there) everything goes on as
  // before: the check and the load decide.
  UniqueFileHandle hold = HoldAgainstChanges(state.dllPath);

  if (!VerifyCertificate(state.dllPath)) {
    code = kWrapperSignatureRejected;
    WriteWrapperLogLine(L"[ERROR] IsSignatureValid: Signature invalid at path = " + state.dllPath);
    return false;
  }

  state.module.reset(::LoadLibraryW(state.dllPath.c_str()));
  hold.reset();
  if (!state.module) WriteWrapperLogLine(L"[ERROR] Load: LoadLibraryW failed to load " + state.dllPath);
  return state.module.valid();
}

}  // namespace ambrel
