#include "common/Environment.h"

#include <errno.h>
#include <stdlib.h>

#include <array>

namespace ambrel {

std::optional<std::wstring> ReadEnvironmentVariable(const wchar_t* name) {
  // The value may change between the size query and the read; retry until the
  // buffer is large enough.
  for (;;) {
    size_t required = 0;
    // The size query answers 0 on Windows but ERANGE with Wine's runtime; both
    // report the size, and 0 means "not set".
    const errno_t query = _wgetenv_s(&required, nullptr, 0, name);
    if ((query != 0 && query != ERANGE) || required == 0) return std::nullopt;
    std::wstring value(required, L'\0');
    size_t got = 0;
    const errno_t rc = _wgetenv_s(&got, value.data(), value.size(), name);
    if (rc == ERANGE) continue;
    if (rc != 0 || got == 0) return std::nullopt;
    value.resize(got - 1);
    return value;
  }
}

bool WriteEnvironmentVariable(const wchar_t* name, const wchar_t* value) { return _wputenv_s(name, value) == 0; }

PathExpansion ExpandEnvironmentPath(const wchar_t* text) {
  // One unit more than the limit passed, so the buffer stays terminated
  // whatever a failed expansion leaves in it.
  std::array<wchar_t, MAX_PATH + 1> expanded{};
  PathExpansion result;
  result.needed = ::ExpandEnvironmentStringsW(text, expanded.data(), MAX_PATH);
  if (result.fits()) result.text = expanded.data();
  return result;
}

}  // namespace ambrel
