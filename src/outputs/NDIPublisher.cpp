#include "outputs/NDIPublisher.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cctype>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>

#include "base/Clock.h"
#include "base/Log.h"
#include "base/RuntimeLibrary.h"

namespace velmora {

namespace {

constexpr const char* kComponent = "NDI";
constexpr const char* kRefused = "NDI runtime refused to initialize (unsupported CPU?)";
constexpr const char* kNotFound = "NDI runtime not found. Install the free NDI Tools from https://ndi.video/tools/";
constexpr const char* kNotCreated = "NDI sender could not be created";

// Newest runtime first: NDI 6 reads the same structures as NDI 5.
constexpr const char* kRuntimeFiles[] = {"libndi.so.6", "libndi.so.5"};

}  // namespace

NDIPublisher& NDIPublisher::shared() {
  static NDIPublisher publisher;
  return publisher;
}

std::vector<std::string> NDIPublisher::defaultFolders() {
  std::vector<std::string> folders;
  std::error_code ec;
  const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (!ec) folders.push_back((executable.parent_path().parent_path() / "lib").string());
  for (const char* folder : {"/usr/local/lib", "/usr/lib/x86_64-linux-gnu", "/usr/lib"}) folders.push_back(folder);
  return folders;
}

NDIPublisher::NDIPublisher(std::vector<std::string> fixedFolders, std::function<double()> clock)
    : fixedFolders_(std::move(fixedFolders)), clock_(clock ? std::move(clock) : std::function<double()>(uptime)) {}

NDIPublisher::~NDIPublisher() { stop(); }

std::vector<std::string> NDIPublisher::candidateRuntimePaths() const {
  std::vector<std::string> folders;
  for (const char* variable : {"NDI_RUNTIME_DIR_V6", "NDI_RUNTIME_DIR_V5"}) {
    const char* value = std::getenv(variable);
    if (value && *value) folders.emplace_back(value);
  }
  folders.insert(folders.end(), fixedFolders_.begin(), fixedFolders_.end());

  std::vector<std::string> paths;
  for (const auto& folder : folders)
    for (const char* file : kRuntimeFiles) paths.push_back((std::filesystem::path(folder) / file).string());
  return paths;
}

std::string NDIPublisher::networkSourceName() const {
  char host[256] = {};
  if (::gethostname(host, sizeof host - 1) != 0 || !host[0]) std::strcpy(host, "localhost");
  std::string machine(host);
  machine = machine.substr(0, machine.find('.'));
  std::transform(machine.begin(), machine.end(), machine.begin(), [](unsigned char c) { return std::toupper(c); });
  return machine + " (" + sourceName_ + ")";
}

bool NDIPublisher::isRunning() const {
  std::lock_guard lock(mutex_);
  return sender_ != nullptr;
}

// [SECTION] Finding the runtime

bool NDIPublisher::acceptRuntime(RuntimeLibrary& library) {
  EntryPoints found;
  found.initialize = library.function<ndi::InitializeFn>("NDIlib_initialize");
  found.sendCreate = library.function<ndi::SendCreateFn>("NDIlib_send_create");
  found.sendVideo = library.function<ndi::SendVideoV2Fn>("NDIlib_send_send_video_v2");
  found.sendDestroy = library.function<ndi::SendDestroyFn>("NDIlib_send_destroy");
  found.getNoConnections = library.function<ndi::SendGetNoConnectionsFn>("NDIlib_send_get_no_connections");

  const std::pair<const void*, const char*> required[] = {
      {reinterpret_cast<const void*>(found.initialize), "NDIlib_initialize"},
      {reinterpret_cast<const void*>(found.sendCreate), "NDIlib_send_create"},
      {reinterpret_cast<const void*>(found.sendVideo), "NDIlib_send_send_video_v2"},
      {reinterpret_cast<const void*>(found.sendDestroy), "NDIlib_send_destroy"},
      {reinterpret_cast<const void*>(found.getNoConnections), "NDIlib_send_get_no_connections"},
  };
  for (const auto& [address, name] : required) {
    if (address) continue;
    // Searches repeat at every start while the output stays on: say it once.
    if (reportedIncomplete_.insert(library.path()).second)
      logLine(kComponent, library.path() + " lacks " + name + "; skipped");
    return false;
  }
  if (!found.initialize()) {
    lastError_ = kRefused;
    return false;
  }
  entries_ = found;
  return true;
}

bool NDIPublisher::loadRuntime() {
  if (library_) return true;
  lastError_.reset();
  library_ = RuntimeLibrary::loadFirst(kComponent, candidateRuntimePaths(),
                                       [this](RuntimeLibrary& library) { return acceptRuntime(library); });
  if (!library_) {
    entries_ = {};
    if (!lastError_) lastError_ = kNotFound;
    return false;
  }
  runtimePath_ = library_->path();
  lastError_.reset();
  return true;
}

// [SECTION] Sender

bool NDIPublisher::start() {
  if (isRunning()) return true;
  const double now = clock_();
  if (nextAttempt_ && now < *nextAttempt_) return false;
  nextAttempt_ = now + retryInterval;  // cleared below once a sender exists
  if (!loadRuntime()) return false;

  const ndi::SendCreate settings{sourceName_.c_str(), nullptr, false, false};
  ndi::SendInstance sender = entries_.sendCreate(&settings);
  if (!sender) {
    lastError_ = kNotCreated;
    return false;
  }
  {
    std::lock_guard lock(mutex_);
    sender_ = sender;
  }
  nextAttempt_.reset();
  lastError_.reset();
  logLine(kComponent, "Sending '" + sourceName_ + "' using " + runtimePath_.value_or("?"));
  return true;
}

std::optional<double> NDIPublisher::retryIn() const {
  if (!nextAttempt_ || isRunning()) return std::nullopt;
  const double left = *nextAttempt_ - clock_();
  return left > 0 ? std::optional<double>(left) : std::nullopt;
}

void NDIPublisher::stop() {
  ndi::SendInstance sender = nullptr;
  {
    // From here on frames are dropped; one already queued still goes out
    // through the sender it was queued with, before the destroy below.
    std::lock_guard lock(mutex_);
    std::swap(sender, sender_);
  }
  if (!sender) return;
  const auto destroy = [this, sender] { entries_.sendDestroy(sender); };
  // The queue runs in order, so the destroy follows any send in progress.
  if (!queue_.sync(destroy)) destroy();
  logLine(kComponent, "Sender stopped");
}

int NDIPublisher::connectionCount() const {
  ndi::SendInstance sender = nullptr;
  {
    std::lock_guard lock(mutex_);
    sender = sender_;
  }
  // Only stop(), on this same thread, destroys the sender; asking without
  // the lock keeps the render thread's publish() from waiting on the runtime.
  return sender ? entries_.getNoConnections(sender, 0) : 0;
}

// [SECTION] Frames

void NDIPublisher::send(std::shared_ptr<const RenderedFrame> frame) {
  if (!frame) return;
  std::lock_guard lock(mutex_);
  if (busy_ || !sender_) return;
  busy_ = true;
  inFlight_ = std::move(frame);
  inFlightSender_ = sender_;
  // Posted before the lock is released, so a stop() that takes the sender
  // after this point queues its destroy behind this send, never ahead of it.
  // (Posting only takes the queue's own lock, which its worker never holds
  // while running work.) Capturing only `this` keeps the closure inside
  // std::function's own storage.
  queue_.post([this] { sendInFlight(); });
}

void NDIPublisher::sendInFlight() {
  std::shared_ptr<const RenderedFrame> frame;
  ndi::SendInstance sender = nullptr;
  {
    std::lock_guard lock(mutex_);
    frame = std::move(inFlight_);
    sender = inFlightSender_;
  }
  const int w = frame->width;
  const int h = frame->height;
  // Sizes beyond 32-bit strides are a programming error upstream.
  assert(w > 0 && h > 0 && w <= std::numeric_limits<int>::max() / 4);
  const bool complete = frame->pixels.size() >= static_cast<std::size_t>(w) * 4 * static_cast<std::size_t>(h);
  assert(complete);
  if (w > 0 && h > 0 && complete) {
    ndi::VideoFrameV2 video{};
    video.xres = w;
    video.yres = h;
    video.FourCC = ndi::kFourCCBGRA;
    video.frame_rate_N = 60;
    video.frame_rate_D = 1;
    video.picture_aspect_ratio = static_cast<float>(w) / static_cast<float>(h);
    video.frame_format_type = ndi::kFrameFormatProgressive;
    video.timecode = ndi::kSendTimecodeSynthesize;
    // The runtime only reads the pixels; its C interface is not const-correct.
    video.p_data = const_cast<std::uint8_t*>(frame->pixels.data());
    video.line_stride_in_bytes = 4 * w;
    video.p_metadata = nullptr;
    video.timestamp = 0;
    // Synchronous: the runtime is done with the pixels when it returns.
    entries_.sendVideo(sender, &video);
  }
  // Hand the frame back to the renderer's pool before the next one may come.
  frame.reset();
  std::lock_guard lock(mutex_);
  busy_ = false;
}

// [SECTION] Discovery

std::optional<std::vector<std::string>> NDIPublisher::findSources(double timeoutSeconds) {
  if (!library_) return std::nullopt;
  const auto create = library_->function<ndi::FindCreateV2Fn>("NDIlib_find_create_v2");
  const auto wait = library_->function<ndi::FindWaitForSourcesFn>("NDIlib_find_wait_for_sources");
  const auto current = library_->function<ndi::FindGetCurrentSourcesFn>("NDIlib_find_get_current_sources");
  const auto destroy = library_->function<ndi::FindDestroyFn>("NDIlib_find_destroy");
  if (!create || !wait || !current || !destroy) return std::nullopt;

  const ndi::FindCreate settings{true, nullptr, nullptr};
  ndi::FindInstance finder = create(&settings);
  if (!finder) return std::nullopt;

  const double ms = std::clamp(timeoutSeconds * 1000.0, 0.0, 3'600'000.0);
  wait(finder, static_cast<std::uint32_t>(std::lround(ms)));
  std::uint32_t count = 0;
  const ndi::Source* sources = current(finder, &count);
  std::vector<std::string> names;
  // The list belongs to the finder: copy the names before destroying it.
  for (std::uint32_t i = 0; sources && i < count; ++i)
    if (sources[i].p_ndi_name) names.emplace_back(sources[i].p_ndi_name);
  destroy(finder);
  return names;
}

}  // namespace velmora
