// Runs a program as a child process and collects what it writes, within a
// time limit that holds while its output is read. Nothing about a run is kept
// quiet: every start attempt that fails is printed to stderr at once (also
// when a later attempt succeeds) and, where AMBREL_PROCESS_START_LOG names a
// file, appended to it, so a test run can say at its end how often starts
// failed (cmake/process-start-tally.sh).
#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace ambrel::test {

struct ProcessResult {
  // None when the program never started or was still running at the time limit.
  std::optional<DWORD> exitCode;
  std::string output;         // stdout and stderr together, then the runner's own "run: " lines where it failed
  unsigned failedStarts = 0;  // start attempts that failed, whether or not a later one succeeded
  bool timedOut = false;      // the time limit ended the reading or the wait
};

// Runs `program` with `arguments` and waits at most `timeoutMs` for it to end
// and close its output. The child inherits this process's environment as it is now.
ProcessResult RunProcess(const std::wstring& program, const std::wstring& arguments, DWORD timeoutMs = 60000);

// The exit code in decimal, or "none".
std::string ExitCodeText(const std::optional<DWORD>& exitCode);

}  // namespace ambrel::test
