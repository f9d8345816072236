// The PATH edit against a plain reference model on generated inputs: first
// as a pure function, then through the process PATH itself.
#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>

#include "osx/HostPath.h"
#include "tests/support/RandomText.h"
#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

// The model: look for the text at every position in turn; from the first
// match, walk to the first ';' (the match's own first character included) and
// cut through it, or to the end.
std::optional<std::wstring> ModelCut(const std::wstring& path, const std::wstring& text) {
  if (text.size() > path.size()) return std::nullopt;
  for (size_t i = 0; i + text.size() <= path.size(); ++i) {
    if (path.compare(i, text.size(), text) != 0) continue;
    size_t j = i;
    while (j < path.size() && path[j] != L';') ++j;
    if (j < path.size()) ++j;
    return path.substr(0, i) + path.substr(j);
  }
  return std::nullopt;
}

// Few distinct characters, both letter cases and doubled separators, so that
// matches, near misses and cuts at every kind of boundary turn up often.
std::wstring RandomText(std::mt19937& random, size_t maxLength) {
  return test::RandomText(random, L"aAbB\\;; %", maxLength);
}

// Every other case cuts a piece that is really in the path.
std::wstring PickText(std::mt19937& random, const std::wstring& path, int i) {
  if (i % 2 == 0 && !path.empty()) {
    std::uniform_int_distribution<size_t> from(0, path.size() - 1);
    const size_t start = from(random);
    std::uniform_int_distribution<size_t> length(0, std::min<size_t>(4, path.size() - start));
    return path.substr(start, length(random));
  }
  return RandomText(random, 3);
}

TEST(PathEditProperty, CutAgreesWithTheModelOnGeneratedInputs) {
  std::mt19937 random(20261123);
  int found = 0;
  for (int i = 0; i < 20000; ++i) {
    const std::wstring path = RandomText(random, 14);
    const std::wstring text = PickText(random, path, i);
    const std::optional<std::wstring> expected = ModelCut(path, text);
    found += expected ? 1 : 0;
    ASSERT_EQ(CutFirstOccurrence(path, text), expected)
        << "path=" << testing::PrintToString(path) << " text=" << testing::PrintToString(text);
  }
  // Both answers must be common, or the comparison proves little.
  EXPECT_GT(found, 8000);
  EXPECT_LT(found, 19000);
}

TEST(PathEditProperty, ProcessPathAgreesWithTheModel) {
  test::EnvGuard env{L"PATH"};
  std::mt19937 random(112026);
  int changed = 0;
  for (int i = 0; i < 2000; ++i) {
    // The runtime cannot hold an empty PATH, so every generated one has a character.
    const std::wstring path = L"P" + RandomText(random, 14);
    const std::wstring text = PickText(random, path, i);
    env.Set(L"PATH", path);
    const std::optional<std::wstring> expected = ModelCut(path, text);
    // An edit to the empty text removes PATH from the runtime: that reads back as unset.
    const bool written = RemoveFromPathVariable(text);
    ASSERT_EQ(written, expected.has_value()) << testing::PrintToString(path) << " " << testing::PrintToString(text);
    const std::optional<std::wstring> now = test::EnvGuard::Get(L"PATH");
    if (!expected) {
      ASSERT_EQ(now, path);
    } else if (expected->empty()) {
      ASSERT_EQ(now, std::nullopt);
    } else {
      ASSERT_EQ(now, *expected);
    }
    changed += written ? 1 : 0;
  }
  EXPECT_GT(changed, 800);
}

}  // namespace
}  // namespace ambrel
