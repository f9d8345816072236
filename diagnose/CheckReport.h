// What every part of the look at the machine writes its checks with.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/TextConvert.h"
#include "diagnose/Checks.h"

namespace ambrel::diagnose {

inline std::string U8(const std::wstring& text) { return WideToUtf8(text); }
inline std::string Quoted(const std::wstring& text) { return "\"" + U8(text) + "\""; }
inline Value Text(const std::optional<std::wstring>& text) { return text ? Value(U8(*text)) : Value(nullptr); }

// Appends a check to the report; the caller adds its evidence.
inline Check& Add(std::vector<Check>& report, std::string id, Verdict verdict, std::string text) {
  report.push_back(Check{std::move(id), verdict, std::move(text), {}});
  return report.back();
}

}  // namespace ambrel::diagnose
