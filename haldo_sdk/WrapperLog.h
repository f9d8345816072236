// The wrapper's append-only text log under %LOCALAPPDATA%\Tavrel\HALDO. Every
// line is a complete open, write, flush and close; no file failure is ever
// reported, so logging never changes a result.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace ambrel {

// Seventy-one equals signs: the first line of every initialisation attempt.
inline constexpr std::wstring_view kWrapperLogSeparator =
    L"=======================================================================";

// Local time as "%Y-%m-%dT%H:%M:%S"; empty when the time cannot be converted.
std::wstring FormatLogTimestamp(__time64_t time);

// Recomputes the log path from %LOCALAPPDATA% and writes a separator line.
void OpenWrapperLog();

// Writes "[<local time>] " + message; opens the log first when no path is known.
void WriteWrapperLogLine(std::wstring_view message);

// Narrow messages, widened byte by byte, behind "[INFO] HALDOAPIWrapperImpl::"
// or "[ERROR] HALDOAPIWrapperImpl::".
void LogWrapperInfo(std::string_view message);
void LogWrapperError(std::string_view message);

}  // namespace ambrel
