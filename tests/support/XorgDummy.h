#pragma once
// A private X server for window tests: Xorg with the dummy video driver and
// one or two 1920x1080 monitors side by side (RandR outputs "DUMMY0" and
// "DUMMY1", as GLFW lists them), on a display number nobody holds. No window
// manager runs, so windows sit exactly where they ask to be. The server is
// always stopped (SIGTERM, then SIGKILL) when the object goes.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "support/ChildProcess.h"

namespace velmora::test {

class XorgDummy {
 public:
  XorgDummy(const std::filesystem::path& folder, int monitors)
      : config_(folder / "xorg-dummy.conf"), log_(folder / "xorg.log") {
    writeConfig(monitors);
    // A display number nobody holds; when another test's server takes the
    // same one first, this one exits at once and the next number is tried.
    for (int n = 90 + (::getpid() % 50); n < 250 && !ready_; ++n) {
      display_ = n;
      ready_ = !std::filesystem::exists("/tmp/.X11-unix/X" + std::to_string(n)) &&
               !std::filesystem::exists("/tmp/.X" + std::to_string(n) + "-lock") && launch();
    }
    if (!ready_) display_ = -1;
  }
  ~XorgDummy() { stopProcess(pid_, SIGTERM, 5.0); }
  XorgDummy(const XorgDummy&) = delete;
  XorgDummy& operator=(const XorgDummy&) = delete;

  bool ready() const { return ready_; }
  std::string display() const { return ":" + std::to_string(display_); }
  const std::filesystem::path& logFile() const { return log_; }

 private:
  // Starts Xorg on display_; true once its socket is there (about half a
  // second) and the server still runs. It exits at once when the display was
  // taken meanwhile, and the socket may then be the other server's.
  bool launch() {
    pid_ = spawnProcess({"/usr/bin/Xorg", ":" + std::to_string(display_), "-config", config_.string(), "-noreset",
                         "-nolisten", "tcp", "-logfile", log_.string()},
                        environmentWithout("VELMORA_"));
    const auto exited = [&] { return pid_ <= 0 || ::waitpid(pid_, nullptr, WNOHANG) == pid_; };
    const std::string socket = "/tmp/.X11-unix/X" + std::to_string(display_);
    bool gone = false;
    if (eventually([&] { return (gone = exited()) || std::filesystem::exists(socket); }, 15.0) && !gone) {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      if (!(gone = exited())) return true;
    }
    if (gone) pid_ = -1;
    stopProcess(pid_, SIGKILL);  // still starting after 15 s
    return false;
  }

  void writeConfig(int monitors) {
    std::ofstream c(config_);
    c << "Section \"ServerFlags\"\n"
         "  Option \"AutoAddDevices\" \"false\"\n"
         "  Option \"AutoAddGPU\" \"false\"\n"
         "EndSection\n"
         "Section \"Device\"\n"
         "  Identifier \"dummy\"\n"
         "  Driver \"dummy\"\n"
         "  VideoRam 65536\n";
    for (int i = 0; i < monitors; ++i) c << "  Option \"Monitor-DUMMY" << i << "\" \"Monitor" << i << "\"\n";
    c << "EndSection\n";
    for (int i = 0; i < monitors; ++i) {
      c << "Section \"Monitor\"\n"
           "  Identifier \"Monitor" << i << "\"\n"
           "  HorizSync 5-1000\n"
           "  VertRefresh 5-200\n"
           "  Modeline \"1920x1080\" 148.50 1920 2008 2052 2200 1080 1084 1089 1125\n"
           "  Option \"PreferredMode\" \"1920x1080\"\n"
           // Without Enable only the first output lights up.
           "  Option \"Enable\" \"true\"\n"
           "  Option \"Position\" \"" << i * 1920 << " 0\"\n"
           "EndSection\n";
    }
    c << "Section \"Screen\"\n"
         "  Identifier \"screen\"\n"
         "  Device \"dummy\"\n"
         "  Monitor \"Monitor0\"\n"
         "  DefaultDepth 24\n"
         "  SubSection \"Display\"\n"
         "    Depth 24\n"
         "    Virtual " << monitors * 1920 << " 1080\n"
         "  EndSubSection\n"
         "EndSection\n";
  }

  std::filesystem::path config_, log_;
  int display_ = -1;
  pid_t pid_ = -1;
  bool ready_ = false;
};

}  // namespace velmora::test
