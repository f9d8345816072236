// Codes as support engineers read them: "0x" and upper-case digits, eight
// for a status code unless told otherwise (four for a PE machine).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ambrel::diagnose {

inline std::string Hex(std::uint32_t value, std::size_t width = 2 * sizeof(std::uint32_t)) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  constexpr auto kBase = static_cast<std::uint32_t>(kDigits.size());
  std::string digits(width, '0');
  for (auto digit = digits.rbegin(); digit != digits.rend() && value != 0; ++digit, value /= kBase)
    *digit = kDigits[value % kBase];
  return "0x" + digits;
}

}  // namespace ambrel::diagnose
