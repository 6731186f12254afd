// The cache's second process (tests/helpers/cache_worker) started from a test: its standard
// output read line by line through a pipe, killed on demand, and how it ended.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace tq::test {

class WorkerProcess {
 public:
  static constexpr int kKilled = -9;  // what Finish() gives for a worker ended by Kill()

  // Starts the helper built next to this test with the given arguments (words or paths
  // without quotes).
  explicit WorkerProcess(const std::vector<std::string>& arguments) { Start(arguments); }
  WorkerProcess(const WorkerProcess&) = delete;
  WorkerProcess& operator=(const WorkerProcess&) = delete;
  ~WorkerProcess() {
    if (ok()) Kill(), Finish();
  }
  bool ok() const { return m_running; }

  // The next line of its output without the line end; empty at the end of the output.
  std::string ReadLine() {
    std::string line;
    char c = 0;
#if defined(_WIN32)
    for (DWORD got = 0; ::ReadFile(m_output, &c, 1, &got, nullptr) && got == 1 && c != '\n';) {
#else
    while (::read(m_output, &c, 1) == 1 && c != '\n') {
#endif
      if (c != '\r') line += c;  // text mode on Windows ends lines with CR LF
    }
    return line;
  }

  // Kills the worker at once, without letting it clean up (SIGKILL, TerminateProcess).
  void Kill() {
#if defined(_WIN32)
    m_killed = ::TerminateProcess(m_process, kKilledCode) != 0;
#else
    m_killed = ::kill(m_pid, SIGKILL) == 0;
#endif
  }

  // Waits for the worker to end: its exit status, or kKilled.
  int Finish() {
    m_running = false;
#if defined(_WIN32)
    DWORD code = 1;
    // A worker that hangs is ended after a minute, and reported as neither exited nor killed.
    if (::WaitForSingleObject(m_process, 60000) != WAIT_OBJECT_0) {
      ::TerminateProcess(m_process, 1);
      ::WaitForSingleObject(m_process, INFINITE);
      m_killed = false;
    }
    ::GetExitCodeProcess(m_process, &code);
    ::CloseHandle(m_process);
    ::CloseHandle(m_output);
    return m_killed && code == kKilledCode ? kKilled : static_cast<int>(code);
#else
    int status = 0;
    ::close(m_output);
    if (::waitpid(m_pid, &status, 0) != m_pid) return -1;
    if (WIFSIGNALED(status)) return m_killed && WTERMSIG(status) == SIGKILL ? kKilled : -1;
    return WEXITSTATUS(status);
#endif
  }

 private:
#if defined(_WIN32)
  static constexpr UINT kKilledCode = 0xDEAD;  // no path of the helper returns it

  void Start(const std::vector<std::string>& arguments) {
    std::wstring self(32768, L'\0');
    self.resize(::GetModuleFileNameW(nullptr, self.data(), static_cast<DWORD>(self.size())));
    const std::wstring helper =
        (std::filesystem::path(self).parent_path() / L"cache_worker.exe").wstring();
    std::wstring command_line = L"\"" + helper + L"\"";
    for (const std::string& argument : arguments) {
      command_line += L" \"" + std::filesystem::path(argument).wstring() + L"\"";
    }
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    HANDLE write_end = nullptr;
    if (!::CreatePipe(&m_output, &write_end, &inherit, 0)) return;
    ::SetHandleInformation(m_output, HANDLE_FLAG_INHERIT, 0);  // only the child's end
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = write_end;
    startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION info = {};
    m_running = ::CreateProcessW(helper.c_str(), command_line.data(), nullptr, nullptr, TRUE, 0,
                                 nullptr, nullptr, &startup, &info) != 0;
    // Once only the child holds the write end, its exit ends the output the parent reads.
    ::CloseHandle(write_end);
    if (!m_running) return void(::CloseHandle(m_output));
    ::CloseHandle(info.hThread);
    m_process = info.hProcess;
  }

  HANDLE m_process = nullptr;
  HANDLE m_output = nullptr;
#else
  void Start(const std::vector<std::string>& arguments) {
    const std::string helper =
        (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "cache_worker").string();
    std::vector<std::string> words = {helper};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    int pipe_ends[2];
    if (::pipe2(pipe_ends, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO);
    m_running = ::posix_spawn(&m_pid, helper.c_str(), &actions, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe_ends[1]);
    m_output = pipe_ends[0];
    if (!m_running) ::close(m_output);
  }

  pid_t m_pid = 0;
  int m_output = -1;
#endif
  bool m_running = false;
  bool m_killed = false;
};

}  // namespace tq::test
