#pragma once
// The live preview: the newest output frame (from PreviewFrames) over a
// checkerboard, so transparency shows, fitted into the panel at the frame's
// aspect. Without GL (tests) or before the first frame it says why there is
// no picture. Main thread.

#include <cstdint>
#include <memory>

namespace velmora {

struct DashboardContext;
class PreviewFrames;
class FrameTexture;

class PreviewPanel {
 public:
  // `frames` outlives the panel; withGl false draws no texture (tests).
  PreviewPanel(DashboardContext& context, const PreviewFrames& frames, bool withGl);
  ~PreviewPanel();
  PreviewPanel(const PreviewPanel&) = delete;
  PreviewPanel& operator=(const PreviewPanel&) = delete;

  void draw();
  std::uint64_t shownSequence() const { return seen_; }

 private:
  DashboardContext& context_;
  const PreviewFrames& frames_;
  std::unique_ptr<FrameTexture> texture_;
  std::uint64_t seen_ = 0;
};

}  // namespace velmora
