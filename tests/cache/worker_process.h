// The cache's second process (tests/helpers/cache_worker) started from a test: its standard
// output read line by line through a pipe, killed on demand, and how it ended. On POSIX through
// popen (the shell's exec leaves the helper as the child pclose waits for); on Windows through
// CreateProcessW with a pipe for its output and TerminateProcess for the kill.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <windows.h>
#else
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#endif

namespace tq::test {

class WorkerProcess {
 public:
  // How the worker ended: its exit status, or killed by Kill().
  struct End {
    bool exited = false;
    int status = -1;
    bool killed = false;
  };

  // Starts the helper built next to this test with the given arguments (single words, or paths).
  explicit WorkerProcess(const std::vector<std::string>& arguments) { Start(arguments); }
  WorkerProcess(const WorkerProcess&) = delete;
  WorkerProcess& operator=(const WorkerProcess&) = delete;
  ~WorkerProcess() {
    if (Running()) {
      Kill();
      Finish();
    }
  }

  bool Running() const {
#if defined(_WIN32)
    return m_process != nullptr;
#else
    return m_pipe != nullptr;
#endif
  }

  // The next line of its output without the line end; empty at the end of the output.
  std::string ReadLine() {
    std::string line;
    for (;;) {
#if defined(_WIN32)
      char c = 0;
      DWORD got = 0;
      if (!::ReadFile(m_output, &c, 1, &got, nullptr) || got == 0) break;
#else
      const int read = std::fgetc(m_pipe);
      if (read == EOF) break;
      const char c = static_cast<char>(read);
#endif
      if (c == '\n') break;
      if (c != '\r') line += c;  // text mode on Windows ends lines with CR LF
    }
    return line;
  }

  // Kills the worker at once, without letting it clean up (SIGKILL, TerminateProcess).
  void Kill() {
#if defined(_WIN32)
    if (::TerminateProcess(m_process, kKilledStatus)) m_killed = true;
#else
    if (m_pid > 0 && ::kill(m_pid, SIGKILL) == 0) m_killed = true;
#endif
  }

  // The worker's process id as it reports it, which Kill() uses where the child of popen is
  // the helper only by the shell's exec.
  void SetReportedPid(int pid) { m_pid = pid; }

  // Waits for the worker to end, for at most 60 seconds on Windows (then it is killed).
  End Finish() {
    End end;
#if defined(_WIN32)
    if (::WaitForSingleObject(m_process, 60000) != WAIT_OBJECT_0) {
      ::TerminateProcess(m_process, 1);
      ::WaitForSingleObject(m_process, INFINITE);
      m_killed = false;
    }
    DWORD code = 0;
    if (::GetExitCodeProcess(m_process, &code)) {
      end.killed = m_killed && code == kKilledStatus;
      end.exited = !end.killed;
      end.status = static_cast<int>(code);
    }
    ::CloseHandle(m_process);
    ::CloseHandle(m_output);
    m_process = nullptr;
    m_output = nullptr;
#else
    const int status = ::pclose(m_pipe);
    m_pipe = nullptr;
    end.exited = status != -1 && WIFEXITED(status);
    end.status = end.exited ? WEXITSTATUS(status) : status;
    end.killed = status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
#endif
    return end;
  }

  // Whether the worker started: false if the helper could not be run.
  bool ok() const { return Running(); }

 private:
  void Start(const std::vector<std::string>& arguments);

#if defined(_WIN32)
  // The exit status TerminateProcess gives the killed worker; no path of the helper returns it.
  static constexpr UINT kKilledStatus = 0xDEAD;
  HANDLE m_process = nullptr;
  HANDLE m_output = nullptr;
  bool m_killed = false;
#else
  FILE* m_pipe = nullptr;
  bool m_killed = false;
#endif
  int m_pid = 0;
};

#if defined(_WIN32)

inline std::wstring QuoteArgument(const std::wstring& argument) {
  // The quoting CommandLineToArgvW and the C runtime undo: backslashes double only before a quote.
  std::wstring quoted = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t c : argument) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    quoted.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
    backslashes = 0;
    quoted += c;
  }
  quoted.append(2 * backslashes, L'\\');
  return quoted + L"\"";
}

inline void WorkerProcess::Start(const std::vector<std::string>& arguments) {
  std::wstring self(32768, L'\0');
  self.resize(::GetModuleFileNameW(nullptr, self.data(), static_cast<DWORD>(self.size())));
  const std::filesystem::path helper =
      std::filesystem::path(self).parent_path() / L"cache_worker.exe";
  std::wstring command_line = QuoteArgument(helper.wstring());
  for (const std::string& argument : arguments) {
    command_line += L" " + QuoteArgument(std::filesystem::path(argument).wstring());
  }

  SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
  HANDLE read_end = nullptr;
  HANDLE write_end = nullptr;
  if (!::CreatePipe(&read_end, &write_end, &inherit, 0)) return;
  ::SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);  // only the child's end is inherited
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = write_end;
  startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION info = {};
  const BOOL created = ::CreateProcessW(helper.c_str(), command_line.data(), nullptr, nullptr, TRUE,
                                        0, nullptr, nullptr, &startup, &info);
  // Once the child holds the write end, its exit ends the output the parent reads.
  ::CloseHandle(write_end);
  if (!created) {
    ::CloseHandle(read_end);
    return;
  }
  ::CloseHandle(info.hThread);
  m_process = info.hProcess;
  m_output = read_end;
}

#else

inline void WorkerProcess::Start(const std::vector<std::string>& arguments) {
  const std::filesystem::path helper =
      std::filesystem::read_symlink("/proc/self/exe").parent_path() / "cache_worker";
  std::string command = "exec '" + helper.string() + "'";
  for (const std::string& argument : arguments) command += " '" + argument + "'";
  m_pipe = ::popen(command.c_str(), "r");
}

#endif

}  // namespace tq::test
