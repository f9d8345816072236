#include "haldo_sdk/SelfUpdateLock.h"

#include <windows.h>
#include <shlobj.h>
#include <tlhelp32.h>

#include <fstream>
#include <iterator>

#include "common/FileSystemStatus.h"
#include "common/WinResource.h"

namespace ambrel {
namespace {

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

}  // namespace

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

}  // namespace ambrel
