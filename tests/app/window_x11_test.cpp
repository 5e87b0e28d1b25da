// The built velmora with a display: a private Xorg with dummy monitors, the
// phone simulator streaming, keys through xdotool, screenshots through xwd.
// The main window opens and shows the dashboard's panels with live data;
// Ctrl+P puts the projector (black, the character in the middle) on the
// second monitor and Ctrl+P again takes it away; Ctrl+R and Ctrl+O reach
// their menu entries; closing the main window ends the run with status 0.
// With one monitor the projector covers that one. Screenshots stay in
// <build>/screenshots for people (and the README's pictures).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/ChildProcess.h"
#include "support/PrivatePipeWire.h"
#include "support/StbImage.h"
#include "support/TempDir.h"
#include "support/XorgDummy.h"

// Last: Xlib's macros (None, Bool, Status) must not reach the headers above.
#include <X11/Xlib.h>

namespace velmora {
namespace {

const std::string kVelmora = test::builtProgram("velmora");
const std::string kPhoneSim = test::builtProgram("velmora-phone-sim");
const std::filesystem::path kShots = VELMORA_BINARY_DIR "/screenshots";

// Runs a command against the display; its standard output, trailing newline removed.
std::string run(const std::string& display, const std::string& command) {
  std::string out;
  if (FILE* p = ::popen(("DISPLAY=" + display + " " + command + " 2>/dev/null").c_str(), "r")) {
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, p)) out += buffer;
    ::pclose(p);
  }
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  return out;
}

struct Image {
  int width = 0, height = 0;
  std::vector<unsigned char> rgb;
  const unsigned char* at(int x, int y) const { return rgb.data() + (static_cast<std::size_t>(y) * width + x) * 3; }
  // Pixels in the rectangle for which pred(r, g, b) holds.
  template <class Pred>
  int count(int x0, int y0, int x1, int y1, Pred pred) const {
    int n = 0;
    for (int y = y0; y < y1; ++y)
      for (int x = x0; x < x1; ++x) n += pred(at(x, y)[0], at(x, y)[1], at(x, y)[2]) ? 1 : 0;
    return n;
  }
};

// One monitor's area of the screen, saved as a PNG under kShots and loaded back.
Image screenshot(const std::string& display, int monitor, const std::string& name) {
  std::filesystem::create_directories(kShots);
  const auto path = kShots / name;
  run(display, "xwd -root -silent | convert xwd:- -crop 1920x1080+" + std::to_string(monitor * 1920) +
                   "+0 +repage " + path.string());
  Image image;
  int channels = 0;
  if (unsigned char* data = stbi_load(path.c_str(), &image.width, &image.height, &channels, 3)) {
    image.rgb.assign(data, data + static_cast<std::size_t>(image.width) * image.height * 3);
    stbi_image_free(data);
  }
  return image;
}

// What a window manager sends when the operator clicks the close box.
void requestClose(const std::string& display, const std::string& window) {
  ::Display* d = XOpenDisplay(display.c_str());
  if (!d) return;
  XEvent e{};
  e.xclient.type = ClientMessage;
  e.xclient.window = std::stoul(window);
  e.xclient.message_type = XInternAtom(d, "WM_PROTOCOLS", False);
  e.xclient.format = 32;
  e.xclient.data.l[0] = static_cast<long>(XInternAtom(d, "WM_DELETE_WINDOW", False));
  e.xclient.data.l[1] = CurrentTime;
  XSendEvent(d, e.xclient.window, False, NoEventMask, &e);
  XFlush(d);
  XCloseDisplay(d);
}

// Presses a key combination in a window (focused first: no window manager gives focus).
void press(const std::string& display, const std::string& window, const std::string& keys) {
  run(display, "xdotool windowfocus --sync " + window);
  run(display, "xdotool key " + keys);
}

bool eventually(const std::function<bool()>& pred, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
  }
  return pred();
}

// The character on black: every corner black, something bright in the middle.
bool showsCharacterOnBlack(const Image& s) {
  if (s.width != 1920 || s.height != 1080) return false;
  auto black = [](int r, int g, int b) { return r == 0 && g == 0 && b == 0; };
  for (auto [x, y] : {std::pair{0, 0}, {1800, 0}, {0, 1000}, {1800, 1000}}) {
    if (s.count(x, y, x + 100, y + 60, black) != 100 * 60) return false;
  }
  return s.count(760, 340, 1160, 740, [](int r, int g, int b) { return r + g + b > 300; }) > 20000;
}

struct Session {
  explicit Session(int monitors) : xorg(dir.path(), monitors) {}
  void start(const std::vector<std::string>& extraEnv = {}, bool ndi = false) {
    std::ofstream(dir.path() / "settings.json")
        << nlohmann::json{{"oscCuePort", test::freeUdpPort()}, {"ndiOutputEnabled", ndi}}.dump();
    std::vector<std::string> env{"DISPLAY=" + xorg.display(), "VELMORA_CONFIG_DIR=" + dir.path().string(),
                                 "VELMORA_TRACKING_PORTS=" + std::to_string(trackingPort)};
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    velmora = std::make_unique<test::ChildProcess>(std::vector<std::string>{kVelmora}, env);
  }
  bool logged(const std::string& line, double seconds = 30.0) {
    return velmora->waitForLine([&](const std::string& l) { return l == line; }, seconds);
  }
  std::string window(const std::string& name) {
    return run(xorg.display(), "xdotool search --onlyvisible --name '^" + name + "$' | head -1");
  }

  test::TempDir dir;
  test::XorgDummy xorg;
  std::uint16_t trackingPort = test::freeUdpPort();
  std::unique_ptr<test::ChildProcess> velmora;
};

TEST(WindowX11Test, DashboardProjectorShortcutsAndClosingOnTwoMonitors) {
  Session s(2);
  ASSERT_TRUE(s.xorg.ready()) << "Xorg with the dummy driver did not start; see " << s.xorg.logFile();
  // Both publishers run (a private PipeWire, the NDI runtime double), so
  // closing the window must stop them.
  test::PrivatePipeWire pipewire;
  ASSERT_TRUE(pipewire.start());
  std::vector<std::string> env = pipewire.env();
  env.push_back(std::string("NDI_RUNTIME_DIR_V6=") + VELMORA_NDI_DOUBLE_DIR);
  s.start(env, true);
  ASSERT_TRUE(s.velmora->started());
  ASSERT_TRUE(s.logged("[Velmora] Main window open; close it (or press Ctrl-C) to stop")) << s.velmora->output();
  std::string main;
  ASSERT_TRUE(eventually([&] { return !(main = s.window("Velmora")).empty(); }, 10.0));
  EXPECT_EQ(run(s.xorg.display(), "xdotool getwindowfocus"), main) << "the main window comes to the front";

  // The phone streams; the expression bars and the preview fill in.
  test::ChildProcess phone({kPhoneSim, "--port", std::to_string(s.trackingPort), "--duration", "60"}, {});
  ASSERT_TRUE(phone.started());
  Image dashboard;
  auto processedBar = [](int r, int g, int b) { return r == 80 && g == 150 && b == 250; };
  ASSERT_TRUE(eventually(
      [&] {
        dashboard = screenshot(s.xorg.display(), 0, "dashboard.png");
        // The bars, and a rendered frame in the preview (more than its checks and caption).
        auto notChecker = [](int r, int g, int b) {
          return !(r == g && g == b && (r == 150 || r == 105 || r == 255));
        };
        return dashboard.width == 1920 && dashboard.count(0, 0, 1340, 690, processedBar) > 200 &&
               dashboard.count(390, 70, 820, 300, notChecker) > 5000;
      },
      90.0))
      << "no expression bars or no preview frame in " << (kShots / "dashboard.png");
  // The three columns carry their panels' title bars (blue headers).
  auto header = [](int r, int g, int b) { return b > 70 && b > r + 40 && g > r + 15; };
  EXPECT_GT(dashboard.count(10, 30, 350, 680, header), 2000) << "left column";
  EXPECT_GT(dashboard.count(390, 30, 840, 680, header), 2000) << "middle column";
  EXPECT_GT(dashboard.count(880, 30, 1320, 680, header), 2000) << "right column";
  // The preview's checkerboard.
  EXPECT_GT(dashboard.count(380, 30, 840, 400, [](int r, int g, int b) { return r == 150 && g == 150 && b == 150; }),
            2000);

  // Ctrl+P: the projector covers the second monitor, black with the character.
  press(s.xorg.display(), main, "ctrl+p");
  ASSERT_TRUE(s.logged("[ProjectorWindowController] Opened fullscreen projector window on 'DUMMY1'"))
      << s.velmora->output();
  std::string projector;
  ASSERT_TRUE(eventually([&] { return !(projector = s.window("Velmora Projector")).empty(); }, 10.0));
  const std::string geometry = run(s.xorg.display(), "xdotool getwindowgeometry " + projector);
  EXPECT_NE(geometry.find("Position: 1920,0"), std::string::npos) << geometry;
  EXPECT_NE(geometry.find("Geometry: 1920x1080"), std::string::npos) << geometry;
  Image shown;
  EXPECT_TRUE(eventually(
      [&] { return showsCharacterOnBlack(shown = screenshot(s.xorg.display(), 1, "projector.png")); }, 90.0))
      << "see " << (kShots / "projector.png");

  // Ctrl+P again, from the projector: it goes, and only the main window is left.
  press(s.xorg.display(), projector, "ctrl+p");
  ASSERT_TRUE(s.logged("[ProjectorWindowController] Closed projector window.")) << s.velmora->output();
  EXPECT_TRUE(eventually([&] { return s.window("Velmora Projector").empty(); }, 10.0));

  press(s.xorg.display(), main, "ctrl+r");
  EXPECT_TRUE(s.logged("[Dashboard] Stage Control > Recentre Neutral Pose")) << s.velmora->output();
  press(s.xorg.display(), main, "ctrl+o");
  EXPECT_TRUE(s.logged("[Dashboard] Window > OSC Commands & Cues")) << s.velmora->output();
  // The commands window covers the middle of the dashboard.
  auto changedFromDashboard = [&](const Image& now) {
    int differ = 0;
    for (int y = 200; y < 500; ++y)
      for (int x = 400; x < 960; ++x) differ += std::memcmp(now.at(x, y), dashboard.at(x, y), 3) != 0;
    return differ;
  };
  EXPECT_TRUE(eventually(
      [&] {
        const Image osc = screenshot(s.xorg.display(), 0, "osc-commands.png");
        return osc.width == 1920 && changedFromDashboard(osc) > 560 * 300 / 4;
      },
      10.0))
      << "see " << (kShots / "osc-commands.png");

  // Closing the main window (the close box) ends the run cleanly.
  requestClose(s.xorg.display(), main);
  EXPECT_EQ(s.velmora->wait(60), 0) << s.velmora->output();
  const std::string out = s.velmora->output();
  EXPECT_NE(out.find("[Velmora] Main window closed, shutting down"), std::string::npos) << out;
  EXPECT_NE(out.find("[Syphon] Server stopped"), std::string::npos) << out;
  EXPECT_NE(out.find("[NDI] Sender stopped"), std::string::npos) << out;
  EXPECT_NE(out.find("[Velmora] Stopped cleanly"), std::string::npos) << out;
}

TEST(WindowX11Test, WithOneMonitorTheProjectorCoversItAndSigtermEndsTheRun) {
  Session s(1);
  ASSERT_TRUE(s.xorg.ready()) << "Xorg with the dummy driver did not start; see " << s.xorg.logFile();
  s.start();
  ASSERT_TRUE(s.logged("[Velmora] Main window open; close it (or press Ctrl-C) to stop")) << s.velmora->output();
  std::string main;
  ASSERT_TRUE(eventually([&] { return !(main = s.window("Velmora")).empty(); }, 10.0));
  press(s.xorg.display(), main, "ctrl+p");
  ASSERT_TRUE(s.logged("[ProjectorWindowController] Opened fullscreen projector window on 'DUMMY0'"))
      << s.velmora->output();
  std::string projector;
  ASSERT_TRUE(eventually([&] { return !(projector = s.window("Velmora Projector")).empty(); }, 10.0));
  const std::string geometry = run(s.xorg.display(), "xdotool getwindowgeometry " + projector);
  EXPECT_NE(geometry.find("Position: 0,0"), std::string::npos) << geometry;
  EXPECT_NE(geometry.find("Geometry: 1920x1080"), std::string::npos) << geometry;
  EXPECT_TRUE(eventually(
      [&] { return showsCharacterOnBlack(screenshot(s.xorg.display(), 0, "projector-one-monitor.png")); }, 90.0));

  EXPECT_EQ(s.velmora->stop(SIGTERM, 60), 0) << s.velmora->output();
  const std::string out = s.velmora->output();
  EXPECT_NE(out.find("[ProjectorWindowController] Closed projector window."), std::string::npos) << out;
  EXPECT_NE(out.find("[Velmora] Stopped cleanly"), std::string::npos) << out;
}

}  // namespace
}  // namespace velmora
