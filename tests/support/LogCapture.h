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
  bool has(const std::string& line) const {
    std::lock_guard lock(mutex_);
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
  }
  bool hasPrefix(const std::string& prefix) const {
    std::lock_guard lock(mutex_);
    return std::any_of(lines_.begin(), lines_.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
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
