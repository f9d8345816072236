#include "qel_session/SessionLog.h"

#include <locale>
#include <utility>

#include "common/TextConvert.h"

namespace ambrel {

QelSessionLogSink SessionLogSink = nullptr;

void LogSessionMessage(std::wstring level, std::wstring message) {
  if (SessionLogSink != nullptr) SessionLogSink(std::move(level), std::move(message));
}

std::ostringstream NewSessionMessage() {
  std::ostringstream text;
  // A host's global locale could group digits; the codes must read as plain decimal.
  text.imbue(std::locale::classic());
  return text;
}

void DeliverSessionMessage(const char* level, const std::ostringstream& text) {
  std::wstring message = Utf8ToWide(text.str());
  std::wstring levelText = Utf8ToWide(level);
  LogSessionMessage(std::move(levelText), std::move(message));
}

}  // namespace ambrel

QelSessionLogSink SetQelSessionLogSink(QelSessionLogSink sink) { return std::exchange(ambrel::SessionLogSink, sink); }
