#pragma once
// A headless OpenGL 3.3 core context through EGL, with no window and no
// surface: rendering goes to framebuffer objects. Display choice, first that
// works: a hardware EGL device (EGL_EXT_platform_device, e.g. a GPU on a
// server), Mesa's surfaceless platform (software llvmpipe on a machine
// without a GPU), any other EGL device, the default display.
//
// Threads: create() on any thread; the context is then current on no thread.
// makeCurrent() binds it to the calling thread (one thread at a time).

#include <string>

#include "base/CreateResult.h"

namespace velmora {

class EglContext {
 public:
  static CreateResult<EglContext> create();
  ~EglContext();
  EglContext(const EglContext&) = delete;
  EglContext& operator=(const EglContext&) = delete;

  bool makeCurrent();
  void releaseCurrent();
  // "OpenGL 4.5 (Core Profile) Mesa ... on llvmpipe ... (surfaceless)".
  const std::string& description() const { return description_; }

  void* display() const { return display_; }
  void* context() const { return context_; }

 private:
  EglContext(void* display, void* context, std::string description);
  void* display_;
  void* context_;
  std::string description_;
};

}  // namespace velmora
