#pragma once
// The operator's main window: a GLFW window titled "Velmora" with an OpenGL
// 3.3 context on the main thread and a Dear ImGui context drawn into it.
// create() fails, with the reason, when there is no display to open it on
// (neither DISPLAY nor WAYLAND_DISPLAY set, GLFW cannot initialise, or no
// window or context can be made); the application then runs headless.
//
// Threads: main thread only. GLFW stays initialised until the window is
// destroyed, so the projector can open its own windows meanwhile.

#include <functional>
#include <string>

#include "base/CreateResult.h"

struct GLFWwindow;
struct ImFont;

namespace velmora {

class MainWindow {
 public:
  // Fits a 1366 x 768 laptop screen with the panels side by side, leaving
  // room for a desktop bar and the title bar.
  static constexpr int initialWidth = 1340;
  static constexpr int initialHeight = 690;
  static constexpr int minimumWidth = 960;
  static constexpr int minimumHeight = 600;

  // A key pressed while the window has the focus (GLFW key and mods).
  using KeyHandler = std::function<void(int key, int mods)>;

  static CreateResult<MainWindow> create();
  ~MainWindow();
  MainWindow(const MainWindow&) = delete;
  MainWindow& operator=(const MainWindow&) = delete;

  void setKeyHandler(KeyHandler handler) { keyHandler_ = std::move(handler); }

  // Polls the window system and starts a UI frame (ImGui::NewFrame).
  void beginFrame();
  // Renders the UI frame and shows it. Never waits for the display.
  void endFrame();
  // The operator closed the window.
  bool closeRequested() const;

  // Raises the window and gives it the focus (at launch).
  void bringToFront();

  GLFWwindow* handle() const { return window_; }
  // The large font for the address the operator types into the phone.
  ImFont* largeFont() const { return largeFont_; }

 private:
  explicit MainWindow(GLFWwindow* window);
  static void keyCallback(GLFWwindow* window, int key, int scancode, int action, int mods);

  GLFWwindow* window_;
  ImFont* largeFont_ = nullptr;
  KeyHandler keyHandler_;
  void (*previousKeyCallback_)(GLFWwindow*, int, int, int, int) = nullptr;
};

}  // namespace velmora
