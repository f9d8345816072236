// The look at the machine: one check per condition the bootstrap meets, in
// the order it meets them, and what InitializeQel would do here. Reads the
// registry, the environment and files only: nothing is written, locked,
// loaded for execution or called in the installer SDK.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace ambrel::diagnose {

enum class Verdict { Ok, Info, Warn, Fail, Skip };
const char* VerdictName(Verdict verdict);

// One piece of evidence: absent (null), a flag, a number or text (UTF-8).
using Value = std::variant<std::nullptr_t, bool, std::int64_t, std::string>;

struct Check {
  std::string id;  // stable: the JSON "id" and the text line's second column
  Verdict verdict = Verdict::Info;
  std::string text;                                   // the evidence in words
  std::vector<std::pair<std::string, Value>> fields;  // the evidence, for tools
};

struct Conclusion {
  bool initializeQel = false;  // what InitializeQel would return
  bool sdkLock = false;        // whether the installer would lock the folder (also when the bootstrap then fails)
  std::string location;        // the folder the bootstrap would put on PATH
  std::string text;            // what would happen, the most likely cause first
};

struct Diagnosis {
  std::string toolVersion;  // this program's file version; empty when it has none
  std::vector<Check> checks;
  Conclusion conclusion;
  std::vector<std::string> sdkSession;  // lines of a --with-sdk run, else empty
};

// `library`: the Ambrel.dll to judge (its drive and its Kalvex.ini).
Diagnosis Diagnose(const std::wstring& library);

}  // namespace ambrel::diagnose
