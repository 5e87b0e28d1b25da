#pragma once
// A renderer for the scene's tests without GL: records the size of each
// description it is handed and hands it straight back as a finished frame of
// that size (every byte 0x5a), advancing the test's clock by renderSeconds
// first when given one.
#include <memory>
#include <utility>
#include <vector>

#include "scene/FrameRenderer.h"
#include "scene/RenderedFrame.h"

namespace velmora::test {

class StandInRenderer : public FrameRenderer {
 public:
  std::vector<std::pair<int, int>> sizes;  // of every description submitted
  double* clock = nullptr;
  double renderSeconds = 0.0;

  void setFrameHandler(FrameHandler h) override { handler_ = std::move(h); }
  void submit(std::shared_ptr<const FrameDescription> d) override {
    sizes.emplace_back(d->width, d->height);
    auto frame = std::make_shared<RenderedFrame>();
    frame->width = d->width;
    frame->height = d->height;
    frame->time = d->time;
    frame->newestArrival = d->newestArrival;
    frame->pixels.assign(static_cast<std::size_t>(d->width) * d->height * 4, 0x5a);
    if (clock) *clock += renderSeconds;
    if (handler_) handler_(frame);
  }
  Result renderNow(std::shared_ptr<const FrameDescription>) override { return {nullptr, "not here"}; }
  void stop() override {}

 private:
  FrameHandler handler_;
};

}  // namespace velmora::test
