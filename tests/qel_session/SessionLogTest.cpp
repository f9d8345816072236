// The message channel: the sink, its setter, and how a message is composed.
#include "qel_session/SessionLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <locale>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/qel_session/SessionTestSupport.h"

namespace ambrel::test {
namespace {

using ::testing::Return;
using ::testing::StrictMock;

// What OtherSink was given, as "level: message".
std::vector<std::wstring>& OtherSinkMessages() {
  static std::vector<std::wstring> messages;
  return messages;
}

void OtherSink(std::wstring level, std::wstring message) { OtherSinkMessages().push_back(level + L": " + message); }

TEST(SessionLogSink, SetterReturnsTheSinkItReplaces) {
  OtherSinkMessages().clear();
  const QelSessionLogSink original = SetQelSessionLogSink(&OtherSink);
  LogSessionMessage(L"INFO", L"to the sink just set");
  EXPECT_EQ(OtherSinkMessages(), std::vector<std::wstring>{L"INFO: to the sink just set"});
  EXPECT_EQ(SetQelSessionLogSink(nullptr), &OtherSink);
  LogSessionMessage(L"INFO", L"to no sink");
  EXPECT_EQ(OtherSinkMessages().size(), 1u) << "a replaced sink is not called again";
  EXPECT_EQ(SetQelSessionLogSink(original), nullptr);
}

TEST(SessionLogSink, WithoutASinkAMessageGoesNowhere) {
  const QelSessionLogSink original = SetQelSessionLogSink(nullptr);
  EXPECT_NO_THROW(LogSessionMessage(L"INFO", L"dropped"));
  std::ostringstream text = NewSessionMessage();
  text << "dropped too";
  EXPECT_NO_THROW(DeliverSessionMessage("WARN", text));
  SetQelSessionLogSink(original);
}

TEST(SessionLogSink, ReceivesLevelThenMessage) {
  SinkCapture sink;
  LogSessionMessage(L"FATAL", L"first");
  LogSessionMessage(L"INFO", L"second");
  EXPECT_EQ(sink.messages(), (Messages{{L"FATAL", L"first"}, {L"INFO", L"second"}}));
}

TEST(SessionMessage, LevelAndTextComeBackFromUtf8) {
  SinkCapture sink;
  std::ostringstream text = NewSessionMessage();
  text << "path "
       << "\xC3\xA9t\xC3\xA9 \xE8\xB7\xAF\xF0\x9F\x98\x80"
       << " code:" << -17;
  DeliverSessionMessage("ERROR", text);
  EXPECT_EQ(sink.messages(), (Messages{{L"ERROR", L"path \u00E9t\u00E9 \u8DEF\U0001F600 code:-17"}}));
}

// A numpunct that groups every three digits with a comma.
struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(SessionMessage, CodesArePlainDecimalWhateverTheGlobalLocale) {
  const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  std::ostringstream plain;
  plain << 1234567;
  std::ostringstream text = NewSessionMessage();
  text << 1234567 << ' ' << -2147483647 - 1;
  std::locale::global(previous);
  ASSERT_EQ(plain.str(), "1,234,567") << "the grouping locale did not take";
  EXPECT_EQ(text.str(), "1234567 -2147483648");
}

void ThrowingSink(std::wstring, std::wstring) { throw std::runtime_error("sink failed"); }

TEST(SessionMessage, ASinksExceptionLeavesTheOperation) {
  RegistrySandbox sandbox;
  EnvGuard env;
  env.Unset(L"QEL_INITIALIZE_BYPASSED");
  auto wrapper = std::make_unique<StrictMock<MockWrapper>>();
  EXPECT_CALL(*wrapper, Initialize("QEL", "2026", "neutral")).WillOnce(Return(3));
  QelSession session(std::move(wrapper));
  const QelSessionLogSink original = SetQelSessionLogSink(&ThrowingSink);
  EXPECT_THROW(session.Initialize(L"2026"), std::runtime_error);
  SetQelSessionLogSink(original);
}

}  // namespace
}  // namespace ambrel::test
