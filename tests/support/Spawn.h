#pragma once
// Starting a program from a test without waiting for it: the one
// posix_spawn under ChildProcess, PrivatePipeWire and XorgDummy.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace velmora::test {

// This process's environment without the entries whose name starts with
// `dropPrefix`, after the entries in `first` (which so take precedence).
inline std::vector<std::string> environmentWithout(const std::string& dropPrefix, std::vector<std::string> first = {}) {
  for (char** e = environ; *e; ++e) {
    const std::string entry = *e;
    if (entry.rfind(dropPrefix, 0) != 0) first.push_back(entry);
  }
  return first;
}

struct SpawnOptions {
  // The child's whole environment; none: this process's.
  const std::vector<std::string>* environment = nullptr;
  // Standard output and error both go to this descriptor, else to this file
  // (appended, created 0600), else to /dev/null.
  int outputFd = -1;
  std::string outputFile;
  // A descriptor the child must not inherit open (the read end of its pipe).
  int closeFd = -1;
  // Look args[0] up in PATH instead of taking it as a path.
  bool searchPath = false;
};

// The child's process id, or -1 when it could not be started.
inline pid_t spawnProcess(const std::vector<std::string>& args, const SpawnOptions& options = {}) {
  if (args.empty()) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (options.outputFd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, options.outputFd, 1);
  } else {
    const std::string out = options.outputFile.empty() ? "/dev/null" : options.outputFile;
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  }
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  if (options.closeFd >= 0) posix_spawn_file_actions_addclose(&actions, options.closeFd);
  std::vector<char*> argv, envp;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  char** env = environ;
  if (options.environment) {
    for (const auto& e : *options.environment) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    env = envp.data();
  }
  pid_t pid = -1;
  const int failed = options.searchPath ? posix_spawnp(&pid, args[0].c_str(), &actions, nullptr, argv.data(), env)
                                        : posix_spawn(&pid, args[0].c_str(), &actions, nullptr, argv.data(), env);
  posix_spawn_file_actions_destroy(&actions);
  return failed ? -1 : pid;
}

// Signals a started process and reaps it, with SIGKILL after `graceSeconds`;
// the id becomes -1. Nothing when it is -1 already.
inline void stopProcess(pid_t& pid, int sig, double graceSeconds = 2.0) {
  if (pid <= 0) return;
  ::kill(pid, sig);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(graceSeconds);
  while (::waitpid(pid, nullptr, WNOHANG) != pid) {
    if (std::chrono::steady_clock::now() >= deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  pid = -1;
}

}  // namespace velmora::test
