#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"

#include "tests/haldo_sdk/WrapperTest.h"

namespace ambrel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

using WrapperInitializeTest = WrapperTest;

TEST_F(WrapperInitializeTest, SuccessfulInitializeWritesTheFullSequence) {
  SetSdkLocation(StandInKind::Signed);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_TRUE(wrapper_.IsInitialized());
  EXPECT_EQ(WrapperState().sessionId, "standin-session");
  EXPECT_THAT(log_.Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed))));
  EXPECT_THAT(sdk_.Calls(), ElementsAre("Initialize\tQEL\t2026\tneutral\tnull\t0",
                                        "ReleaseMemory\tstandin-session\thanded-out"));
}

}  // namespace
}  // namespace ambrel::test
