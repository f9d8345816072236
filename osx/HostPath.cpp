#include "osx/HostPath.h"

#include <windows.h>

#include <stdlib.h>

#include <array>

#include "common/Environment.h"
#include "common/ModuleHelpers.h"

namespace ambrel {
namespace {

// Room for each of the file name and extension parts of the host's path.
constexpr size_t kNamePartChars = 256;

std::wstring ComputeHostExecutablePath() {
  std::wstring modulePath = GetModuleFilePath(nullptr);
  std::array<wchar_t, MAX_PATH> longPath{};
  if (::GetLongPathNameW(modulePath.c_str(), longPath.data(), MAX_PATH) != 0) return longPath.data();
  return modulePath;
}

}  // namespace

const std::wstring& HostExecutablePath() {
  static const std::wstring path = ComputeHostExecutablePath();
  return path;
}

const std::wstring& HostExecutableName() {
  static const std::wstring name = ExecutableNameOf(HostExecutablePath());
  return name;
}

std::wstring ExecutableNameOf(const std::wstring& path) {
  std::array<wchar_t, kNamePartChars> fileName{};
  std::array<wchar_t, kNamePartChars> extension{};
  // A part that does not fit empties both buffers.
  ::_wsplitpath_s(path.c_str(), nullptr, 0, nullptr, 0, fileName.data(), fileName.size(), extension.data(),
                  extension.size());
  return std::wstring(fileName.data()) + extension.data();
}

std::optional<std::wstring> CutFirstOccurrence(std::wstring_view pathValue, std::wstring_view text) {
  const size_t start = pathValue.find(text);
  if (start == std::wstring_view::npos) return std::nullopt;
  const size_t separator = pathValue.find(L';', start);
  const size_t end = separator == std::wstring_view::npos ? pathValue.size() : separator + 1;
  std::wstring result(pathValue.substr(0, start));
  result.append(pathValue.substr(end));
  return result;
}

bool RemoveFromPathVariable(std::wstring_view text) {
  const std::optional<std::wstring> path = ReadEnvironmentVariable(L"PATH");
  if (!path) return false;
  const std::optional<std::wstring> edited = CutFirstOccurrence(*path, text);
  if (!edited) return false;
  return WriteEnvironmentVariable(L"PATH", edited->c_str());
}

}  // namespace ambrel
