#pragma once
// Captures every log line while alive (from any thread), then restores the
// default sink.
#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "base/Log.h"

namespace velmora::test {

class LogCapture {
 public:
  LogCapture() {
    setLogSink([this](const std::string& line) {
      std::lock_guard lock(mutex_);
      lines_.push_back(line);
    });
  }
  ~LogCapture() { setLogSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  bool has(const std::string& line) const { return std::ranges::count(lines(), line) > 0; }
  bool hasPrefix(const std::string& prefix) const {
    return std::ranges::any_of(lines(), [&](const std::string& l) { return l.starts_with(prefix); });
  }
  void clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace velmora::test
