#include "render/EglContext.h"

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <cstring>
#include <vector>

namespace velmora {

namespace {

bool hasExtension(const char* list, const char* name) {
  if (!list) return false;
  const std::size_t n = std::strlen(name);
  for (const char* p = list; (p = std::strstr(p, name)); p += n)
    if ((p == list || p[-1] == ' ') && (p[n] == ' ' || p[n] == '\0')) return true;
  return false;
}

struct Candidate {
  EGLDisplay display;
  std::string platform;
};

std::string hex(EGLint e) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%04x", static_cast<unsigned>(e));
  return buf;
}

// Initialises the display and makes a 3.3 core context on it, or says why not.
EGLContext makeContext(EGLDisplay display, std::string& why) {
  EGLint major = 0, minor = 0;
  if (!eglInitialize(display, &major, &minor)) {
    why = "eglInitialize failed (" + hex(eglGetError()) + ")";
    return EGL_NO_CONTEXT;
  }
  const char* ext = eglQueryString(display, EGL_EXTENSIONS);
  if (!hasExtension(ext, "EGL_KHR_surfaceless_context")) {
    why = "no EGL_KHR_surfaceless_context";
    eglTerminate(display);
    return EGL_NO_CONTEXT;
  }
  if (!eglBindAPI(EGL_OPENGL_API)) {
    why = "eglBindAPI(EGL_OPENGL_API) failed (" + hex(eglGetError()) + ")";
    eglTerminate(display);
    return EGL_NO_CONTEXT;
  }
  EGLConfig config = EGL_NO_CONFIG_KHR;
  if (!hasExtension(ext, "EGL_KHR_no_config_context")) {
    const EGLint want[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_NONE};
    EGLint count = 0;
    if (!eglChooseConfig(display, want, &config, 1, &count) || count < 1) {
      why = "no EGL config for desktop OpenGL";
      eglTerminate(display);
      return EGL_NO_CONTEXT;
    }
  }
  const EGLint attributes[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_CONTEXT_MINOR_VERSION, 3,
                               EGL_CONTEXT_OPENGL_PROFILE_MASK, EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT, EGL_NONE};
  EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, attributes);
  if (context == EGL_NO_CONTEXT) {
    why = "eglCreateContext(OpenGL 3.3 core) failed (" + hex(eglGetError()) + ")";
    eglTerminate(display);
  }
  return context;
}

}  // namespace

EglContext::EglContext(void* display, void* context, std::string description)
    : display_(display), context_(context), description_(std::move(description)) {}

CreateResult<EglContext> EglContext::create() {
  const char* clientExt = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
  if (!clientExt) return CreateResult<EglContext>::failure("EglContext::create(): no EGL client library");

  std::vector<Candidate> hardware, software;
  if (hasExtension(clientExt, "EGL_EXT_platform_device") && hasExtension(clientExt, "EGL_EXT_device_enumeration")) {
    EGLint count = 0;
    eglQueryDevicesEXT(0, nullptr, &count);
    std::vector<EGLDeviceEXT> devices(static_cast<std::size_t>(count > 0 ? count : 0));
    if (count > 0 && eglQueryDevicesEXT(count, devices.data(), &count)) {
      for (EGLint i = 0; i < count; ++i) {
        EGLDisplay d = eglGetPlatformDisplayEXT(EGL_PLATFORM_DEVICE_EXT, devices[static_cast<std::size_t>(i)], nullptr);
        if (d == EGL_NO_DISPLAY) continue;
        const char* devExt = eglQueryDeviceStringEXT(devices[static_cast<std::size_t>(i)], EGL_EXTENSIONS);
        const bool isSoftware = hasExtension(devExt, "EGL_MESA_device_software");
        (isSoftware ? software : hardware).push_back({d, "EGL device " + std::to_string(i)});
      }
    }
  }
  std::vector<Candidate> order = hardware;
  if (hasExtension(clientExt, "EGL_MESA_platform_surfaceless")) {
    EGLDisplay d = eglGetPlatformDisplayEXT(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (d != EGL_NO_DISPLAY) order.push_back({d, "surfaceless"});
  }
  order.insert(order.end(), software.begin(), software.end());
  if (EGLDisplay d = eglGetDisplay(EGL_DEFAULT_DISPLAY); d != EGL_NO_DISPLAY) order.push_back({d, "default display"});

  if (order.empty()) return CreateResult<EglContext>::failure("EglContext::create(): no EGL display (no device, surfaceless or default platform)");

  std::string reasons;
  for (const auto& c : order) {
    std::string why;
    EGLContext ctx = makeContext(c.display, why);
    if (ctx == EGL_NO_CONTEXT) {
      reasons += (reasons.empty() ? "" : "; ") + c.platform + ": " + why;
      continue;
    }
    std::unique_ptr<EglContext> result(new EglContext(c.display, ctx, {}));
    if (!result->makeCurrent()) {
      reasons += (reasons.empty() ? "" : "; ") + c.platform + ": eglMakeCurrent failed";
      continue;  // the destructor of result releases the context
    }
    const char* version = reinterpret_cast<const char*>(glGetString(GL_VERSION));
    const char* renderer = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
    result->description_ = std::string("OpenGL ") + (version ? version : "?") + " on " + (renderer ? renderer : "?") +
                           " (" + c.platform + ")";
    result->releaseCurrent();
    return CreateResult<EglContext>::success(std::move(result));
  }
  return CreateResult<EglContext>::failure("EglContext::create(): no OpenGL 3.3 core context: " + reasons);
}

EglContext::~EglContext() {
  if (eglGetCurrentContext() == context_) eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
  eglDestroyContext(display_, context_);
  // The display is not terminated: other contexts of this process (a second
  // renderer, the outputs) may share it, and EGL displays are per process.
}

bool EglContext::makeCurrent() {
  return eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, context_) == EGL_TRUE;
}

void EglContext::releaseCurrent() { eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT); }

}  // namespace velmora
