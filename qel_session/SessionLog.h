// The session's messages: composed in full whether or not anyone listens,
// then handed to the process-wide sink, which is null unless the host installs
// one (SetQelSessionLogSink).
#pragma once

#include <sstream>
#include <string>

#include "Ambrel.h"

namespace ambrel {

// Read without synchronisation on every delivery.
extern QelSessionLogSink SessionLogSink;

// Calls the sink with copies of level and message, in that order, when one is installed.
void LogSessionMessage(std::wstring level, std::wstring message);

// Converts the composed narrow text and the level ("INFO", "WARN", "ERROR",
// "FATAL") from UTF-8 to UTF-16 and delivers them. Callers compose `text`
// inline: literals and codes with <<, paths as their UTF-8 bytes, error texts
// from std::error_code::message().
void DeliverSessionMessage(const char* level, const std::ostringstream& text);

// A narrow stream for one message; plain decimal numbers whatever the global locale.
std::ostringstream NewSessionMessage();

}  // namespace ambrel
