#include "qel_loader/Bootstrap.h"

#include "Ambrel.h"
#include "qel_session/QelSession.h"

namespace ambrel {

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
