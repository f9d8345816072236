#include "diagnose/Output.h"

#include <string_view>

namespace ambrel::diagnose {
namespace {

// JSON text may not hold the control characters below this one as they are.
constexpr unsigned char kFirstPrintable = 0x20;
// The text report's columns: the verdict, then the check's id.
constexpr std::size_t kVerdictColumn = 4;
constexpr std::size_t kIdColumn = 24;

// Left-aligned in a column of `width`; longer text is kept whole.
std::string Padded(std::string_view text, std::size_t width) {
  std::string out(text);
  if (out.size() < width) out.append(width - out.size(), ' ');
  return out;
}

// The start of a text line: "<verdict>  <id> ".
std::string LineHead(std::string_view verdict, std::string_view id) {
  return Padded(verdict, kVerdictColumn) + "  " + Padded(id, kIdColumn) + " ";
}

// "\u00xx" for a control character.
std::string UnicodeEscape(unsigned char c) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  return std::string("\\u00") + kDigits[c / kDigits.size()] + kDigits[c % kDigits.size()];
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (const char byte : text) {
    const auto c = static_cast<unsigned char>(byte);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < kFirstPrintable) {
          out += UnicodeEscape(c);
        } else {
          out += byte;
        }
    }
  }
  return out + "\"";
}

std::string JsonValue(const Value& value) {
  if (std::holds_alternative<std::nullptr_t>(value)) return "null";
  if (const bool* flag = std::get_if<bool>(&value)) return *flag ? "true" : "false";
  if (const std::int64_t* number = std::get_if<std::int64_t>(&value)) return std::to_string(*number);
  return JsonString(std::get<std::string>(value));
}

}  // namespace

int ExitCodeOf(const Diagnosis& diagnosis) { return diagnosis.conclusion.initializeQel ? 0 : 1; }

std::string FormatText(const Diagnosis& diagnosis) {
  std::string out;
  for (const Check& check : diagnosis.checks) out += LineHead(VerdictName(check.verdict), check.id) + check.text + "\n";
  out += LineHead(diagnosis.conclusion.initializeQel ? "ok" : "fail", "result") + diagnosis.conclusion.text + "\n";
  if (!diagnosis.sdkSession.empty()) out += "\n";
  for (const std::string& line : diagnosis.sdkSession) out += line + "\n";
  return out;
}

std::string FormatJson(const Diagnosis& diagnosis) {
  std::string out = "{\n  \"tool\": \"ambrel-diagnose\",\n  \"toolVersion\": " +
                    (diagnosis.toolVersion.empty() ? std::string("null") : JsonString(diagnosis.toolVersion)) +
                    ",\n  \"formatVersion\": 1,\n  \"checks\": [";
  bool firstCheck = true;
  for (const Check& check : diagnosis.checks) {
    out += firstCheck ? "\n" : ",\n";
    firstCheck = false;
    out += "    {\"id\": " + JsonString(check.id) + ", \"verdict\": " + JsonString(VerdictName(check.verdict)) +
           ", \"text\": " + JsonString(check.text) + ", \"evidence\": {";
    bool firstField = true;
    for (const auto& [name, value] : check.fields) {
      out += (firstField ? "" : ", ") + JsonString(name) + ": " + JsonValue(value);
      firstField = false;
    }
    out += "}}";
  }
  const Conclusion& c = diagnosis.conclusion;
  out += "\n  ],\n  \"result\": {\"initializeQel\": " + std::string(c.initializeQel ? "true" : "false") +
         ", \"sdkLock\": " + (c.sdkLock ? "true" : "false") +
         ", \"location\": " + (c.location.empty() ? std::string("null") : JsonString(c.location)) +
         ", \"text\": " + JsonString(c.text) + ", \"exitCode\": " + std::to_string(ExitCodeOf(diagnosis)) + "}";
  if (!diagnosis.sdkSession.empty()) {
    out += ",\n  \"sdkSession\": [";
    for (std::size_t i = 0; i < diagnosis.sdkSession.size(); ++i)
      out += (i ? ", " : "") + JsonString(diagnosis.sdkSession[i]);
    out += "]";
  }
  return out + "\n}\n";
}

}  // namespace ambrel::diagnose
