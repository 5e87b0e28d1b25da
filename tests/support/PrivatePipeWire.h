#pragma once
// A private, headless PipeWire session for one test: the pipewire daemon and
// wireplumber (for automatic linking) under a fresh 0700 XDG_RUNTIME_DIR, no
// D-Bus, no devices. While it lives, this process's XDG_RUNTIME_DIR points at
// it (so in-process PipeWire clients find it) and env() gives the same
// entries for child processes. Both daemons are always stopped (SIGTERM,
// then SIGKILL) when the object goes, also when a test fails.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

namespace velmora::test {

class PrivatePipeWire {
 public:
  // Starts nothing: call start().
  PrivatePipeWire() {
    const auto& root = dir_.path();
    ::chmod(root.c_str(), 0700);
    std::filesystem::create_directories(root / "state");
    std::filesystem::create_directories(root / "config/wireplumber/main.lua.d");
    // wireplumber.conf without the bluetooth component (no D-Bus here).
    std::ifstream in("/usr/share/wireplumber/wireplumber.conf");
    std::ofstream out(root / "config/wireplumber/wireplumber.conf");
    for (std::string line; std::getline(in, line);)
      if (line.find("bluetooth.lua") == std::string::npos) out << line << '\n';
    // Sorts before 90-enable-all.lua, which reads these switches.
    std::ofstream(root / "config/wireplumber/main.lua.d/60-velmora-test.lua")
        << "default_access.properties[\"enable-flatpak-portal\"] = false\n"
           "alsa_monitor.enabled = false\n"
           "v4l2_monitor.enabled = false\n"
           "libcamera_monitor.enabled = false\n";
  }
  ~PrivatePipeWire() { stop(); }
  PrivatePipeWire(const PrivatePipeWire&) = delete;
  PrivatePipeWire& operator=(const PrivatePipeWire&) = delete;

  // Starts pipewire, waits for its socket, then wireplumber; true when the
  // daemon answers (pw-cli info 0).
  bool start() {
    const auto socket = dir_.path() / "pipewire-0";
    std::error_code ec;
    std::filesystem::remove(socket, ec);
    pipewire_ = spawn({"/usr/bin/pipewire"}, "pipewire.log");
    eventually([&] { return std::filesystem::exists(socket); }, 2.0);
    wireplumber_ = spawn({"/usr/bin/wireplumber"}, "wireplumber.log");
    return eventually([&] { return run({"/usr/bin/pw-cli", "info", "0"}) == 0; }, 2.5);
  }
  // Kills both daemons at once (SIGKILL), as a crash would.
  void kill() {
    killOne(wireplumber_, SIGKILL);
    killOne(pipewire_, SIGKILL);
  }
  void stop() {
    killOne(wireplumber_, SIGTERM);
    killOne(pipewire_, SIGTERM);
  }

  // Entries for a child process that should use this session.
  std::vector<std::string> env() const {
    return {"XDG_RUNTIME_DIR=" + dir_.path().string(), "XDG_STATE_HOME=" + (dir_.path() / "state").string(),
            "XDG_CONFIG_HOME=" + (dir_.path() / "config").string()};
  }
  const std::filesystem::path& dir() const { return dir_.path(); }

  // Runs a command in this session and returns its exit status (-1 when it
  // could not run); its output is appended to `outputFile` (in dir()) or dropped.
  int run(const std::vector<std::string>& args, const std::string& outputFile = {}) const {
    const pid_t pid = spawn(args, outputFile);
    int status = 0;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // Waits until a node of this name is in the registry (pw-cli's listing).
  bool waitForNode(const std::string& name, double seconds) const {
    return eventually(
        [&] {
          ChildProcess ls({"/usr/bin/pw-cli", "ls", "Node"}, env());
          return ls.wait(10) == 0 && ls.output().find("node.name = \"" + name + "\"") != std::string::npos;
        },
        seconds);
  }

  // Starts a command in this session without waiting (stdout and stderr to
  // `outputFile` in dir(), or dropped).
  pid_t spawn(const std::vector<std::string>& args, const std::string& outputFile = {}) const {
    const int fd = outputFile.empty() ? -1
                                      : ::open((dir_.path() / outputFile).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const pid_t pid = spawnProcess(args, environmentWithout("XDG_", env()), fd);
    if (fd >= 0) ::close(fd);
    return pid;
  }
  // Signals a process started with spawn() and reaps it (SIGKILL after 2 s).
  static void killOne(pid_t& pid, int sig) { stopProcess(pid, sig); }

 private:
  TempDir dir_;
  ScopedEnv runtimeDir_{"XDG_RUNTIME_DIR", dir_.path().c_str()};  // put back when the object goes
  pid_t pipewire_ = -1;
  pid_t wireplumber_ = -1;
};

}  // namespace velmora::test
