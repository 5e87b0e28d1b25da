#include "base/Log.h"

#include <cstdio>
#include <mutex>

namespace velmora {
namespace {
std::mutex& logMutex() {
  static std::mutex m;
  return m;
}
std::function<void(const std::string&)>& logSink() {
  static std::function<void(const std::string&)> sink;
  return sink;
}
}  // namespace

void logRaw(std::string_view line) {
  std::string out(line);
  std::lock_guard lock(logMutex());
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
  if (logSink()) logSink()(out);
}

void logLine(std::string_view component, std::string_view text) {
  std::string line;
  line.reserve(component.size() + text.size() + 3);
  line += '[';
  line += component;
  line += "] ";
  line += text;
  logRaw(line);
}

void setLogSink(std::function<void(const std::string&)> sink) {
  std::lock_guard lock(logMutex());
  logSink() = std::move(sink);
}

}  // namespace velmora
