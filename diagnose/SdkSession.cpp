#include "diagnose/SdkSession.h"

#include <memory>
#include <utility>

#include "Ambrel.h"
#include "common/TextConvert.h"
#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"
#include "qel_loader/InstallQueries.h"
#include "qel_session/QelSession.h"

namespace ambrel::diagnose {
namespace {

std::vector<std::string>* g_lines = nullptr;  // the run's output; the sink has no context argument

void Line(const std::string& text) { g_lines->push_back(text); }

// Takes its text by value because QelSessionLogSink, the library's exported
// sink type, does.
void SessionSink(std::wstring level, std::wstring message) {  // NOLINT(performance-unnecessary-value-param)
  Line("session  [" + WideToUtf8(level) + "] " + WideToUtf8(message));
}

// The library's wrapper, with each SDK call's status written out.
class ReportingWrapper : public QelHaldoSdkWrapperInterface {
 public:
  int Initialize(const std::string& plc, const std::string& release, const std::string& language) override {
    return Report("Initialize(" + plc + ", " + release + ", " + language + ")",
                  inner_.Initialize(plc, release, language));
  }
  bool IsInitialized() override { return inner_.IsInitialized(); }
  int LockDirectory(const std::string& directory) override {
    return Report("LockDirectory(" + directory + ")", inner_.LockDirectory(directory));
  }
  int UnLockDirectory(const std::string& directory) override {
    return Report("UnLockDirectory(" + directory + ")", inner_.UnLockDirectory(directory));
  }
  int Uninitialize() override { return Report("Uninitialize()", inner_.Uninitialize()); }
  QelHaldoSdkWrapperInterface* CreateInstance() override { return inner_.CreateInstance(); }

 private:
  static int Report(const std::string& call, int status) {
    Line("sdk      " + call + " -> " + std::to_string(status));
    return status;
  }
  QelHaldoSdkWrapperImpl inner_;
};

}  // namespace

std::vector<std::string> RunSdkSession() {
  std::vector<std::string> lines;
  g_lines = &lines;
  const QelSessionLogSink previous = SetQelSessionLogSink(&SessionSink);
  {
    QelSession session(std::make_unique<ReportingWrapper>());
    const QelStatus started = session.Initialize(QelRelease);
    Line("session  Initialize -> " + std::to_string(started));
    if (started == QelStatus::Success) {
      std::wstring location;
      const QelStatus locked = session.LockInstallLocation(location);
      Line("session  LockInstallLocation -> " + std::to_string(locked) + ", location \"" + WideToUtf8(location) + "\"");
      Line("session  Uninitialize -> " + std::to_string(session.Uninitialize()));
    }
  }
  SetQelSessionLogSink(previous);
  g_lines = nullptr;
  return lines;
}

}  // namespace ambrel::diagnose
