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
  // A stream keeps an exception raised inside a write to itself (running out
  // of memory) and only marks itself bad; the message would then go out cut
  // short. Rethrown instead, as every other allocation of the session is.
  text.exceptions(std::ios::badbit);
  return text;
}

void DeliverSessionMessage(const char* level, const std::ostringstream& text) {
  std::wstring message = Utf8ToWide(text.str());
  std::wstring levelText = Utf8ToWide(level);
  LogSessionMessage(std::move(levelText), std::move(message));
}

}  // namespace ambrel

QelSessionLogSink SetQelSessionLogSink(QelSessionLogSink sink) { return std::exchange(ambrel::SessionLogSink, sink); }
