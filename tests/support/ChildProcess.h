#pragma once
// Programs started from a test: spawnProcess() (the one posix_spawn here,
// under ChildProcess, PrivatePipeWire and XorgDummy) and ChildProcess, which
// reads a program's standard output and error line by line, signals it and
// collects its exit status.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/UdpSocket.h"

extern char** environ;

namespace velmora::test {

// A program this build made, by name: builtProgram("velmora").
inline std::string builtProgram(const std::string& name) { return std::string(VELMORA_BINARY_DIR "/bin/") + name; }

// This process's environment without the entries whose name starts with
// `dropPrefix`, after the entries in `first` (which so take precedence).
inline std::vector<std::string> environmentWithout(const std::string& dropPrefix, std::vector<std::string> first = {}) {
  for (char** e = environ; *e; ++e)
    if (!std::string_view(*e).starts_with(dropPrefix)) first.emplace_back(*e);
  return first;
}

// Starts the program at path args[0] with exactly `environment`, standard
// output and error both to `outputFd` (-1: /dev/null); its id, or -1. Open
// descriptors the child must not keep are opened close-on-exec.
inline pid_t spawnProcess(const std::vector<std::string>& args, const std::vector<std::string>& environment,
                          int outputFd = -1) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (outputFd >= 0)
    posix_spawn_file_actions_adddup2(&actions, outputFd, 1);
  else
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  std::vector<char*> argv, envp;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  pid_t pid = -1;
  const int failed = args.empty() || posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return failed ? -1 : pid;
}

// Polls `pred` until it holds or `seconds` pass; its last answer.
inline bool eventually(const std::function<bool()>& pred, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return pred();
}

// Signals a started process and reaps it, with SIGKILL after `graceSeconds`;
// the id becomes -1. Nothing when it is -1 already.
inline void stopProcess(pid_t& pid, int sig, double graceSeconds = 2.0) {
  if (pid <= 0) return;
  ::kill(pid, sig);
  if (!eventually([&] { return ::waitpid(pid, nullptr, WNOHANG) == pid; }, graceSeconds)) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  pid = -1;
}

class ChildProcess {
 public:
  // extraEnv entries ("NAME=value") replace the test's own VELMORA_* settings,
  // which are never inherited: each child gets exactly the folder and ports
  // its test chose.
  ChildProcess(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return;
    pid_ = spawnProcess(args, environmentWithout("VELMORA_", extraEnv), fds[1]);
    ::close(fds[1]);
    out_ = fds[0];
  }
  ~ChildProcess() {
    if (!exited_) stopProcess(pid_, SIGKILL);
    if (out_ >= 0) ::close(out_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The child's process id (for /proc/<pid>), -1 when it did not start.
  pid_t pid() const { return pid_; }

  // Consumes output lines in order until one satisfies pred; false at the
  // timeout or the end of output. Lines already read but not yet consumed
  // are looked at first.
  bool waitForLine(const std::function<bool(const std::string&)>& pred, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (true) {
      while (next_ < lines_.size())
        if (pred(lines_[next_++])) return true;
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0 || !readSome(static_cast<int>(left.count()))) return false;
    }
  }
  bool waitForLine(const std::string& line, double seconds) {
    return waitForLine([&](const std::string& l) { return l == line; }, seconds);
  }

  // Reads to the end of output and reaps the child: its exit status, or -1
  // when it did not start or did not exit normally within the time.
  int wait(double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    int status = 0;
    while (pid_ > 0 && std::chrono::steady_clock::now() < deadline) {
      readSome(50);
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        exited_ = true;
        while (readSome(100)) {
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
    }
    return -1;
  }
  // Sends the signal (0: none, the child ends by itself), then wait().
  int stop(int sig, double seconds) {
    if (sig) ::kill(pid_, sig);
    return wait(seconds);
  }

  const std::vector<std::string>& lines() const { return lines_; }
  // How many lines read so far are `line`, or start with `prefix`.
  long printed(const std::string& line) const { return std::count(lines_.begin(), lines_.end(), line); }
  long printedStarting(const std::string& prefix) const {
    return std::count_if(lines_.begin(), lines_.end(), [&](const std::string& l) { return l.starts_with(prefix); });
  }
  std::string output() const {
    std::string all;
    for (const auto& l : lines_) all += l + "\n";
    return all;
  }

 private:
  // False at the end of output or the timeout.
  bool readSome(int timeoutMs) {
    pollfd p{out_, POLLIN, 0};
    if (eof_ || ::poll(&p, 1, timeoutMs) <= 0) return false;
    char buffer[4096];
    const ssize_t n = ::read(out_, buffer, sizeof buffer);
    if (n <= 0) {
      eof_ = true;
      return false;
    }
    partial_.append(buffer, static_cast<std::size_t>(n));
    for (std::size_t nl; (nl = partial_.find('\n')) != std::string::npos; partial_.erase(0, nl + 1))
      lines_.push_back(partial_.substr(0, nl));
    return true;
  }

  pid_t pid_ = -1;
  int out_ = -1;
  bool exited_ = false;
  bool eof_ = false;
  std::string partial_;
  std::vector<std::string> lines_;
  std::size_t next_ = 0;
};

// How a program run to its end went: its exit status (-1 when it did not
// start or did not exit within the time) and its output.
struct Finished {
  int status = -1;
  std::string output;
};

// Runs `args` to the end, at most `seconds`, with the test's own settings
// folder (VELMORA_CONFIG_DIR) passed on and `env` added.
inline Finished runToEnd(const std::vector<std::string>& args, std::vector<std::string> env = {}, double seconds = 60) {
  if (const char* config = std::getenv("VELMORA_CONFIG_DIR")) env.push_back(std::string("VELMORA_CONFIG_DIR=") + config);
  ChildProcess child(args, env);
  const int status = child.wait(seconds);
  return {status, child.output()};
}

// Runs a /bin/sh script to the end; $1, $2, ... are `params` (no quoting needed).
inline Finished shell(const std::string& script, const std::vector<std::string>& params = {},
                      std::vector<std::string> env = {}, double seconds = 300) {
  std::vector<std::string> args{"/bin/sh", "-c", script, "sh"};
  args.insert(args.end(), params.begin(), params.end());
  return runToEnd(args, std::move(env), seconds);
}

}  // namespace velmora::test
