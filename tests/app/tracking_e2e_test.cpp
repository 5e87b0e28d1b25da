// The built velmora and the phone simulator on loopback: for every wire
// format the headless status line shows packets arriving and being ingested,
// and SIGINT ends the run cleanly with status 0.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "support/TempDir.h"

extern char** environ;

namespace velmora {
namespace {

const std::string kVelmora = VELMORA_BINARY_DIR "/bin/velmora";
const std::string kPhoneSim = VELMORA_BINARY_DIR "/bin/velmora-phone-sim";

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

// A child process whose standard output and error are read line by line.
class Process {
 public:
  Process(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    std::vector<std::string> env = extraEnv;
    for (char** e = environ; *e; ++e) {
      const std::string entry = *e;
      if (entry.rfind("VELMORA_CONFIG_DIR=", 0) != 0 && entry.rfind("VELMORA_TRACKING_PORTS=", 0) != 0)
        env.push_back(entry);
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
  ~Process() {
    if (pid_ > 0 && !exited_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) ::close(out_);
  }
  bool started() const { return pid_ > 0; }

  // Reads output until a complete line satisfies pred; false at the
  // timeout or end of output.
  bool waitForLine(const std::function<bool(const std::string&)>& pred, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (true) {
      while (next_ < lines_.size()) {
        if (pred(lines_[next_++])) return true;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd p{out_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char buf[4096];
      const ssize_t n = ::read(out_, buf, sizeof buf);
      if (n <= 0) return false;
      partial_.append(buf, static_cast<std::size_t>(n));
      for (std::size_t nl; (nl = partial_.find('\n')) != std::string::npos;) {
        lines_.push_back(partial_.substr(0, nl));
        partial_.erase(0, nl + 1);
      }
    }
  }

  // Sends the signal and waits; the exit status, or -1 when it did not exit normally.
  int stop(int signal, double seconds) {
    ::kill(pid_, signal);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    int status = 0;
    while (std::chrono::steady_clock::now() < deadline) {
      waitForLine([](const std::string&) { return false; }, 0.05);  // keep the pipe drained
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        exited_ = true;
        waitForLine([](const std::string&) { return false; }, 0.2);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
    }
    return -1;
  }

  // Runs to completion; the exit status.
  int wait() {
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) != pid_) waitForLine([](const std::string&) { return false; }, 0.05);
    exited_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  const std::vector<std::string>& lines() const { return lines_; }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  bool exited_ = false;
  std::string partial_;
  std::vector<std::string> lines_;
  std::size_t next_ = 0;
};

std::string allOutput(const Process& p) {
  std::string s;
  for (const auto& l : p.lines()) s += l + "\n";
  return s;
}

TEST(TrackingEndToEndTest, EveryFormatFromThePhoneSimulatorReachesTheState) {
  test::TempDir config;
  const std::vector<std::uint16_t> ports{freeUdpPort(), freeUdpPort(), freeUdpPort()};
  const std::string portList =
      std::to_string(ports[0]) + "," + std::to_string(ports[1]) + "," + std::to_string(ports[2]);
  Process velmora({kVelmora}, {"VELMORA_CONFIG_DIR=" + config.path().string(), "VELMORA_TRACKING_PORTS=" + portList});
  ASSERT_TRUE(velmora.started()) << kVelmora;

  for (std::uint16_t port : ports) {
    const std::string listening = "[TrackingReceiver] Listening for ARKit facial tracking on UDP port " + std::to_string(port);
    ASSERT_TRUE(velmora.waitForLine([&](const std::string& l) { return l == listening; }, 20.0))
        << "no listening line for " << port << "\n" << allOutput(velmora);
  }

  const std::regex status(R"(\[Velmora\] tracking: ([0-9]+\.[0-9]) packets/s from (.*), ([0-9]+) received.*)");
  unsigned long long received = 0;
  const std::vector<std::string> formats{"livelink", "ifacialmocap", "osc", "vmc", "json"};
  for (std::size_t i = 0; i < formats.size(); ++i) {
    const std::uint16_t port = ports[i % ports.size()];
    Process sim({kPhoneSim, "--format", formats[i], "--port", std::to_string(port), "--duration", "2.5"}, {});
    ASSERT_TRUE(sim.started()) << kPhoneSim;
    ASSERT_EQ(sim.wait(), 0) << allOutput(sim);

    // A status line counting well over a second's worth of this format's
    // packets, from the loopback sender, in a known format.
    std::string seen;
    const bool arrived = velmora.waitForLine(
        [&](const std::string& l) {
          std::smatch m;
          if (!std::regex_match(l, m, status)) return false;
          seen = l;
          EXPECT_EQ(m[2].str().find("(Unknown format)"), std::string::npos) << formats[i] << ": " << l;
          EXPECT_EQ(m[2].str().rfind("127.0.0.1:", 0), 0u) << l;
          EXPECT_GT(std::stod(m[1].str()), 0.0) << l;
          return std::stoull(m[3].str()) >= received + 100;
        },
        6.0);
    ASSERT_TRUE(arrived) << formats[i] << ": last status line \"" << seen << "\"\n" << allOutput(velmora);
    std::smatch m;
    std::regex_match(seen, m, status);
    received = std::stoull(m[3].str());
  }

  EXPECT_EQ(velmora.stop(SIGINT, 15.0), 0) << allOutput(velmora);
  const auto& lines = velmora.lines();
  EXPECT_NE(std::find(lines.begin(), lines.end(), "[Velmora] Stopped cleanly"), lines.end()) << allOutput(velmora);
}

TEST(TrackingEndToEndTest, UnknownFormatIsShownAsSuch) {
  test::TempDir config;
  const std::uint16_t port = freeUdpPort();
  Process velmora({kVelmora}, {"VELMORA_CONFIG_DIR=" + config.path().string(),
                               "VELMORA_TRACKING_PORTS=" + std::to_string(port)});
  ASSERT_TRUE(velmora.started());
  ASSERT_TRUE(velmora.waitForLine(
      [&](const std::string& l) { return l.find("UDP port " + std::to_string(port)) != std::string::npos; }, 20.0))
      << allOutput(velmora);

  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool shown = false;
  for (int i = 0; i < 200 && !shown; ++i) {  // up to about 4 s of 50 datagrams/s
    const char payload[] = "hello phone";
    ::sendto(fd, payload, sizeof payload - 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    shown = velmora.waitForLine(
        [](const std::string& l) {
          return l.rfind("[Velmora] tracking: ", 0) == 0 && l.find(" (Unknown format), ") != std::string::npos;
        },
        0.02);
  }
  ::close(fd);
  EXPECT_TRUE(shown) << allOutput(velmora);
  EXPECT_EQ(velmora.stop(SIGINT, 15.0), 0) << allOutput(velmora);
}

}  // namespace
}  // namespace velmora
