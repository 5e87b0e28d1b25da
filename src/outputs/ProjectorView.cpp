#include "outputs/ProjectorView.h"

#include <epoxy/gl.h>
#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

#include "base/Log.h"
#include "render/FrameTexture.h"
#include "render/ShaderProgram.h"

namespace velmora {

namespace {

// Draws one output frame (BGRA, rows top first, sRGB, straight alpha) over
// black: colour times alpha, opaque. One triangle covers the window.
const char* const kVertex = R"GLSL(#version 330 core
out vec2 vUv;
void main() {
  vec2 p = vec2((gl_VertexID << 1) & 2, gl_VertexID & 2);
  vUv = vec2(p.x, 1.0 - p.y);
  gl_Position = vec4(p * 2.0 - 1.0, 0.0, 1.0);
}
)GLSL";

const char* const kFragment = R"GLSL(#version 330 core
uniform sampler2D uFrame;
in vec2 vUv;
out vec4 fragColor;
void main() {
  vec4 c = texture(uFrame, vUv);
  fragColor = vec4(c.rgb * c.a, 1.0);
}
)GLSL";

}  // namespace

// The GL objects in the window's context; made and destroyed with it current.
struct ProjectorView::Gl {
  std::unique_ptr<ShaderProgram> program;
  std::unique_ptr<FrameTexture> texture;
  GLuint vertexArray = 0;

  std::string create() {
    auto created = ShaderProgram::create({"projector", kVertex, kFragment, {}});
    if (!created) return created.reason;
    program = std::move(created.value);
    texture = std::make_unique<FrameTexture>();
    glGenVertexArrays(1, &vertexArray);
    return {};
  }

  void destroy() {
    texture.reset();
    if (vertexArray) glDeleteVertexArrays(1, &vertexArray);
    vertexArray = 0;
    program.reset();
  }

  static void clearBlack(GLFWwindow* window) {
    int w = 0, h = 0;
    glfwGetFramebufferSize(window, &w, &h);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glViewport(0, 0, w, h);
    glClearColor(0.0f, 0.0f, 0.0f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
  }

  void present(GLFWwindow* window, const RenderedFrame& frame) {
    texture->upload(frame);
    clearBlack(window);
    glDisable(GL_BLEND);
    glDisable(GL_DEPTH_TEST);
    program->use();
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, texture->name());
    program->set("uFrame", 0);
    glBindVertexArray(vertexArray);
    glDrawArrays(GL_TRIANGLES, 0, 3);
    glBindVertexArray(0);
    glUseProgram(0);
  }
};

namespace {

// Makes the window's context current for a scope, then the previous one again.
class ContextScope {
 public:
  explicit ContextScope(GLFWwindow* window) : previous_(glfwGetCurrentContext()) { glfwMakeContextCurrent(window); }
  ~ContextScope() { glfwMakeContextCurrent(previous_); }
  ContextScope(const ContextScope&) = delete;
  ContextScope& operator=(const ContextScope&) = delete;

 private:
  GLFWwindow* previous_;
};

}  // namespace

ProjectorView::ProjectorView(GLFWwindow* window)
    : window_(window), slot_(std::make_shared<Slot>()), gl_(std::make_unique<Gl>()) {
  ContextScope scope(window_);
  glfwSwapInterval(0);  // presenting never waits for the display
  const std::string why = gl_->create();
  if (!why.empty()) {
    logLine("ProjectorWindowController", "The projector shows black: " + why);
    gl_->destroy();
    gl_.reset();
  }
  // Black at once: the first frame may take half a second.
  Gl::clearBlack(window_);
  glfwSwapBuffers(window_);
}

ProjectorView::~ProjectorView() {
  if (gl_) {
    ContextScope scope(window_);
    gl_->destroy();
  }
}

std::function<void(const std::shared_ptr<const RenderedFrame>&)> ProjectorView::consumer() const {
  std::weak_ptr<Slot> slot = slot_;
  return [slot](const std::shared_ptr<const RenderedFrame>& frame) {
    if (auto s = slot.lock()) {
      std::lock_guard lock(s->mutex);
      s->frame = frame;
    }
  };
}

bool ProjectorView::present() {
  std::shared_ptr<const RenderedFrame> frame;
  {
    std::lock_guard lock(slot_->mutex);
    frame = std::move(slot_->frame);
  }
  if (!frame || !gl_) return false;
  ContextScope scope(window_);
  gl_->present(window_, *frame);
  glfwSwapBuffers(window_);
  ++presented_;
  return true;
}

}  // namespace velmora
