// QelSession over the real wrapper and misbehaving SDKs: each export missing,
// each export answering odd codes, session ids of 0 bytes and 64 KiB. Every
// row runs Initialize, LockInstallLocation and Uninitialize on a complete
// registry entry and checks the three codes, the location and the messages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "qel_session/QelSession.h"
#include "tests/qel_session/SessionTestSupport.h"

namespace ambrel::test {
namespace {

const Message kNoSdkSession{L"WARN", L"HALDO SDK wrapper is not initialized"};

// The messages of a row; "{lock}" stands for the lock path.
struct VariantRow {
  std::string name;
  StandInKind kind;
  std::string exportName;  // "" when no export is steered
  int value;
  std::string sessionId;
  Messages messages;
};

Message Lock(int code) {
  return {L"WARN", L"Failed to lock{lock}, HALDO SDK wrapper status code : " + std::to_wstring(code)};
}
Message Unlock(int code) {
  return {L"WARN", L"Failed to Unlock HALDO SDK wrapper status code:" + std::to_wstring(code)};
}
Message End(int code) {
  return {L"WARN", L"Failed to Uninitialize HALDO SDK wrapper status code:" + std::to_wstring(code)};
}
Message Start(int code) { return {L"WARN", kSdkInitFailed + std::to_wstring(code)}; }

std::string ValueName(int v) {
  return v == INT_MIN ? "IntMin" : v == INT_MAX ? "IntMax" : v < 0 ? "Minus" + std::to_string(-v) : std::to_string(v);
}

std::vector<VariantRow> Rows() {
  const std::string id = StandInSdk::kDefaultSessionId;
  std::vector<VariantRow> rows = {
      // No Initialize export: wrapper code 4, so messages 2 and 3, no lock, and
      // no session to end.
      {"No_Initialize", StandInKind::NoInitialize, "", 0, id, {Start(4), Start(4), kNoSdkSession}},
      {"No_ReleaseMemory", StandInKind::NoReleaseMemory, "", 0, id, {}},
      {"No_Uninitialize", StandInKind::NoUninitialize, "", 0, id, {End(4)}},
      {"No_LockDirectory", StandInKind::NoLockDirectory, "", 0, id, {Lock(4)}},
      {"No_UnLockDirectory", StandInKind::NoUnLockDirectory, "", 0, id, {Unlock(4)}},
      // An empty id is no session: the lock goes ahead (status 0), the end finds nothing.
      {"EmptySessionId", StandInKind::Signed, "", 0, "", {kNoSdkSession}},
      {"SessionIdOf64KiB", StandInKind::Signed, "", 0, std::string(64 * 1024, 's'), {}},
  };
  for (int v : {1, 2, -1, INT_MIN, INT_MAX}) {
    // 2 from the SDK reads as "already held": usable, so the lock is tried
    // (with the empty id); there is no session to end all the same.
    rows.push_back({"Initialize_" + ValueName(v), StandInKind::Signed, "Initialize", v, id,
                    v == 2 ? Messages{kNoSdkSession} : Messages{Start(v), Start(v), kNoSdkSession}});
    rows.push_back({"ReleaseMemory_" + ValueName(v), StandInKind::Signed, "ReleaseMemory", v, id, {}});
    rows.push_back({"Uninitialize_" + ValueName(v), StandInKind::Signed, "Uninitialize", v, id, {End(v)}});
    rows.push_back({"LockDirectory_" + ValueName(v), StandInKind::Signed, "LockDirectory", v, id, {Lock(v)}});
    rows.push_back({"UnLockDirectory_" + ValueName(v), StandInKind::Signed, "UnLockDirectory", v, id, {Unlock(v)}});
  }
  return rows;
}

class SessionSdkVariantTest : public SessionWithStandInSdk, public ::testing::WithParamInterface<VariantRow> {};

TEST_P(SessionSdkVariantTest, WholeConversation) {
  const VariantRow& row = GetParam();
  SetSdkLocation(row.kind);
  if (!row.exportName.empty()) sandbox_.sdk().SetResult(row.exportName, row.value);
  sandbox_.sdk().SetSessionId(row.sessionId);
  const std::wstring expected = WriteCompleteInstall(sandbox_.scratch(), L"Shared", L"1.0");

  QelSession session;
  EXPECT_EQ(session.Initialize(L"2026"), Success);
  std::wstring location;
  EXPECT_EQ(session.LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);  // handed out whatever the SDK said
  EXPECT_EQ(session.Uninitialize(), Success);

  Messages messages;
  for (auto [level, text] : row.messages) {
    const size_t at = text.find(L"{lock}");
    if (at != std::wstring::npos) text.replace(at, 6, expected + L"\\");
    messages.emplace_back(level, text);
  }
  EXPECT_EQ(sink_.messages(), messages);
}

INSTANTIATE_TEST_SUITE_P(Variants, SessionSdkVariantTest, ::testing::ValuesIn(Rows()),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace ambrel::test
