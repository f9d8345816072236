// What the bootstrap tests start from: the installed SDK sandbox and a
// process in which nothing is recorded yet, with a PATH of its own and no
// marker (the sandbox removes it).
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "qel_loader/InstallQueries.h"
#include "tests/qel_session/SessionTestSupport.h"
#include "tests/support/SdkSandbox.h"

namespace ambrel::test {

// The PATH each case starts with.
inline const std::wstring kOldPath = L"C:\\windows\\system32;C:\\windows;C:\\Tools\\bin";

// A variable of this process, or nullopt where it is not set.
inline std::optional<std::wstring> Env(const std::wstring& name) { return EnvGuard::Get(name); }

class FreshProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SharedDllPath().clear();
    sandbox.env().Set(L"PATH", kOldPath);
  }
  void TearDown() override { SharedDllPath().clear(); }

  // Nothing prepared: PATH as it was, no marker, nothing recorded.
  static void ExpectProcessUntouched() {
    EXPECT_EQ(Env(L"PATH"), kOldPath);
    EXPECT_EQ(Env(kMarker), std::nullopt);
    EXPECT_TRUE(SharedDllPath().empty());
  }

  // The installer cannot lock and the host's sink throws on that warning: the
  // exception comes out of `entry`, but only after the lock request is undone
  // and the SDK session ended, and nothing is prepared.
  template <typename Entry>
  void ExpectASinkExceptionAtTheLockToEndTheSession(Entry entry) {
    sandbox.sdk().SetResult("LockDirectory", 5);
    ThrowingSink sink(L"Failed to lock");
    EXPECT_THROW((void)entry(), SinkFault);
    EXPECT_EQ(sink.throws(), 1);
    EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
    ExpectProcessUntouched();
  }

  SdkSandbox sandbox{SdkSandbox::Contents::Installed};
};

}  // namespace ambrel::test
