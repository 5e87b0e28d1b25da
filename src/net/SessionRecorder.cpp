#include "net/SessionRecorder.h"

#include <asio/steady_timer.hpp>
#include <chrono>

#include "base/Log.h"
#include "net/PcapWriter.h"

namespace velmora {

namespace {
constexpr std::string_view kComponent = "SessionRecorder";
}

struct SessionRecorder::Timer {
  explicit Timer(asio::io_context& context) : timer(context) {}
  asio::steady_timer timer;
};

CreateResult<SessionRecorder> SessionRecorder::create(const std::string& path) {
  auto writer = PcapWriter::create(path);
  if (!writer) return CreateResult<SessionRecorder>::failure(writer.reason);
  logLine(kComponent, "Recording tracking datagrams to " + path);
  return CreateResult<SessionRecorder>::success(
      std::unique_ptr<SessionRecorder>(new SessionRecorder(std::move(writer.value))));
}

SessionRecorder::SessionRecorder(std::unique_ptr<PcapWriter> writer) : writer_(std::move(writer)) {
  status_.path = writer_->path();
  status_.recording = true;
  flushTimer_ = std::make_unique<Timer>(queue_.context());
}

SessionRecorder::~SessionRecorder() { stop(); }

void SessionRecorder::datagramArrived(std::span<const std::uint8_t> payload, const DatagramEnvelope& envelope) {
  std::lock_guard lock(mutex_);
  if (!status_.recording) return;
  if (waiting_.size() >= maxWaiting) {
    ++status_.dropped;
    return;
  }
  waiting_.push_back(RecordedDatagram{envelope, std::vector<std::uint8_t>(payload.begin(), payload.end())});
  if (!drainPosted_) {
    drainPosted_ = true;
    queue_.post([this] { drain(); });
  }
}

void SessionRecorder::drain() {
  std::deque<RecordedDatagram> batch;
  {
    std::lock_guard lock(mutex_);
    batch.swap(waiting_);
    drainPosted_ = false;
  }
  if (!writer_ || batch.empty()) return;
  for (const RecordedDatagram& d : batch) {
    if (!writer_->write(d.payload, d.envelope)) break;
  }
  if (!writer_->error().empty()) {
    failed();
    return;
  }
  {
    std::lock_guard lock(mutex_);
    status_.datagrams = writer_->datagramsWritten();
  }
  unflushed_ = true;
  armFlush();
}

void SessionRecorder::armFlush() {
  if (flushArmed_) return;
  flushArmed_ = true;
  flushTimer_->timer.expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(flushInterval)));
  flushTimer_->timer.async_wait([this](const std::error_code& ec) {
    if (ec) return;  // cancelled by stop()
    flushArmed_ = false;
    flushNow();
  });
}

void SessionRecorder::flushNow() {
  if (!writer_ || !unflushed_) return;
  unflushed_ = false;
  if (!writer_->flush()) failed();
}

void SessionRecorder::failed() {
  const std::string error = writer_->error();
  const std::uint64_t kept = writer_->datagramsFlushed();
  writer_.reset();  // closes the file; what was flushed before stays readable
  // Said before the status shows it, so whoever sees the stopped status
  // finds the line too.
  logLine(kComponent, "Recording stopped: " + error + " (" + std::to_string(kept) + " datagrams kept)");
  std::lock_guard lock(mutex_);
  status_.recording = false;
  status_.error = error;
  status_.datagrams = kept;
  waiting_.clear();
}

void SessionRecorder::stop() {
  if (stopped_.exchange(true)) return;
  queue_.sync([this] {
    flushTimer_->timer.cancel();
    flushArmed_ = false;
    drain();
    if (!writer_) return;  // a write failure has been reported already
    unflushed_ = true;
    flushNow();
    if (!writer_) return;
    writer_.reset();
    std::uint64_t count = 0;
    std::string path;
    {
      std::lock_guard lock(mutex_);
      status_.recording = false;
      count = status_.datagrams;
      path = status_.path;
    }
    logLine(kComponent, "Recording stopped: " + std::to_string(count) + " datagrams in " + path);
  });
  queue_.stop();
  flushTimer_.reset();
}

SessionRecorder::Status SessionRecorder::status() const {
  std::lock_guard lock(mutex_);
  return status_;
}

std::string SessionRecorder::statusText() const {
  const Status s = status();
  if (!s.error.empty()) {
    return "Recording stopped: " + s.error + " (" + std::to_string(s.datagrams) + " datagrams kept)";
  }
  std::string text = (s.recording ? "Recording: " : "Recorded ") + std::to_string(s.datagrams) + " datagrams to " + s.path;
  if (s.dropped) text += " (" + std::to_string(s.dropped) + " dropped, the disk was too slow)";
  return text;
}

}  // namespace velmora
