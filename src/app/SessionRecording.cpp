#include "app/SessionRecording.h"

#include <ctime>

#include "base/Log.h"
#include "net/SessionRecorder.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {

SessionRecording::SessionRecording(TrackingReceiver& receiver) : receiver_(receiver) {}

SessionRecording::~SessionRecording() { stop(); }

bool SessionRecording::start(const std::string& path) {
  stop();
  auto created = SessionRecorder::create(path);
  if (!created) {
    startFailure_ = "Not recording: " + created.reason;
    logLine("Velmora", startFailure_);
    return false;
  }
  startFailure_.clear();
  recorder_ = std::shared_ptr<SessionRecorder>(std::move(created.value));
  receiver_.addTap(recorder_);
  return true;
}

void SessionRecording::stop() {
  if (!recorder_) return;
  receiver_.removeTap(recorder_.get());
  recorder_->stop();
  // The last status stays readable until the next start.
}

bool SessionRecording::isRecording() const { return recorder_ && recorder_->status().recording; }

std::string SessionRecording::statusText() const {
  if (!startFailure_.empty()) return startFailure_;
  if (!recorder_) return "Not recording";
  return recorder_->statusText();
}

std::string SessionRecording::defaultFileName() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char name[64];
  std::strftime(name, sizeof name, "velmora-%Y%m%d-%H%M%S.pcap", &local);
  return name;
}

}  // namespace velmora
