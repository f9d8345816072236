// The bootstrap entry's internal parts: the edition-aware entry for the folder
// utilities, and the steps of a full run over a session object.
#pragma once

#include <filesystem>
#include <string>
#include <utility>

#include "common/Environment.h"
#include "common/PathList.h"
#include "qel_loader/InstallQueries.h"
#include "qel_session/BypassMarker.h"
#include "qel_session/QelStatus.h"

namespace ambrel {

// Whether the process can be prepared for a located folder: what the
// bootstrap looks at before it touches PATH. Logs nothing.
struct ProcessPreparation {
  bool existingDirectory = false;  // the folder is non-empty and an existing directory
  bool pathSet = false;            // PATH is in the environment (read only for an existing directory)
  std::wstring path;               // its value
  bool pathHoldsFolder = false;    // PathListContains finds the folder in PATH: it is left as it is
  bool possible() const noexcept { return existingDirectory && pathSet; }
};
// Throws std::filesystem::filesystem_error ("status") on an unexpected error
// of the folder test.
ProcessPreparation InspectProcessPreparation(const std::wstring& directory);

// True for a KLXLITE installation without doing anything; else InitializeQel().
bool InitializeQelForEdition();

// Locate, check, put on PATH, record, mark, while the installer holds the
// lock. PATH changes only in a run that goes on to record the folder. Throws
// std::filesystem::filesystem_error ("status") on an unexpected error of the
// folder test.
template <typename Session>
bool PrepareProcess(Session& session) {
  std::wstring directory;
  if (session.LockInstallLocation(directory) != QelStatus::Success) return false;
  const ProcessPreparation preparation = InspectProcessPreparation(directory);
  if (!preparation.possible()) return false;

  // The record is made before PATH is written and moved in after it, so
  // running out of memory cannot leave PATH changed with nothing recorded.
  std::wstring record = directory;
  if (!PutInFrontOfPath(directory, preparation.path)) return false;
  SharedDllPath() = std::move(record);
  WriteEnvironmentVariable(kBypassMarker, L"1");  // a lost marker only costs children a session
  return true;
}

// Runs `step` inside a started session. Any exception but a filesystem_error
// ends the session before it goes on to the caller, so running out of memory
// midway does not leave the installer's lock held. The folder test's
// filesystem_error keeps the bootstrap's contract: the session is destroyed
// without Uninitialize.
template <typename Session, typename Step>
auto RunInsideSession(Session& session, Step step) -> decltype(step()) {
  try {
    return step();
  } catch (const std::filesystem::filesystem_error&) {
    throw;
  } catch (...) {
    // The exception in flight is the one the caller needs; one raised while
    // ending the session (say a second bad_alloc) is dropped.
    try {
      session.Uninitialize();
    } catch (...) {
    }
    throw;
  }
}

// A full run over a fresh session: start it, prepare the process, end it.
// Bypassed counts as success. A session that did not start is not
// uninitialised. Generic so tests can script a session.
template <typename Session>
bool RunBootstrapSession(Session& session) {
  const QelStatus started = session.Initialize(QelRelease);
  if (started == QelStatus::InitializeBypassed) return true;
  if (started != QelStatus::Success) return false;
  const bool prepared = RunInsideSession(session, [&] { return PrepareProcess(session); });
  session.Uninitialize();
  return prepared;
}

}  // namespace ambrel
