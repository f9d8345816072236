#include "diagnose/Output.h"

#include <cstdio>

namespace ambrel::diagnose {
namespace {

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (const unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
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
  char head[64];
  for (const Check& check : diagnosis.checks) {
    std::snprintf(head, sizeof head, "%-4s  %-24s ", VerdictName(check.verdict), check.id.c_str());
    out += head + check.text + "\n";
  }
  std::snprintf(head, sizeof head, "%-4s  %-24s ", diagnosis.conclusion.initializeQel ? "ok" : "fail", "result");
  out += head + diagnosis.conclusion.text + "\n";
  if (!diagnosis.sdkSession.empty()) out += "\n";
  for (const std::string& line : diagnosis.sdkSession) out += line + "\n";
  return out;
}

std::string FormatJson(const Diagnosis& diagnosis) {
  std::string out = "{\n  \"tool\": \"ambrel-diagnose\",\n  \"formatVersion\": 1,\n  \"checks\": [";
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
