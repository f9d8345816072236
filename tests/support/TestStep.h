// Names the step a test is at, for the watchdog of the suite's test main
// (TestMain.cpp): a program that hangs prints the last step named here.
// Copied into a fixed buffer; cheap enough for a loop.
#pragma once

namespace ambrel::test {

void TestStep(const char* what);

}  // namespace ambrel::test
