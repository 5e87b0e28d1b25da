// The built velmora executable driven from outside: a headless run taking
// remote cues from oscsend (liblo-tools, a client nobody here wrote), and the
// verification suite behind "--run-tests".
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/TempDir.h"

extern char** environ;

namespace velmora {
namespace {

const std::string kVelmora = VELMORA_BINARY_DIR "/bin/velmora";

std::uint16_t freeUdpPort() {
  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_ANY);
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  ::close(fd);
  return ntohs(a.sin_port);
}

// A child process with its standard output (and error) read line by line.
class Child {
 public:
  Child(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    std::vector<std::string> env = extraEnv;
    for (char** e = environ; *e; ++e) {
      const std::string entry(*e);
      if (entry.rfind("VELMORA_CONFIG_DIR=", 0) != 0 && entry.rfind("VELMORA_TRACKING_PORTS=", 0) != 0) {
        env.push_back(entry);
      }
    }
    std::vector<char*> argv, envp;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    if (posix_spawn(&pid_, args[0].c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    out_ = fds[0];
  }
  ~Child() {
    if (pid_ > 0 && !exited_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) ::close(out_);
  }
  bool started() const { return pid_ > 0; }

  // Reads output until a line satisfies pred or the timeout passes.
  bool waitForLine(const std::function<bool(const std::string&)>& pred, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    std::size_t checked = 0;
    while (true) {
      for (; checked < lines_.size(); ++checked) {
        if (pred(lines_[checked])) return true;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0 || !readSome(static_cast<int>(left.count()))) return false;
    }
  }
  bool waitForLine(const std::string& line, double seconds) {
    return waitForLine([&](const std::string& l) { return l == line; }, seconds);
  }
  // Reads to end of output and reaps the child; its exit status, or -1.
  int wait(double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!eof_ && std::chrono::steady_clock::now() < deadline) readSome(100);
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return -1;
  }
  void signal(int sig) { ::kill(pid_, sig); }
  const std::vector<std::string>& lines() const { return lines_; }
  std::string output() const {
    std::string all;
    for (const auto& l : lines_) all += l + "\n";
    return all;
  }

 private:
  // False at end of output or timeout.
  bool readSome(int timeoutMs) {
    if (eof_) return false;
    pollfd p{out_, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) <= 0) return false;
    char buffer[4096];
    const ssize_t n = ::read(out_, buffer, sizeof buffer);
    if (n <= 0) {
      eof_ = true;
      return false;
    }
    partial_.append(buffer, static_cast<std::size_t>(n));
    std::size_t nl;
    while ((nl = partial_.find('\n')) != std::string::npos) {
      lines_.push_back(partial_.substr(0, nl));
      partial_.erase(0, nl + 1);
    }
    return true;
  }

  pid_t pid_ = -1;
  int out_ = -1;
  bool exited_ = false;
  bool eof_ = false;
  std::string partial_;
  std::vector<std::string> lines_;
};

int oscsend(const std::vector<std::string>& args) {
  std::vector<std::string> full = {"/usr/bin/oscsend"};
  full.insert(full.end(), args.begin(), args.end());
  Child c(full, {});
  return c.started() ? c.wait(10) : -1;
}

nlohmann::json readSettings(const std::filesystem::path& folder) {
  std::ifstream in(folder / "settings.json");
  return nlohmann::json::parse(in, nullptr, false);
}

TEST(VelmoraE2E, HeadlessRunTakesRemoteCuesFromOscsend) {
  if (::access("/usr/bin/oscsend", X_OK) != 0) GTEST_SKIP() << "oscsend (liblo-tools) is not installed";
  test::TempDir config;
  const std::uint16_t port = freeUdpPort();
  {
    std::ofstream(config.path() / "settings.json") << nlohmann::json{{"oscCuePort", port}}.dump();
  }
  // The tracking receiver listens on a free port too, never the fixed ones.
  Child velmora({kVelmora}, {"VELMORA_CONFIG_DIR=" + config.path().string(),
                             "VELMORA_TRACKING_PORTS=" + std::to_string(freeUdpPort())});
  ASSERT_TRUE(velmora.started());
  const std::string p = std::to_string(port);
  ASSERT_TRUE(velmora.waitForLine("[QLabOSCServer] QLab Remote Cue listener active on UDP port " + p, 20))
      << velmora.output();

  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/recentre"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/recentre []", 10)) << velmora.output();
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/Sensitivity", "f", "2.5"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/sensitivity [2.5]", 10)) << velmora.output();
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/lighting/preset", "s", "Top Light"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/lighting/preset [\"Top Light\"]", 10)) << velmora.output();
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/ghost/spook", "f", "3"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/ghost/spook [3]", 10)) << velmora.output();
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/no/such/thing"}), 0);
  // Unknown addresses are recorded, never dispatched: a known one after it still works.
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/ghost/stop"}), 0);
  EXPECT_TRUE(velmora.waitForLine("[OSC] /velmora/ghost/reset []", 10)) << velmora.output();

  velmora.signal(SIGINT);
  EXPECT_EQ(velmora.wait(20), 0) << velmora.output();
  EXPECT_TRUE(velmora.waitForLine("[Velmora] Stopped cleanly", 0)) << velmora.output();
  for (const auto& line : velmora.lines()) EXPECT_EQ(line.find("no/such"), std::string::npos) << line;

  // The commands' persisted effects: the look, and the ghost the cue switched to.
  const nlohmann::json settings = readSettings(config.path());
  ASSERT_TRUE(settings.is_object());
  EXPECT_EQ(settings["lightingSettings"]["preset"], "Top Light");
  EXPECT_EQ(settings["characterModel"], "cartoon_ghost");
  EXPECT_EQ(settings["oscCuePort"], port);
}

TEST(VelmoraE2E, HeadlessRunReportsAnOscPortInUse) {
  test::TempDir config;
  const int squatter = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_ANY);
  ASSERT_EQ(::bind(squatter, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  socklen_t len = sizeof a;
  ::getsockname(squatter, reinterpret_cast<sockaddr*>(&a), &len);
  const std::string p = std::to_string(ntohs(a.sin_port));
  {
    std::ofstream(config.path() / "settings.json") << nlohmann::json{{"oscCuePort", ntohs(a.sin_port)}}.dump();
  }
  Child velmora({kVelmora}, {"VELMORA_CONFIG_DIR=" + config.path().string(),
                             "VELMORA_TRACKING_PORTS=" + std::to_string(freeUdpPort())});
  ASSERT_TRUE(velmora.started());
  EXPECT_TRUE(velmora.waitForLine("[QLabOSCServer] Could not bind to port " + p + ": already in use by another app",
                                  20))
      << velmora.output();
  // A signal this early in start-up still ends the run cleanly.
  velmora.signal(SIGTERM);
  EXPECT_EQ(velmora.wait(20), 0) << velmora.output();
  ::close(squatter);
}

TEST(VelmoraE2E, RunTestsPrintsEveryCheckPassingAndExitsZero) {
  test::TempDir config;
  Child velmora({kVelmora, "--run-tests", "--snapshot", config.path().string()},
                {"VELMORA_CONFIG_DIR=" + config.path().string()});
  ASSERT_TRUE(velmora.started());
  EXPECT_EQ(velmora.wait(120), 0);
  const std::string out = velmora.output();

  int passes = 0, fails = 0;
  for (const auto& line : velmora.lines()) {
    if (line.rfind("  \xE2\x9C\x93 PASS: ", 0) == 0) ++passes;
    if (line.rfind("  \xE2\x9C\x97 FAIL: ", 0) == 0) ++fails;
  }
  EXPECT_EQ(fails, 0) << out;
  EXPECT_EQ(passes, 59) << out;
  EXPECT_NE(out.find("\n=== RUNNING VELMORA VERIFICATION SUITE ===\n"), std::string::npos) << out;
  EXPECT_NE(out.find("\n=== VERIFICATION RESULTS: 59 PASSED, 0 FAILED ===\n"), std::string::npos) << out;
  const char* headings[] = {"--- 1. UK English OSC Dispatch ---", "--- 2. Model Switching OSC Shortcuts ---",
                            "--- 3. Ghost Animation Cues & Auto-Selection ---",
                            "--- 4. Mask Gestures & Auto-Selection ---",
                            "--- 5. Graceful Blending & Return Verification ---",
                            "--- 6. Geometry & Holes Verification ---", "--- 7. OSC Master Toggle ---"};
  std::size_t at = 0;
  for (const char* h : headings) {
    const std::size_t found = out.find(std::string("\n\n") + h + "\n", at);
    EXPECT_NE(found, std::string::npos) << h;
    if (found != std::string::npos) at = found;
  }
  // A batch run starts no listener.
  EXPECT_EQ(out.find("[QLabOSCServer]"), std::string::npos) << out;
  // Measured values close their parenthesis.
  EXPECT_TRUE(std::regex_search(out, std::regex(R"(Ghost Spook Z offset stays <= 0\.35m \(body fully inside frame, actual: 0\.3[0-9]*\)\n)")))
      << out;
  EXPECT_TRUE(std::regex_search(out, std::regex(R"(Mask bow tilts head DOWN \(pitch > 0, actual: 0\.5\)\n)"))) << out;
  // The operator's persisted remote-control switch is left as it was.
  const nlohmann::json settings = readSettings(config.path());
  ASSERT_TRUE(settings.is_object());
  EXPECT_EQ(settings.value("isOSCEnabled", true), true);
}

}  // namespace
}  // namespace velmora
