// The built velmora with a display: a private Xorg with dummy monitors, the
// phone simulator streaming, keys through xdotool, screenshots through xwd.
// The main window opens and shows the dashboard's panels with live data;
// Ctrl+P puts the projector (black, the character in the middle) on the
// second monitor and Ctrl+P again takes it away; Ctrl+O reaches its menu
// entry; closing the main window ends the run with status 0.
// With one monitor the projector covers that one, full screen, and Esc or
// the close request gives the dashboard back. Screenshots stay in
// <build>/screenshots for people (and the README's pictures).
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <tuple>

#include "support/StbImage.h"
#include "support/VelmoraRun.h"
#include "support/XorgDummy.h"

// Last: Xlib's macros (None, Bool, Status) must not reach the headers above.
#include <X11/Xlib.h>

namespace velmora {
namespace {

const std::filesystem::path kShots = VELMORA_BINARY_DIR "/screenshots";

// Runs a command against the display; its standard output, trailing newline removed.
std::string run(const std::string& display, const std::string& command) {
  std::string out = test::shell("{ " + command + "; } 2>/dev/null", {}, {"DISPLAY=" + display}, 120).output;
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  return out;
}

// One monitor's area of the screen, saved as a PNG under kShots and loaded back.
test::Picture screenshot(const std::string& display, int monitor, const std::string& name) {
  std::filesystem::create_directories(kShots);
  run(display, "xwd -root -silent | convert xwd:- -crop 1920x1080+" + std::to_string(monitor * 1920) + "+0 +repage " +
                   (kShots / name).string());
  return test::loadPicture((kShots / name).string());
}

// The character on black: every corner black, something bright in the middle.
bool showsCharacterOnBlack(const test::Picture& s) {
  if (s.width != 1920 || s.height != 1080) return false;
  auto black = [](int r, int g, int b, int) { return r == 0 && g == 0 && b == 0; };
  for (auto [x, y] : {std::pair{0, 0}, {1800, 0}, {0, 1000}, {1800, 1000}})
    if (s.count(x, y, x + 100, y + 60, black) != 100 * 60) return false;
  return s.count(760, 340, 1160, 740, [](int r, int g, int b, int) { return r + g + b > 300; }) > 20000;
}

const std::string kClosed = "[ProjectorWindowController] Closed projector window.";

// A private X server with `monitors` monitors and velmora on it, its main window found.
struct Session {
  explicit Session(int monitors) : xorg(dir.path(), monitors) {}
  void start() {
    ASSERT_TRUE(xorg.ready()) << "Xorg with the dummy driver did not start; see " << xorg.logFile();
    x.reset(XOpenDisplay(xorg.display().c_str()));
    ASSERT_TRUE(x);
    velmora = std::make_unique<test::VelmoraRun>(test::VelmoraOptions{.env = {"DISPLAY=" + xorg.display()}});
    ASSERT_TRUE((*velmora)->waitForLine("[Velmora] Main window open; close it (or press Ctrl-C) to stop", 30))
        << (*velmora)->output();
    ASSERT_TRUE(test::eventually([&] { return !(main = window("Velmora")).empty(); }, 10.0));
  }
  std::string window(const std::string& name) {
    return run(xorg.display(), "xdotool search --onlyvisible --name '^" + name + "$' | head -1");
  }
  // Presses a key combination in a window (focused first: no window manager gives focus).
  void press(const std::string& window, const std::string& keys) {
    run(xorg.display(), "xdotool windowfocus --sync " + window);
    run(xorg.display(), "xdotool key " + keys);
  }
  bool logged(const std::string& line) { return (*velmora)->waitForLine(line, 30.0); }
  // What a window manager sends when the operator clicks the close box.
  void requestClose(const std::string& window) {
    XEvent e{.xclient = {.type = ClientMessage, .serial = 0, .send_event = True, .display = x.get(),
                         .window = std::stoul(window), .message_type = XInternAtom(x.get(), "WM_PROTOCOLS", False),
                         .format = 32,
                         .data = {.l = {static_cast<long>(XInternAtom(x.get(), "WM_DELETE_WINDOW", False)), CurrentTime}}}};
    XSendEvent(x.get(), e.xclient.window, False, NoEventMask, &e);
    XFlush(x.get());
  }
  // Ctrl+P on the main window: the projector covers the monitor, black with the character.
  std::string openProjector(int monitor) {
    press(main, "ctrl+p");
    EXPECT_TRUE(logged("[ProjectorWindowController] Opened fullscreen projector window on 'DUMMY" +
                       std::to_string(monitor) + "'"))
        << (*velmora)->output();
    std::string projector;
    EXPECT_TRUE(test::eventually([&] { return !(projector = window("Velmora Projector")).empty(); }, 10.0));
    // The whole monitor, in GLFW's monitor mode: with no window manager to ask
    // for _NET_WM_STATE_FULLSCREEN, GLFW takes the monitor itself
    // (override-redirect), which a plain borderless window never is.
    XWindowAttributes a{};
    EXPECT_TRUE(XGetWindowAttributes(x.get(), std::stoul(projector), &a));
    EXPECT_EQ(std::tuple(a.x, a.y, a.width, a.height, a.override_redirect),
              std::tuple(monitor * 1920, 0, 1920, 1080, True));
    const std::string shot = "projector-" + std::to_string(monitor) + ".png";
    EXPECT_TRUE(test::eventually([&] { return showsCharacterOnBlack(screenshot(xorg.display(), monitor, shot)); }, 90.0))
        << "see " << (kShots / shot);
    return projector;
  }
  // The projector went and the main window has the focus again.
  void expectProjectorClosed() {
    EXPECT_TRUE(logged(kClosed)) << (*velmora)->output();
    EXPECT_TRUE(test::eventually([&] { return window("Velmora Projector").empty(); }, 10.0));
    EXPECT_TRUE(test::eventually([&] { return run(xorg.display(), "xdotool getwindowfocus") == main; }, 10.0));
  }

  test::TempDir dir;
  test::XorgDummy xorg;
  std::unique_ptr<::Display, int (*)(::Display*)> x{nullptr, XCloseDisplay};  // the test's own connection to the server
  std::unique_ptr<test::VelmoraRun> velmora;
  std::string main;
};

TEST(WindowX11Test, DashboardProjectorShortcutsAndClosingOnTwoMonitors) {
  Session s(2);
  ASSERT_NO_FATAL_FAILURE(s.start());
  EXPECT_EQ(run(s.xorg.display(), "xdotool getwindowfocus"), s.main) << "the main window comes to the front";

  // The phone streams; the expression bars and the preview fill in.
  test::ChildProcess phone({test::builtProgram("velmora-phone-sim"), "--port", std::to_string(s.velmora->ports[0]),
                            "--duration", "60"},
                           {});
  test::Picture dashboard;
  ASSERT_TRUE(test::eventually(
      [&] {
        dashboard = screenshot(s.xorg.display(), 0, "dashboard.png");
        // The bars, and a rendered frame in the preview (more than its checks and caption).
        return dashboard.width == 1920 &&
               dashboard.count(0, 0, 1340, 690, [](int r, int g, int b, int) { return r == 80 && g == 150 && b == 250; }) > 200 &&
               dashboard.count(390, 70, 820, 300, [](int r, int g, int b, int) {
                 return !(r == g && g == b && (r == 150 || r == 105 || r == 255));
               }) > 5000;
      },
      90.0))
      << "no expression bars or no preview frame in " << (kShots / "dashboard.png");
  // The left column carries its panels' title bars (blue headers; the middle
  // column shows by its preview, the right by its bars); the preview its checkerboard.
  EXPECT_GT(dashboard.count(10, 30, 350, 680, [](int r, int g, int b, int) { return b > 70 && b > r + 40 && g > r + 15; }),
            2000u);
  EXPECT_GT(dashboard.count(380, 30, 840, 400, [](int r, int g, int b, int) { return r == 150 && g == 150 && b == 150; }),
            2000u);

  // Ctrl+P puts the projector on the second monitor; Ctrl+P again, from the projector, takes it away.
  s.press(s.openProjector(1), "ctrl+p");
  s.expectProjectorClosed();

  // A key reaches its menu entry (which key runs which entry is MenuCommandsTest's).
  s.press(s.main, "ctrl+o");
  EXPECT_TRUE(s.logged("[Dashboard] Window > OSC Commands & Cues")) << s.velmora->process->output();
  // The commands window covers the middle of the dashboard.
  EXPECT_TRUE(test::eventually(
      [&] {
        const test::Picture osc = screenshot(s.xorg.display(), 0, "osc-commands.png");
        int differ = 0;
        for (int y = 200; y < 500 && osc.width == 1920; ++y)
          for (int x = 400; x < 960; ++x) differ += std::memcmp(osc.at(x, y), dashboard.at(x, y), 3) != 0;
        return differ > 560 * 300 / 4;
      },
      10.0))
      << "see " << (kShots / "osc-commands.png");

  // Closing the main window (the close box) ends the run cleanly. From there
  // on the run stops as after SIGTERM (the outputs' stop lines are the
  // headless PipeWire test's).
  s.requestClose(s.main);
  EXPECT_TRUE(s.velmora->stopsCleanly(0)) << s.velmora->process->output();  // signal 0: it ends by itself
  EXPECT_EQ(s.velmora->process->printed("[Velmora] Main window closed, shutting down"), 1) << s.velmora->process->output();
}

TEST(WindowX11Test, WithOneMonitorTheProjectorCoversItAndSigtermEndsTheRun) {
  Session s(1);
  ASSERT_NO_FATAL_FAILURE(s.start());
  std::string projector = s.openProjector(0);
  // It covers the dashboard: the log says how to come back, and Esc, or the
  // window manager's close request, brings the dashboard back as Ctrl+P does.
  EXPECT_TRUE(s.logged("[ProjectorWindowController] One monitor: the projector covers the dashboard. "
                       "Press Esc or Ctrl+P on it to close it."))
      << s.velmora->process->output();
  s.press(projector, "Escape");
  s.expectProjectorClosed();
  s.press(s.main, "ctrl+p");
  ASSERT_TRUE(test::eventually([&] { return !(projector = s.window("Velmora Projector")).empty(); }, 10.0));
  s.requestClose(projector);
  s.expectProjectorClosed();
  s.press(s.main, "ctrl+p");  // open at exit: SIGTERM closes it
  ASSERT_TRUE(s.logged("[ProjectorWindowController] Opened fullscreen projector window on 'DUMMY0'"));
  EXPECT_TRUE(s.velmora->stopsCleanly(SIGTERM)) << s.velmora->process->output();
  EXPECT_TRUE(s.logged(kClosed)) << s.velmora->process->output();
}

}  // namespace
}  // namespace velmora
