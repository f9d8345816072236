// Generated text for the property tests: short strings drawn from a small
// alphabet, so that matches, near misses and separators turn up often.
#pragma once

#include <random>
#include <string>
#include <string_view>

namespace ambrel::test {

// Up to `maxLength` characters, each drawn from `alphabet`.
inline std::wstring RandomText(std::mt19937& random, std::wstring_view alphabet, size_t maxLength) {
  std::uniform_int_distribution<size_t> length(0, maxLength);
  std::uniform_int_distribution<size_t> pick(0, alphabet.size() - 1);
  std::wstring text(length(random), L' ');
  for (auto& c : text) c = alphabet[pick(random)];
  return text;
}

}  // namespace ambrel::test
