// The sink setter as a host sees it: through Ambrel.dll's import library.
#include <gtest/gtest.h>

#include "Ambrel.h"

namespace {

void FirstSink(std::wstring, std::wstring) {}
void SecondSink(std::wstring, std::wstring) {}

TEST(HostSessionLogSink, NullUntilTheHostInstallsOneAndEachCallReturnsThePrevious) {
  EXPECT_EQ(SetQelSessionLogSink(&FirstSink), nullptr);
  EXPECT_EQ(SetQelSessionLogSink(&SecondSink), &FirstSink);
  EXPECT_EQ(SetQelSessionLogSink(nullptr), &SecondSink);
  EXPECT_EQ(SetQelSessionLogSink(nullptr), nullptr);
}

}  // namespace
