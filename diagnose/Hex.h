// Status codes as support engineers read them: "0x" and eight upper-case digits.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ambrel::diagnose {

inline std::string Hex(std::uint32_t value) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  constexpr auto kBase = static_cast<std::uint32_t>(kDigits.size());
  std::string digits(2 * sizeof value, '0');
  for (auto digit = digits.rbegin(); digit != digits.rend() && value != 0; ++digit, value /= kBase)
    *digit = kDigits[value % kBase];
  return "0x" + digits;
}

}  // namespace ambrel::diagnose
