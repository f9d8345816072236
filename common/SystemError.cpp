#include "common/SystemError.h"

#include "common/TextConvert.h"
#include "common/WinResource.h"

namespace ambrel {

std::string WindowsErrorText(DWORD code) {
  wchar_t* text = nullptr;
  const DWORD length =
      ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, code, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  // Owned before the copy below, which may throw.
  const UniqueLocalMemory buffer(text);
  std::wstring message(text ? text : L"", text ? length : 0);
  while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L' '))
    message.pop_back();
  return WideToUtf8(message);
}

#if defined(_MSC_VER)
// MSVC's system category already speaks Windows error codes and texts.
const std::error_category& WindowsErrorCategory() noexcept { return std::system_category(); }
#else
namespace {

// libstdc++ does not promise FormatMessage texts for its system category, so
// this category supplies them; it compares equal to system_category codes of
// the same value.
class WindowsCategory final : public std::error_category {
 public:
  const char* name() const noexcept override { return "system"; }
  std::string message(int code) const override { return WindowsErrorText(static_cast<DWORD>(code)); }
  std::error_condition default_error_condition(int code) const noexcept override {
    return std::system_category().default_error_condition(code);
  }
  bool equivalent(const std::error_code& code, int value) const noexcept override {
    return (code.category() == *this || code.category() == std::system_category()) && code.value() == value;
  }
};

}  // namespace

const std::error_category& WindowsErrorCategory() noexcept {
  static const WindowsCategory category;
  return category;
}
#endif

}  // namespace ambrel
