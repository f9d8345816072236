// Runs in a program of its own: CTest starts it once with the stand-in
// MAPI32.DLL beside it preferred to Wine's (WINEDLLOVERRIDES=mapi32=n) and
// once with MAPI32.DLL disabled (mapi32=d, only MailWithoutMapi.*).
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Ambrel.h"
#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

using test::EnvGuard;
using test::ScratchDir;

// One MAPISendMail call as the stand-in recorded it.
using Fields = std::map<std::string, std::string>;

std::string Hex(const std::string& bytes) {
  std::string hex = "hex:";
  static const char digits[] = "0123456789abcdef";
  for (unsigned char byte : bytes) {
    hex += digits[byte >> 4];
    hex += digits[byte & 15];
  }
  return hex;
}

std::string Ansi(const std::wstring& text) {
  char bytes[512] = {};
  ::WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, bytes, sizeof(bytes), nullptr, nullptr);
  return bytes;
}

class MailTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::GetModuleHandleW(L"MAPI32.DLL"), nullptr);
    // Never reach Wine's own MAPI32, which may start a mail program: this
    // process must load the stand-in from beside it (before the record is on).
    const HMODULE mapi = ::LoadLibraryW(L"MAPI32.DLL");
    ASSERT_NE(mapi, nullptr);
    // Wine names a built-in DLL after the file it shadows, so the stand-in is
    // told by an export of its own.
    const bool standIn = ::GetProcAddress(mapi, "AmbrelMapiStandIn") != nullptr;
    ::FreeLibrary(mapi);
    ASSERT_TRUE(standIn) << "MAPI32.DLL is not the stand-in: run with WINEDLLOVERRIDES=mapi32=n";
    ASSERT_EQ(::GetModuleHandleW(L"MAPI32.DLL"), nullptr);
    env.Set(L"AMBREL_MAPI_STANDIN_RECORD", record);
    env.Set(L"AMBREL_MAPI_STANDIN_RESULT", L"0");
  }

  void Answer(unsigned long result) { env.Set(L"AMBREL_MAPI_STANDIN_RESULT", std::to_wstring(result)); }

  std::vector<std::string> Lines() { return test::SplitLines(test::ReadFileBytes(record)); }

  // The fields of every call, in order; also checks that the stand-in from
  // beside this program was loaded for each call and unloaded after it.
  std::vector<Fields> Calls() {
    std::vector<Fields> calls;
    const std::vector<std::string> lines = Lines();
    size_t i = 0;
    while (i < lines.size()) {
      EXPECT_EQ(lines[i].rfind("attach ", 0), 0u) << lines[i];
      if (lines[i].rfind("attach ", 0) == 0) {
        const std::wstring loaded = test::Widen(lines[i].substr(7));
        EXPECT_EQ(_wcsicmp(loaded.c_str(), (test::TestBinDirectory() + L"\\MAPI32.dll").c_str()), 0) << lines[i];
      }
      ++i;
      if (i < lines.size() && lines[i] == "call") {
        Fields fields;
        for (++i; i < lines.size() && lines[i] != "end"; ++i) {
          const size_t equals = lines[i].find('=');
          fields[lines[i].substr(0, equals)] = lines[i].substr(equals + 1);
        }
        ++i;
        calls.push_back(fields);
      }
      EXPECT_TRUE(i < lines.size() && lines[i] == "detach") << "the library stayed loaded after the call";
      ++i;
    }
    return calls;
  }

  Fields OnlyCall() {
    std::vector<Fields> calls = Calls();
    EXPECT_EQ(calls.size(), 1u);
    return calls.empty() ? Fields{} : calls.front();
  }

  ScratchDir dir;
  std::wstring record = dir / L"mapi-record.txt";
  EnvGuard env;
};

// Expects each of `expected`'s fields in the call, with the value given.
void ExpectFields(const Fields& call, const Fields& expected) {
  for (const auto& [name, value] : expected) {
    const auto found = call.find(name);
    if (found == call.end()) {
      ADD_FAILURE() << "the call has no field " << name;
    } else {
      EXPECT_EQ(found->second, value) << name;
    }
  }
}

// What every call passes the same: no session, window or reserved values, the
// flags MAPI_LOGON_UI | MAPI_DIALOG (9), and no message type, date,
// conversation or originator.
const Fields kFixedCallShape = {{"session", "0"},
                                {"uiParam", "0"},
                                {"flags", "9"},
                                {"reserved", "0"},
                                {"message", "set"},
                                {"ulReserved", "0"},
                                {"lpszMessageType", "null"},
                                {"lpszDateReceived", "null"},
                                {"lpszConversationID", "null"},
                                {"flFlags", "0"},
                                {"lpOriginator", "null"}};

TEST_F(MailTest, AllArgumentsNullStillCallsMapiWithAnEmptyMessage) {
  EXPECT_TRUE(OSxMisc::SendEMail(nullptr, nullptr, nullptr, nullptr));
  const Fields call = OnlyCall();
  ExpectFields(call, kFixedCallShape);
  ExpectFields(call, {{"lpszSubject", "null"},
                      {"lpszNoteText", "null"},
                      {"nRecipCount", "0"},
                      {"lpRecips", "null"},
                      {"nFileCount", "0"},
                      {"lpFiles", "null"}});
}

TEST_F(MailTest, UserAbortCountsAsSuccess) {
  Answer(1);  // MAPI_USER_ABORT
  EXPECT_TRUE(OSxMisc::SendEMail(nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(Calls().size(), 1u);
}

TEST_F(MailTest, OtherResultsAreFailures) {
  Answer(2);  // MAPI_E_FAILURE
  EXPECT_FALSE(OSxMisc::SendEMail(L"someone", L"s", L"b", nullptr));
  Answer(26);  // MAPI_E_NOT_SUPPORTED
  EXPECT_FALSE(OSxMisc::SendEMail(nullptr, nullptr, nullptr, nullptr));
  Answer(3);  // MAPI_E_LOGIN_FAILURE
  EXPECT_FALSE(OSxMisc::SendEMail(nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(Calls().size(), 3u);
}

TEST_F(MailTest, RecipientOnlyIsNamedAndAddressedWithTheSmtpPrefix) {
  EXPECT_TRUE(OSxMisc::SendEMail(L"someone", nullptr, nullptr, nullptr));
  const Fields call = OnlyCall();
  ExpectFields(call, kFixedCallShape);
  ExpectFields(call, {{"nRecipCount", "1"},
                      {"recip0.ulReserved", "0"},
                      {"recip0.ulRecipClass", "1"},  // MAPI_TO
                      {"recip0.lpszName", Hex("someone")},
                      {"recip0.lpszAddress", Hex("SMTP:someone")},
                      {"recip0.ulEIDSize", "0"},
                      {"recip0.lpEntryID", "null"},
                      {"lpszSubject", "null"},
                      {"lpszNoteText", "null"},
                      {"nFileCount", "0"}});
}

TEST_F(MailTest, PrefixIsPutInFrontWithoutAnyCheck) {
  EXPECT_TRUE(OSxMisc::SendEMail(L"SMTP:a@b.example", nullptr, nullptr, nullptr));
  EXPECT_EQ(OnlyCall().at("recip0.lpszAddress"), Hex("SMTP:SMTP:a@b.example"));
}

TEST_F(MailTest, AttachmentWithoutSubjectGivesItsFileNameAsSubject) {
  EXPECT_TRUE(OSxMisc::SendEMail(nullptr, nullptr, nullptr, L"C:\\Out\\report.txt"));
  const Fields call = OnlyCall();
  ExpectFields(call, kFixedCallShape);
  ExpectFields(call, {{"lpszSubject", Hex("report.txt")},
                      {"nFileCount", "1"},
                      {"file0.ulReserved", "0"},
                      {"file0.flFlags", "0"},
                      {"file0.nPosition", "4294967295"},
                      {"file0.lpszPathName", Hex("C:\\Out\\report.txt")},
                      {"file0.lpszFileName", Hex("C:\\Out\\report.txt")},
                      {"file0.lpFileType", "null"},
                      {"nRecipCount", "0"}});
}

TEST_F(MailTest, AttachmentWithoutBackslashIsItsOwnSubject) {
  EXPECT_TRUE(OSxMisc::SendEMail(nullptr, nullptr, nullptr, L"C:/Out/report.txt"));
  EXPECT_EQ(OnlyCall().at("lpszSubject"), Hex("C:/Out/report.txt"));
}

TEST_F(MailTest, GivenSubjectWinsOverTheAttachmentName) {
  EXPECT_TRUE(OSxMisc::SendEMail(L"someone", L"Results", L"See the file.", L"C:\\Out\\report.txt"));
  ExpectFields(OnlyCall(), {{"lpszSubject", Hex("Results")},
                            {"lpszNoteText", Hex("See the file.")},
                            {"recip0.lpszName", Hex("someone")},
                            {"file0.lpszPathName", Hex("C:\\Out\\report.txt")}});
}

TEST_F(MailTest, EmptySubjectIsAnEmptyTextNotTheAttachmentName) {
  EXPECT_TRUE(OSxMisc::SendEMail(nullptr, L"", nullptr, L"C:\\Out\\report.txt"));
  EXPECT_EQ(OnlyCall().at("lpszSubject"), "hex:");
}

TEST_F(MailTest, TextsArriveInTheAnsiCodePage) {
  const std::wstring body = L"Gr\u00fc\u00dfe, caf\u00e9";
  EXPECT_TRUE(OSxMisc::SendEMail(L"j\u00fcrgen", L"\u00c4nderung", body.c_str(), L"C:\\Out\\r\u00e9sum\u00e9.txt"));
  const Fields call = OnlyCall();
  EXPECT_EQ(call.at("lpszNoteText"), Hex(Ansi(body)));
  EXPECT_EQ(call.at("lpszSubject"), Hex(Ansi(L"\u00c4nderung")));
  EXPECT_EQ(call.at("recip0.lpszAddress"), Hex(Ansi(L"SMTP:j\u00fcrgen")));
  EXPECT_EQ(call.at("file0.lpszFileName"), Hex(Ansi(L"C:\\Out\\r\u00e9sum\u00e9.txt")));
  if (::GetACP() == 1252) {
    EXPECT_EQ(call.at("lpszSubject"), Hex("\xc4nderung"));  // one byte per letter, not UTF-8
  }
  EXPECT_NE(call.at("lpszSubject"), Hex("\xc3\x84nderung"));
}

TEST_F(MailTest, LoadsAndFreesMapiOnEveryCall) {
  EXPECT_TRUE(OSxMisc::SendEMail(L"a", nullptr, nullptr, nullptr));
  EXPECT_EQ(::GetModuleHandleW(L"MAPI32.DLL"), nullptr);
  EXPECT_TRUE(OSxMisc::SendEMail(L"b", nullptr, nullptr, nullptr));
  EXPECT_EQ(::GetModuleHandleW(L"MAPI32.DLL"), nullptr);
  const std::vector<Fields> calls = Calls();  // attach, call, detach twice over
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].at("recip0.lpszName"), Hex("a"));
  EXPECT_EQ(calls[1].at("recip0.lpszName"), Hex("b"));
}

TEST_F(MailTest, ThroughTheLibraryExport) {
  test::LibraryCopy library;
  using SendEMailFn = bool (*)(const wchar_t*, const wchar_t*, const wchar_t*, const wchar_t*);
  const auto sendEMail = library.As<SendEMailFn>(
      AMBREL_EXPORT_NAME("?SendEMail@OSxMisc@@SA_NPEB_W000@Z", "_ZN7OSxMisc9SendEMailEPKwS1_S1_S1_"));
  ASSERT_NE(sendEMail, nullptr);
  Answer(1);
  EXPECT_TRUE(sendEMail(L"someone", nullptr, nullptr, nullptr));
  EXPECT_EQ(OnlyCall().at("recip0.lpszAddress"), Hex("SMTP:someone"));
}

// Started with MAPI32.DLL disabled.
TEST(MailWithoutMapi, IsFalse) {
  ASSERT_EQ(::LoadLibraryW(L"MAPI32.DLL"), nullptr) << "MAPI32.DLL can be loaded in this run";
  EXPECT_FALSE(OSxMisc::SendEMail(L"someone", L"subject", L"body", L"C:\\Out\\report.txt"));
  EXPECT_FALSE(OSxMisc::SendEMail(nullptr, nullptr, nullptr, nullptr));
}

}  // namespace
}  // namespace ambrel
