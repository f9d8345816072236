#include "qel_loader/Bootstrap.h"

#include "Ambrel.h"
#include "qel_loader/Environment.h"
#include "qel_loader/FileSystemStatus.h"
#include "qel_loader/InstallQueries.h"
#include "qel_loader/PathList.h"
#include "qel_session/QelSession.h"

namespace ambrel {
namespace {

// Steps run while the installer holds the lock: locate, check, put on PATH,
// record, mark. PATH changes only in a run that goes on to record the folder.
bool PrepareProcess(QelSession& session) {
  std::wstring directory;
  if (session.LockInstallLocation(directory) != QelStatus::Success) return false;
  if (directory.empty() || !IsExistingDirectory(directory)) return false;

  const std::optional<std::wstring> path = ReadEnvironmentVariable(L"PATH");
  if (!path) return false;
  if (!PathListContains(*path, directory) &&
      !WriteEnvironmentVariable(L"PATH", PrependToPathList(directory, *path).c_str())) {
    return false;
  }
  SharedDllPath() = directory;
  WriteEnvironmentVariable(kBypassMarker, L"1");  // a lost marker only costs children a session
  return true;
}

}  // namespace

std::wstring PrependToPathList(const std::wstring& directory, const std::wstring& oldPath) {
  std::wstring value;
  value.reserve(directory.size() + 1 + oldPath.size());
  value.append(directory).append(1, L';').append(oldPath);
  return value;
}

bool InitializeQelForEdition() {
  if (IsLiteEdition()) return true;
  return InitializeQel();
}

}  // namespace ambrel

bool InitializeQel() {
  using namespace ambrel;
  if (QelLoadHelper::IsDevelopment()) {
    WriteEnvironmentVariable(kBypassMarker, L"1");
    return true;
  }
  if (!SharedDllPath().empty()) return true;

  QelSession session;
  const QelStatus started = session.Initialize(QelRelease);
  if (started == QelStatus::InitializeBypassed) return true;
  if (started != QelStatus::Success) return false;
  // An unexpected file-system error leaves from here with the session
  // destroyed but not uninitialised.
  const bool prepared = PrepareProcess(session);
  session.Uninitialize();
  return prepared;
}
