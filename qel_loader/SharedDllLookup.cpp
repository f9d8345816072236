#include "qel_loader/SharedDllLookup.h"

#include "Ambrel.h"
#include "common/FileSystemStatus.h"
#include "common/PlainExport.h"
#include "qel_loader/Bootstrap.h"
#include "qel_loader/InstallQueries.h"
#include "qel_session/QelSession.h"

namespace ambrel {

std::wstring FindSharedDllPath() {
  if (QelLoadHelper::IsDevelopment()) return {};
  QelSession session;
  if (session.Initialize(QelRelease) != QelStatus::Success) return {};
  std::wstring directory;
  const QelStatus located = RunInsideSession(session, [&] { return session.LockInstallLocation(directory); });
  // Nothing here uses the folder while the session runs, so the lock goes at once.
  session.Uninitialize();
  if (located != QelStatus::Success || directory.empty() || !IsExistingDirectory(directory)) return {};
  return directory;
}

}  // namespace ambrel

AMBREL_PLAIN_EXPORT(GetSharedDllPath, "?GetSharedDllPath@@YAPEB_WXZ", "_Z16GetSharedDllPathv");

const wchar_t* GetSharedDllPath() {
  // Computed once per library; an exception leaves it unset, so the next call retries.
  static const std::wstring directory = ambrel::FindSharedDllPath();
  return directory.c_str();
}
