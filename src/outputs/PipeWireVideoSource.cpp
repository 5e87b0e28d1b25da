#include "outputs/PipeWireVideoSource.h"

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "outputs/PipeWireApi.h"

// Index of this file
// [SECTION] Shared state between the controlling thread and the loop thread
// [SECTION] Callbacks on PipeWire's loop thread
// [SECTION] Creation and teardown (controlling thread)
// [SECTION] Frame hand-off and observers (any thread)

namespace velmora {

// ---------------------------------------------------------------------------
// [SECTION] Shared state between the controlling thread and the loop thread
// ---------------------------------------------------------------------------

struct PipeWireVideoSource::Impl {
  std::shared_ptr<const PipeWireApi> api;
  Settings settings;
  pw_thread_loop* threadLoop = nullptr;
  pw_loop* loop = nullptr;
  pw_stream* stream = nullptr;
  spa_source* wake = nullptr;  // signalled by offer(), handled on the loop thread
  spa_hook streamListener{};
  pw_stream_events events{};

  std::atomic<int> state{PW_STREAM_STATE_UNCONNECTED};
  std::atomic<bool> wasConnected{false};
  std::atomic<bool> failed{false};
  std::atomic<std::uint32_t> nodeId{SPA_ID_INVALID};

  // The one-slot mailbox; the lock is held only to swap a pointer.
  mutable std::mutex slotMutex;
  std::shared_ptr<const RenderedFrame> slot;
  std::string failure;  // under slotMutex
  Counters counters;    // under slotMutex

  // Loop thread only. The buffers that carry frames, and those kept out of
  // circulation (see dequeueCirculating).
  std::vector<pw_buffer*> circulating;
  std::vector<pw_buffer*> parked;

  std::uint32_t stride() const { return static_cast<std::uint32_t>(settings.width) * 4; }
  std::shared_ptr<const RenderedFrame> takeFrame() {
    std::lock_guard lock(slotMutex);
    return std::move(slot);
  }
};

namespace {

using Impl = PipeWireVideoSource::Impl;

// ---------------------------------------------------------------------------
// [SECTION] Callbacks on PipeWire's loop thread
// ---------------------------------------------------------------------------

void onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char* error) {
  auto* impl = static_cast<Impl*>(data);
  impl->state = state;
  if (state == PW_STREAM_STATE_PAUSED || state == PW_STREAM_STATE_STREAMING) {
    impl->wasConnected = true;
    impl->nodeId = impl->api->streamGetNodeId(impl->stream);
  }
  // An error, or losing a connection that existed, ends this source: a daemon
  // that went away does not come back to the same stream.
  if (state == PW_STREAM_STATE_ERROR || (state == PW_STREAM_STATE_UNCONNECTED && impl->wasConnected)) {
    std::lock_guard lock(impl->slotMutex);
    impl->failure = error && *error ? error : impl->api->streamStateAsString(state);
    impl->failed = true;
  }
}

// Buffers that carry frames: one the consumer holds (the newest frame it
// shows or encodes until the next arrives), one queued to it, one the loop
// thread fills. With two, a consumer that keeps its newest frame while the
// other is still queued leaves no buffer to fill, and frames drop.
constexpr std::size_t kCirculatingBuffers = 3;

// The consumer fixed the format (always ours, the only one offered): ask for
// buffers of exactly one frame each, mapped memory that a consumer in another
// process can map too. The count is a range because the link takes what both
// ends allow and fails when the ranges do not meet: gst's pipewiresrc asks
// for at least 8 (its min-buffers), a consumer without a wish gets 3 (the
// circulating ones). Buffers beyond 3 are parked unused (onAddBuffer), so
// however many the consumer asks for, 3 frames of memory are resident.
void onParamChanged(void* data, std::uint32_t id, const spa_pod* param) {
  auto* impl = static_cast<Impl*>(data);
  if (!param || id != SPA_PARAM_Format) return;
  spa_video_info_raw info{};
  if (spa_format_video_raw_parse(param, &info) < 0) return;
  const std::int32_t stride = static_cast<std::int32_t>(impl->stride());
  const std::int32_t size = stride * impl->settings.height;
  std::uint8_t storage[1024];
  spa_pod_builder b = SPA_POD_BUILDER_INIT(storage, sizeof storage);
  const spa_pod* params[2];
  params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &b, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
      SPA_POD_CHOICE_RANGE_Int(static_cast<int>(kCirculatingBuffers), 2, 8), SPA_PARAM_BUFFERS_blocks,
      SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
      SPA_POD_Int(size), SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride), SPA_PARAM_BUFFERS_dataType,
      SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr))));
  params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
      SPA_PARAM_META_size, SPA_POD_Int(static_cast<std::int32_t>(sizeof(spa_meta_header)))));
  impl->api->streamUpdateParams(impl->stream, params, 2);
}

// Gives a parked buffer's frame memory back to the system. PipeWire locks
// every mapped buffer into memory (mlock), which makes all of its pages
// resident in this process and in the consumer's; the whole pages of the
// frame data (not the chunk and metadata around it) are unlocked here and
// punched out of the shared memory file, so they cost nothing until written
// again, which nobody does.
void releasePages(const spa_data& d) {
  if (!d.data || d.maxsize == 0) return;
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto from = (reinterpret_cast<std::uintptr_t>(d.data) + page - 1) / page * page;
  const auto to = (reinterpret_cast<std::uintptr_t>(d.data) + d.maxsize) / page * page;
  if (to <= from) return;
  ::munlock(reinterpret_cast<void*>(from), to - from);
  ::madvise(reinterpret_cast<void*>(from), to - from, MADV_REMOVE);
}

// A new buffer (a consumer linked or renegotiated, after PipeWire mapped and
// locked it): the first kCirculatingBuffers carry frames, the others are
// parked at once, their memory released (8.3 MB a 1080p frame).
void onAddBuffer(void* data, pw_buffer* buffer) {
  auto* impl = static_cast<Impl*>(data);
  if (impl->circulating.size() < kCirculatingBuffers) {
    impl->circulating.push_back(buffer);
    return;
  }
  impl->parked.push_back(buffer);
  releasePages(buffer->buffer->datas[0]);
}

// Buffers go when the consumer leaves or renegotiates.
void onRemoveBuffer(void* data, pw_buffer* buffer) {
  auto* impl = static_cast<Impl*>(data);
  std::erase(impl->circulating, buffer);
  std::erase(impl->parked, buffer);
}

// A free circulating buffer, or null. A parked one that comes up stays
// dequeued here for good: never written, never handed to the consumer.
pw_buffer* dequeueCirculating(Impl& impl) {
  while (pw_buffer* buffer = impl.api->streamDequeueBuffer(impl.stream)) {
    if (std::find(impl.circulating.begin(), impl.circulating.end(), buffer) != impl.circulating.end()) return buffer;
  }
  return nullptr;
}

// The graph asks for a frame: copy the newest one, if any, into a free buffer.
void onProcess(void* data) {
  auto* impl = static_cast<Impl*>(data);
  std::shared_ptr<const RenderedFrame> frame = impl->takeFrame();
  if (!frame) return;
  const auto started = std::chrono::steady_clock::now();
  pw_buffer* buffer = dequeueCirculating(*impl);
  if (!buffer) {
    std::lock_guard lock(impl->slotMutex);
    ++impl->counters.noBuffer;
    return;
  }
  spa_buffer* spa = buffer->buffer;
  spa_data& d = spa->datas[0];
  const std::uint32_t stride = impl->stride();
  const std::uint32_t size = stride * static_cast<std::uint32_t>(impl->settings.height);
  if (d.data && d.maxsize >= size) {
    // RenderedFrame rows are top first and tightly packed, like the buffer.
    std::memcpy(d.data, frame->pixels.data(), size);
    d.chunk->offset = 0;
    d.chunk->size = size;
    d.chunk->stride = static_cast<std::int32_t>(stride);
    d.chunk->flags = 0;
  } else {
    d.chunk->size = 0;  // an unusable buffer goes back empty
  }
  if (auto* header = static_cast<spa_meta_header*>(spa_buffer_find_meta_data(spa, SPA_META_Header, sizeof(spa_meta_header)))) {
    header->flags = 0;
    header->offset = 0;
    header->pts = static_cast<std::int64_t>(frame->time * 1e9);  // ns on the monotonic uptime clock
    header->dts_offset = 0;
    header->seq = frame->sequence;
  }
  impl->api->streamQueueBuffer(impl->stream, buffer);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::lock_guard lock(impl->slotMutex);
  if (d.chunk->size) {
    ++impl->counters.copied;
    impl->counters.copySeconds += seconds;
  } else {
    ++impl->counters.noBuffer;
  }
}

// offer() woke the loop: as the driver, start one graph cycle, which calls
// onProcess. When another node drives the graph the trigger is refused and
// the next cycle picks the frame up anyway.
void onWake(void* data, std::uint64_t) {
  auto* impl = static_cast<Impl*>(data);
  if (impl->stream && impl->state == PW_STREAM_STATE_STREAMING) impl->api->streamTriggerProcess(impl->stream);
}

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] Creation and teardown (controlling thread)
// ---------------------------------------------------------------------------

PipeWireVideoSource::PipeWireVideoSource(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

bool PipeWireVideoSource::daemonSocketAnswers() {
  const char* remote = std::getenv("PIPEWIRE_REMOTE");
  std::string path = remote && *remote ? remote : "pipewire-0";
  if (path[0] != '/') {
    const char* dir = std::getenv("PIPEWIRE_RUNTIME_DIR");
    if (!dir || !*dir) dir = std::getenv("XDG_RUNTIME_DIR");
    if (!dir || !*dir) return true;
    path = std::string(dir) + "/" + path;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return true;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return true;
  // A daemon that died leaves its socket file behind: only a connect tells.
  const bool answers = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return answers;
}

CreateResult<PipeWireVideoSource> PipeWireVideoSource::create(std::shared_ptr<const PipeWireApi> api,
                                                              Settings settings) {
  if (!api) return CreateResult<PipeWireVideoSource>::failure("PipeWireVideoSource::create(): no PipeWire library");
  if (!daemonSocketAnswers())
    return CreateResult<PipeWireVideoSource>::failure("PipeWireVideoSource::create(): no PipeWire daemon answers");
  auto impl = std::make_unique<Impl>();
  impl->api = api;
  impl->settings = std::move(settings);
  impl->events.version = PW_VERSION_STREAM_EVENTS;
  impl->events.state_changed = onStateChanged;
  impl->events.param_changed = onParamChanged;
  impl->events.process = onProcess;
  impl->events.add_buffer = onAddBuffer;
  impl->events.remove_buffer = onRemoveBuffer;

  impl->threadLoop = api->threadLoopNew("velmora-pipewire", nullptr);
  if (!impl->threadLoop) return CreateResult<PipeWireVideoSource>::failure("PipeWireVideoSource::create(): no thread loop");
  impl->loop = api->threadLoopGetLoop(impl->threadLoop);
  // From here the destructor tears down whatever exists.
  std::unique_ptr<PipeWireVideoSource> source(new PipeWireVideoSource(std::move(impl)));
  Impl& s = *source->impl_;
  if (api->threadLoopStart(s.threadLoop) < 0)
    return CreateResult<PipeWireVideoSource>::failure("PipeWireVideoSource::create(): the loop thread did not start");

  const std::string& name = s.settings.nodeName;
  api->threadLoopLock(s.threadLoop);
  pw_properties* props = api->propertiesNew(
      PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE, "Camera", PW_KEY_MEDIA_CLASS,
      "Video/Source", PW_KEY_NODE_NAME, name.c_str(), PW_KEY_NODE_DESCRIPTION, name.c_str(), PW_KEY_APP_NAME,
      name.c_str(), nullptr);
  s.stream = api->streamNewSimple(s.loop, name.c_str(), props, &s.events, &s);
  int result = -1;
  if (s.stream) {
    s.wake = pw_loop_add_event(s.loop, onWake, &s);
    spa_rectangle size{static_cast<std::uint32_t>(s.settings.width), static_cast<std::uint32_t>(s.settings.height)};
    spa_fraction rate{static_cast<std::uint32_t>(s.settings.framesPerSecond), 1};
    std::uint8_t storage[1024];
    spa_pod_builder b = SPA_POD_BUILDER_INIT(storage, sizeof storage);
    const spa_pod* params[1];
    params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &b, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
        SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
        SPA_POD_Id(SPA_VIDEO_FORMAT_BGRA), SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size),
        SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate)));
    result = api->streamConnect(s.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                                PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS, params, 1);
  }
  api->threadLoopUnlock(s.threadLoop);
  if (!s.stream) return CreateResult<PipeWireVideoSource>::failure("PipeWireVideoSource::create(): no stream");
  if (result < 0)
    return CreateResult<PipeWireVideoSource>::failure(std::string("PipeWireVideoSource::create(): ") +
                                                      std::strerror(-result));
  return CreateResult<PipeWireVideoSource>::success(std::move(source));
}

PipeWireVideoSource::~PipeWireVideoSource() {
  Impl& s = *impl_;
  const PipeWireApi& api = *s.api;
  if (!s.threadLoop) return;
  api.threadLoopLock(s.threadLoop);
  if (s.wake) pw_loop_destroy_source(s.loop, s.wake);
  s.wake = nullptr;
  if (s.stream) {
    api.streamDisconnect(s.stream);
    api.streamDestroy(s.stream);
    s.stream = nullptr;
  }
  api.threadLoopUnlock(s.threadLoop);
  api.threadLoopStop(s.threadLoop);
  api.threadLoopDestroy(s.threadLoop);
}

// ---------------------------------------------------------------------------
// [SECTION] Frame hand-off and observers (any thread)
// ---------------------------------------------------------------------------

void PipeWireVideoSource::offer(std::shared_ptr<const RenderedFrame> frame) {
  Impl& s = *impl_;
  if (!frame) return;
  {
    std::lock_guard lock(s.slotMutex);
    ++s.counters.offered;
    // A frame of another size would change the negotiated format: never sent.
    if (frame->width != s.settings.width || frame->height != s.settings.height) return;
    if (s.slot) ++s.counters.replaced;
    s.slot = std::move(frame);
  }
  // An eventfd write: safe from any thread, wakes the loop at once.
  if (s.wake) pw_loop_signal_event(s.loop, s.wake);
}

bool PipeWireVideoSource::isStreaming() const {
  return impl_->state == PW_STREAM_STATE_STREAMING && !impl_->failed;
}

bool PipeWireVideoSource::hasFailed() const { return impl_->failed; }

std::string PipeWireVideoSource::failure() const {
  std::lock_guard lock(impl_->slotMutex);
  return impl_->failure;
}

std::uint32_t PipeWireVideoSource::nodeId() const { return impl_->nodeId; }

std::string PipeWireVideoSource::stateName() const {
  return impl_->api->streamStateAsString(impl_->state);
}

PipeWireVideoSource::Counters PipeWireVideoSource::counters() const {
  std::lock_guard lock(impl_->slotMutex);
  return impl_->counters;
}

}  // namespace velmora
