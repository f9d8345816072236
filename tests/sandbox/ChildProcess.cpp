#include "tests/sandbox/ChildProcess.h"

#include <atomic>
#include <cstdio>

#include "common/WinResource.h"

namespace ambrel::test {

namespace {

constexpr int kStartAttempts = 3;
constexpr DWORD kRetryPauseMs = 200;
constexpr DWORD kTerminateWaitMs = 5000;
constexpr DWORD kTerminatedExitCode = 0xDEAD;

std::atomic<unsigned> g_pipeCounter{0};

std::string Narrowed(const std::wstring& text) {
  std::string narrow;
  for (const wchar_t c : text) narrow += c < 0x80 ? static_cast<char>(c) : '?';
  return narrow;
}

// One line of the start log, when there is one: cmake/process-start-tally.sh
// counts its first words.
void Record(const std::string& line) {
  wchar_t path[MAX_PATH];
  const DWORD length = ::GetEnvironmentVariableW(L"AMBREL_PROCESS_START_LOG", path, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return;
  // Appending only: concurrent test programs add whole lines, never overwrite.
  UniqueFileHandle log(::CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                     FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!log) return;
  const std::string text = line + "\n";
  DWORD written = 0;
  ::WriteFile(log.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

// A line that goes to stderr at once as well, where the test's log shows it.
void Report(const std::string& line) {
  std::fprintf(stderr, "run: %s\n", line.c_str());
  std::fflush(stderr);
  Record(line);
}

ULONGLONG Remaining(ULONGLONG deadline) {
  const ULONGLONG now = ::GetTickCount64();
  return now >= deadline ? 0 : deadline - now;
}

// An anonymous pipe (CreatePipe) cannot be read with a time limit; a named
// pipe whose read end is opened for overlapped reads can.
struct OutputPipe {
  UniqueFileHandle read;
  UniqueFileHandle write;  // inheritable, for the child's stdout and stderr
};

std::optional<OutputPipe> CreateOutputPipe(std::string& failure) {
  const std::wstring name = L"\\\\.\\pipe\\ambrel-test-run-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                            std::to_wstring(g_pipeCounter++);
  OutputPipe pipe;
  pipe.read.reset(::CreateNamedPipeW(name.c_str(),
                                     PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
                                     PIPE_TYPE_BYTE | PIPE_WAIT, 1, 4096, 4096, 0, nullptr));
  if (!pipe.read) {
    failure = "CreateNamedPipeW failed with error " + std::to_string(::GetLastError());
    return std::nullopt;
  }
  SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
  pipe.write.reset(::CreateFileW(name.c_str(), GENERIC_WRITE, 0, &inherit, OPEN_EXISTING, 0, nullptr));
  if (!pipe.write) {
    failure = "CreateFileW of the pipe's write end failed with error " + std::to_string(::GetLastError());
    return std::nullopt;
  }
  return pipe;
}

// Errors that say the program is not there or not a program: trying again cannot help.
bool IsLasting(DWORD error) {
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == ERROR_BAD_EXE_FORMAT;
}

// Starts the program, trying again where a start failed for a passing reason
// (Wine's process creation fails now and then with ERROR_INTERNAL_ERROR).
// Every failed attempt is reported as it happens.
std::optional<PROCESS_INFORMATION> Start(const std::wstring& program, std::wstring commandLine, HANDLE output,
                                         ProcessResult& result) {
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = output;
  startup.hStdError = output;
  startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
  for (int attempt = 1; attempt <= kStartAttempts; ++attempt) {
    PROCESS_INFORMATION process{};
    if (::CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                         &process)) {
      Record("started " + std::to_string(attempt) + " " + Narrowed(program));
      return process;
    }
    const DWORD error = ::GetLastError();
    ++result.failedStarts;
    const std::string line = "start-failed " + std::to_string(error) + " attempt " + std::to_string(attempt) + " of " +
                             std::to_string(kStartAttempts) + " " + Narrowed(program);
    Report(line);
    result.output += "run: " + line + "\n";
    if (IsLasting(error)) break;
    ::Sleep(kRetryPauseMs);
  }
  return std::nullopt;
}

// Reads the pipe until every writer has closed it or the deadline passes;
// false when the deadline ended it.
bool Drain(HANDLE pipe, ULONGLONG deadline, std::string& output) {
  UniqueHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!event) {
    output += "run: CreateEventW failed with error " + std::to_string(::GetLastError()) + "\n";
    return true;
  }
  char chunk[4096];
  for (;;) {
    OVERLAPPED overlapped{};
    overlapped.hEvent = event.get();
    DWORD got = 0;
    if (!::ReadFile(pipe, chunk, sizeof(chunk), &got, &overlapped)) {
      DWORD error = ::GetLastError();
      if (error == ERROR_IO_PENDING) {
        const DWORD wait = ::WaitForSingleObject(event.get(), static_cast<DWORD>(Remaining(deadline)));
        if (wait != WAIT_OBJECT_0) {
          ::CancelIo(pipe);
          if (::GetOverlappedResult(pipe, &overlapped, &got, TRUE)) output.append(chunk, got);
          return false;
        }
        error = ::GetOverlappedResult(pipe, &overlapped, &got, FALSE) ? ERROR_SUCCESS : ::GetLastError();
      }
      if (error == ERROR_BROKEN_PIPE) return true;
      if (error != ERROR_SUCCESS) {
        output += "run: reading the output failed with error " + std::to_string(error) + "\n";
        return true;
      }
    }
    output.append(chunk, got);
  }
}

}  // namespace

ProcessResult RunProcess(const std::wstring& program, const std::wstring& arguments, DWORD timeoutMs) {
  ProcessResult result;
  const ULONGLONG deadline = ::GetTickCount64() + timeoutMs;
  std::string failure;
  std::optional<OutputPipe> pipe = CreateOutputPipe(failure);
  if (!pipe) {
    Report("pipe-failed " + failure);
    result.output = "run: " + failure + "\n";
    return result;
  }
  const std::optional<PROCESS_INFORMATION> started =
      Start(program, L"\"" + program + L"\" " + arguments, pipe->write.get(), result);
  // Only the child may hold the write end now, so the pipe breaks when it ends.
  pipe->write.reset();
  if (!started) return result;
  UniqueHandle process(started->hProcess);
  UniqueHandle thread(started->hThread);

  const bool drained = Drain(pipe->read.get(), deadline, result.output);
  const DWORD wait = ::WaitForSingleObject(process.get(), drained ? static_cast<DWORD>(Remaining(deadline)) : 0);
  if (wait != WAIT_OBJECT_0) {
    result.timedOut = true;
    ::TerminateProcess(process.get(), kTerminatedExitCode);
    ::WaitForSingleObject(process.get(), kTerminateWaitMs);
    const std::string line = "timed-out after " + std::to_string(timeoutMs) + " ms, terminated " + Narrowed(program);
    Report(line);
    result.output += "run: " + line + "\n";
    return result;
  }
  if (!drained) {
    // The child ended, but something it started still holds its output.
    result.timedOut = true;
    const std::string line = "timed-out after " + std::to_string(timeoutMs) +
                             " ms with the output still held open after the program ended " + Narrowed(program);
    Report(line);
    result.output += "run: " + line + "\n";
  }
  DWORD exitCode = 0;
  if (::GetExitCodeProcess(process.get(), &exitCode)) result.exitCode = exitCode;
  return result;
}

std::string ExitCodeText(const std::optional<DWORD>& exitCode) {
  return exitCode ? std::to_string(*exitCode) : std::string("none");
}

}  // namespace ambrel::test
