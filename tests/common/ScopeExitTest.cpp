// The one cleanup helper: it runs when the scope ends, once, whichever way the
// scope is left.
#include "common/ScopeExit.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace ambrel::test {
namespace {

TEST(ScopeExit, RunsWhenTheScopeEnds) {
  int runs = 0;
  {
    const ScopeExit cleanup([&runs] { ++runs; });
    EXPECT_EQ(runs, 0);
  }
  EXPECT_EQ(runs, 1);
}

TEST(ScopeExit, RunsWhenAnExceptionLeavesTheScope) {
  int runs = 0;
  EXPECT_THROW(
      {
        const ScopeExit cleanup([&runs] { ++runs; });
        throw std::runtime_error("leaving");
      },
      std::runtime_error);
  EXPECT_EQ(runs, 1);
}

TEST(ScopeExit, NestedCleanupsRunInReverseOrder) {
  std::string order;
  {
    const ScopeExit first([&order] { order += "first;"; });
    const ScopeExit second([&order] { order += "second;"; });
  }
  EXPECT_EQ(order, "second;first;");
}

}  // namespace
}  // namespace ambrel::test
