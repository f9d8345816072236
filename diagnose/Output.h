// The diagnosis as text (one line per check) and as one JSON document.
#pragma once

#include <string>

#include "diagnose/Checks.h"

namespace ambrel::diagnose {

// "<verdict> <id> <evidence>" per check, then the "result" line.
std::string FormatText(const Diagnosis& diagnosis);

// {"tool","formatVersion","checks":[{"id","verdict","text","evidence":{...}}],
//  "result":{"initializeQel","sdkLock","location","text","exitCode"},
//  "sdkSession":[lines] only after --with-sdk}
std::string FormatJson(const Diagnosis& diagnosis);

// 0 when the bootstrap would succeed, 1 when it would fail.
int ExitCodeOf(const Diagnosis& diagnosis);

}  // namespace ambrel::diagnose
