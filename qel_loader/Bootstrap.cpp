#include "qel_loader/Bootstrap.h"

#include <optional>

#include "Ambrel.h"
#include "common/FileSystemStatus.h"
#include "common/PlainExport.h"
#include "qel_session/QelSession.h"

namespace ambrel {

ProcessPreparation InspectProcessPreparation(const std::wstring& directory) {
  ProcessPreparation preparation;
  preparation.existingDirectory = !directory.empty() && IsExistingDirectory(directory);
  if (!preparation.existingDirectory) return preparation;
  const std::optional<std::wstring> path = ReadEnvironmentVariable(L"PATH");
  if (!path) return preparation;
  preparation.pathSet = true;
  preparation.path = *path;
  preparation.pathHoldsFolder = PathListContains(preparation.path, directory);
  return preparation;
}

bool InitializeQelForEdition() {
  if (IsLiteEdition()) return true;
  return InitializeQel();
}

}  // namespace ambrel

AMBREL_PLAIN_EXPORT(InitializeQel, "?InitializeQel@@YA_NXZ", "_Z13InitializeQelv");

bool InitializeQel() {
  using namespace ambrel;
  if (QelLoadHelper::IsDevelopment()) {
    WriteEnvironmentVariable(kBypassMarker, L"1");
    return true;
  }
  if (!SharedDllPath().empty()) return true;

  QelSession session;
  return RunBootstrapSession(session);
}
