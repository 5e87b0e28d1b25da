#include "ui/MainWindow.h"

#include <epoxy/gl.h>
#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>
#include <backends/imgui_impl_glfw.h>
#include <backends/imgui_impl_opengl3.h>
#include <imgui.h>

#include <cstdlib>

#include "ui/UiFonts.h"

namespace velmora {

namespace {

std::string glfwErrorText() {
  const char* description = nullptr;
  const int code = glfwGetError(&description);
  if (code == GLFW_NO_ERROR) return "unknown error";
  return description ? description : "unknown error";
}

bool envSet(const char* name) {
  const char* value = std::getenv(name);
  return value && *value;
}

}  // namespace

CreateResult<MainWindow> MainWindow::create() {
  if (!envSet("DISPLAY") && !envSet("WAYLAND_DISPLAY")) {
    return CreateResult<MainWindow>::failure("neither DISPLAY nor WAYLAND_DISPLAY is set");
  }
  if (!glfwInit()) {
    const std::string why = "GLFW could not initialise (" + glfwErrorText() + ")";
    glfwTerminate();
    return CreateResult<MainWindow>::failure(why);
  }
  glfwWindowHint(GLFW_CONTEXT_VERSION_MAJOR, 3);
  glfwWindowHint(GLFW_CONTEXT_VERSION_MINOR, 3);
  glfwWindowHint(GLFW_OPENGL_PROFILE, GLFW_OPENGL_CORE_PROFILE);
  glfwWindowHint(GLFW_OPENGL_FORWARD_COMPAT, GLFW_TRUE);
  glfwWindowHint(GLFW_FOCUS_ON_SHOW, GLFW_TRUE);
  // ImGui tests neither depth nor stencil: no such buffer the window's size
  // (4 bytes a pixel, in main memory on software GL).
  glfwWindowHint(GLFW_DEPTH_BITS, 0);
  glfwWindowHint(GLFW_STENCIL_BITS, 0);
  GLFWwindow* window = glfwCreateWindow(initialWidth, initialHeight, "Velmora", nullptr, nullptr);
  glfwDefaultWindowHints();
  if (!window) {
    const std::string why = "the main window could not be opened (" + glfwErrorText() + ")";
    glfwTerminate();
    return CreateResult<MainWindow>::failure(why);
  }
  return CreateResult<MainWindow>::success(std::unique_ptr<MainWindow>(new MainWindow(window)));
}

MainWindow::MainWindow(GLFWwindow* window) : window_(window) {
  glfwSetWindowSizeLimits(window_, minimumWidth, minimumHeight, GLFW_DONT_CARE, GLFW_DONT_CARE);
  glfwMakeContextCurrent(window_);
  // The loop is paced by the 60 Hz tick; a swap must never block it
  // (software GL, or a display that does not refresh).
  glfwSwapInterval(0);
  glfwSetWindowUserPointer(window_, this);
  // Installed before ImGui's backend, which calls it after its own handling.
  glfwSetKeyCallback(window_, &MainWindow::keyCallback);

  IMGUI_CHECKVERSION();
  ImGui::CreateContext();
  ImGuiIO& io = ImGui::GetIO();
  io.IniFilename = nullptr;  // the layout is the dashboard's, not remembered between runs
  ImGui::StyleColorsDark();
  ImGuiStyle& style = ImGui::GetStyle();
  style.WindowRounding = 4.0f;
  style.FrameRounding = 3.0f;
  style.GrabRounding = 3.0f;
  largeFont_ = UiFonts::load(io);
  ImGui_ImplGlfw_InitForOpenGL(window_, true);
  ImGui_ImplOpenGL3_Init("#version 330 core");
}

MainWindow::~MainWindow() {
  ImGui_ImplOpenGL3_Shutdown();
  ImGui_ImplGlfw_Shutdown();
  ImGui::DestroyContext();
  glfwDestroyWindow(window_);
  glfwTerminate();
}

void MainWindow::keyCallback(GLFWwindow* window, int key, int, int action, int mods) {
  auto* self = static_cast<MainWindow*>(glfwGetWindowUserPointer(window));
  if (self && action == GLFW_PRESS && self->keyHandler_) self->keyHandler_(key, mods);
}

void MainWindow::beginFrame() {
  glfwPollEvents();
  ImGui_ImplOpenGL3_NewFrame();
  ImGui_ImplGlfw_NewFrame();
  ImGui::NewFrame();
}

void MainWindow::endFrame() {
  ImGui::Render();
  int width = 0, height = 0;
  glfwGetFramebufferSize(window_, &width, &height);
  glViewport(0, 0, width, height);
  glClearColor(0.10f, 0.10f, 0.11f, 1.0f);
  glClear(GL_COLOR_BUFFER_BIT);
  ImGui_ImplOpenGL3_RenderDrawData(ImGui::GetDrawData());
  glfwSwapBuffers(window_);
}

bool MainWindow::closeRequested() const { return glfwWindowShouldClose(window_); }

void MainWindow::requestClose() { glfwSetWindowShouldClose(window_, GLFW_TRUE); }

void MainWindow::bringToFront() {
  glfwShowWindow(window_);
  glfwFocusWindow(window_);
}

}  // namespace velmora
