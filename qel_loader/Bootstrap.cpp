#include "qel_loader/Bootstrap.h"

#include "Ambrel.h"
#include "qel_session/QelSession.h"

namespace ambrel {

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
  return RunBootstrapSession(session);
}
