// PathListContains against a plain reference model on generated lists.
#include <gtest/gtest.h>

#include <algorithm>
#include <cwctype>
#include <random>
#include <string>
#include <vector>

#include "common/PathList.h"
#include "tests/support/RandomText.h"

namespace ambrel {
namespace {

// The model: cut the list into its elements first, then compare each one.
std::vector<std::wstring> SplitKeepingEmpty(const std::wstring& list) {
  std::vector<std::wstring> elements(1);
  for (wchar_t c : list) {
    if (c == L';') {
      elements.emplace_back();
    } else {
      elements.back() += c;
    }
  }
  return elements;
}

std::wstring Lowered(std::wstring text) {
  for (auto& c : text) c = static_cast<wchar_t>(std::towlower(c));
  return text;
}

bool ModelContains(const std::wstring& list, const std::wstring& entry) {
  for (const auto& element : SplitKeepingEmpty(list))
    if (Lowered(element) == Lowered(entry)) return true;
  return false;
}

// Few distinct characters, so that matches, near misses, doubled and
// trailing separators all turn up often.
std::wstring RandomText(std::mt19937& random, size_t maxLength) {
  return test::RandomText(random, L"aAbB\\;; .%", maxLength);
}

TEST(PathListContainsProperty, AgreesWithTheModelOnGeneratedInputs) {
  std::mt19937 random(20261123);
  int matches = 0;
  for (int i = 0; i < 20000; ++i) {
    const std::wstring list = RandomText(random, 12);
    std::wstring entry = RandomText(random, 3);
    entry.erase(std::remove(entry.begin(), entry.end(), L';'), entry.end());
    // Every third case looks for an element that is really there, in other case.
    if (i % 3 == 0) {
      const auto elements = SplitKeepingEmpty(list);
      entry = elements[static_cast<size_t>(i) % elements.size()];
      for (auto& c : entry) c = static_cast<wchar_t>(std::towupper(c));
    }
    const bool expected = ModelContains(list, entry);
    matches += expected ? 1 : 0;
    ASSERT_EQ(PathListContains(list, entry), expected)
        << "list=" << testing::PrintToString(list) << " entry=" << testing::PrintToString(entry);
  }
  // The generator must exercise both answers, or the comparison proves little.
  EXPECT_GT(matches, 5000);
  EXPECT_LT(matches, 19000);
}

}  // namespace
}  // namespace ambrel
