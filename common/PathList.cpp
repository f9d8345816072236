#include "common/PathList.h"

#include <cwctype>

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

}  // namespace ambrel
