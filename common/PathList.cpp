#include "common/PathList.h"

#include <cwctype>
#include <optional>

#include "common/Environment.h"

namespace ambrel {
namespace {

bool EqualsIgnoringCase(std::wstring_view a, std::wstring_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::towlower(a[i]) != std::towlower(b[i])) return false;
  }
  return true;
}

}  // namespace

bool PathListContains(std::wstring_view list, std::wstring_view entry) {
  size_t start = 0;
  for (;;) {
    const size_t end = list.find(L';', start);
    const std::wstring_view element = list.substr(start, end == std::wstring_view::npos ? end : end - start);
    if (EqualsIgnoringCase(element, entry)) return true;
    if (end == std::wstring_view::npos) return false;
    start = end + 1;
  }
}

std::wstring PrependToPathList(const std::wstring& directory, const std::wstring& oldPath) {
  std::wstring value;
  value.reserve(directory.size() + 1 + oldPath.size());
  value.append(directory).append(1, L';').append(oldPath);
  return value;
}

bool PutInFrontOfPath(const std::wstring& directory, const std::wstring& path) {
  if (PathListContains(path, directory)) return true;
  return WriteEnvironmentVariable(L"PATH", PrependToPathList(directory, path).c_str());
}

bool PrependToPathVariable(const std::wstring& directory) {
  if (directory.empty()) return false;
  const std::optional<std::wstring> path = ReadEnvironmentVariable(L"PATH");
  if (!path) return false;
  return PutInFrontOfPath(directory, *path);
}

}  // namespace ambrel
