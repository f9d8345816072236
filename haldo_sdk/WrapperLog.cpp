#include "haldo_sdk/WrapperLog.h"

#include <windows.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "haldo_sdk/QelHaldoSdkWrapperState.h"
#include "common/Environment.h"
#include "common/TextConvert.h"

namespace ambrel {
namespace {

// The highest character the log's one-byte conversion can write.
constexpr unsigned kLastOneByteCharacter = 0xFF;
// Room for the timestamp; strftime reports 0 rather than overflow.
constexpr size_t kTimestampBytes = 512;

constexpr const wchar_t* kLogFileTail = L"\\Tavrel\\HALDO\\HALDO_APIWrapper.log";

// The stream's classic conversion writes one byte per character and fails on
// characters above U+00FF, which would drop the rest of the line and its line
// break. Such characters become '?', so every line stays whole.
std::wstring OneBytePerCharacter(std::wstring_view text) {
  std::wstring out(text);
  for (wchar_t& c : out) {
    if (static_cast<unsigned>(c) > kLastOneByteCharacter) c = L'?';
  }
  return out;
}

// Append, text mode, shared with other processes. A failed open leaves the
// stream failed and every write a no-op, which is what silent logging wants.
// The line is made whole before the file is opened: memory running out while
// it is made leaves the file as it was, never a line without its end.
void AppendToLog(const std::wstring& path, std::wstring_view first, std::wstring_view second = {},
                 std::wstring_view third = {}, std::wstring_view fourth = {}) {
  std::wstring line;
  line.reserve(first.size() + second.size() + third.size() + fourth.size());
  line.append(first).append(second).append(third).append(fourth);
  line = OneBytePerCharacter(line);
  std::wofstream file(std::filesystem::path(path), std::ios::out | std::ios::app);
  file << line << std::endl;
}

}  // namespace

std::wstring FormatLogTimestamp(__time64_t time) {
  std::tm local{};
  if (_localtime64_s(&local, &time) != 0) return {};
  std::array<char, kTimestampBytes> text{};
  const size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &local);
  return WidenBytes(std::string_view(text.data(), length));
}

void OpenWrapperLog() {
  // An expansion that does not fit would name some other folder: no path at all.
  const PathExpansion localAppData = ExpandEnvironmentPath(L"%LOCALAPPDATA%");
  if (!localAppData.fits()) return;
  QelHaldoSdkWrapperState& state = WrapperState();
  state.logPath = localAppData.text + kLogFileTail;
  AppendToLog(state.logPath, kWrapperLogSeparator);
}

void WriteWrapperLogLine(std::wstring_view message) {
  const QelHaldoSdkWrapperState& state = WrapperState();
  if (state.logPath.empty()) OpenWrapperLog();
  const std::wstring timestamp = FormatLogTimestamp(_time64(nullptr));
  // Still no path: the variable cannot be expanded, so the line is lost.
  if (state.logPath.empty()) return;
  AppendToLog(state.logPath, L"[", timestamp, L"] ", message);
}

void LogWrapperInfo(std::string_view message) {
  WriteWrapperLogLine(L"[INFO] HALDOAPIWrapperImpl::" + WidenBytes(message));
}

void LogWrapperError(std::string_view message) {
  WriteWrapperLogLine(L"[ERROR] HALDOAPIWrapperImpl::" + WidenBytes(message));
}

}  // namespace ambrel
