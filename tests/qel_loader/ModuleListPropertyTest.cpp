// The module-list split of UnloadDelayLoadedModules against a plain reference
// model on generated lists.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "Ambrel.h"

namespace {

std::vector<std::string> g_names;

BOOL WINAPI Record(LPCSTR name) {
  g_names.emplace_back(name);
  return TRUE;
}

// The model: one name per ';'-separated piece, empty pieces included; no
// call at all for an empty list.
std::vector<std::string> ModelNames(const std::string& list) {
  if (list.empty()) return {};
  std::vector<std::string> names(1);
  for (char c : list) {
    if (c == ';') {
      names.emplace_back();
    } else {
      names.back() += c;
    }
  }
  return names;
}

// Short lists over a few characters, blanks and separators, so empty,
// doubled, leading and trailing elements are all common.
std::string RandomList(std::mt19937& random) {
  static const char alphabet[] = "ab.d;; ";
  std::uniform_int_distribution<size_t> length(0, 12);
  std::uniform_int_distribution<size_t> pick(0, sizeof(alphabet) - 2);
  std::string list(length(random), ' ');
  for (auto& c : list) c = alphabet[pick(random)];
  return list;
}

TEST(ModuleListProperty, SplitAgreesWithTheModelOnGeneratedLists) {
  std::mt19937 random(20261123);
  size_t calls = 0;
  size_t emptyNames = 0;
  for (int i = 0; i < 20000; ++i) {
    const std::string list = RandomList(random);
    // The view ends inside a longer text, so a name that ran past its end
    // would show.
    const std::string backing = list + "tail;x";
    g_names.clear();
    QelLoadHelper::UnloadDelayLoadedModules(std::string_view(backing.data(), list.size()), &Record);
    const std::vector<std::string> expected = ModelNames(list);
    ASSERT_EQ(g_names, expected) << "list=" << testing::PrintToString(list);
    calls += expected.size();
    for (const auto& name : expected) emptyNames += name.empty() ? 1 : 0;
  }
  // Lists of several names and empty names must both be common.
  EXPECT_GT(calls, 40000u);
  EXPECT_GT(emptyNames, 10000u);
}

}  // namespace
