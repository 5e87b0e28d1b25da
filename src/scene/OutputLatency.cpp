#include "scene/OutputLatency.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace velmora {

namespace {

// Nearest rank: the smallest value with at least q of the samples at or below it.
double percentile(std::vector<double>& values, double q) {
  const std::size_t rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(values.size())));
  const std::size_t index = std::clamp<std::size_t>(rank, 1, values.size()) - 1;
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index), values.end());
  return values[index];
}

}  // namespace

void OutputLatency::record(double arrival, double captured, double handedOff) {
  std::lock_guard lock(mutex_);
  samples_.push_back({handedOff, handedOff - arrival, captured - arrival, handedOff - captured});
  while (!samples_.empty() &&
         (samples_.size() > maxSamples || samples_.front().handedOff < handedOff - keepSeconds))
    samples_.pop_front();
}

OutputLatency::Summary OutputLatency::summary(double now, double window) const {
  std::vector<double> total, wait, render;
  {
    std::lock_guard lock(mutex_);
    for (const Sample& s : samples_)
      if (s.handedOff > now - window && s.handedOff <= now) {
        total.push_back(s.total);
        wait.push_back(s.tickWait);
        render.push_back(s.render);
      }
  }
  Summary result;
  result.count = total.size();
  if (total.empty()) return result;
  result.p50 = percentile(total, 0.5);
  result.p99 = percentile(total, 0.99);
  result.tickWaitP50 = percentile(wait, 0.5);
  result.renderP50 = percentile(render, 0.5);
  return result;
}

}  // namespace velmora
