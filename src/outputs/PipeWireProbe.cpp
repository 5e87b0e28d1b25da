#include "outputs/PipeWireProbe.h"

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

#include "outputs/PipeWireApi.h"

// Index of this file
// [SECTION] State shared with the loop thread
// [SECTION] Registry and consumer callbacks (loop thread)
// [SECTION] Creation, teardown, consumer (controlling thread)

namespace velmora {

// ---------------------------------------------------------------------------
// [SECTION] State shared with the loop thread
// ---------------------------------------------------------------------------

struct PipeWireProbe::Impl {
  std::shared_ptr<const PipeWireApi> api;
  pw_thread_loop* threadLoop = nullptr;
  pw_loop* loop = nullptr;
  pw_context* context = nullptr;
  pw_core* core = nullptr;
  pw_registry* registry = nullptr;
  spa_hook registryListener{};
  pw_registry_events registryEvents{};
  pw_stream* stream = nullptr;
  pw_stream_events streamEvents{};

  struct Client {
    std::string application;
    int processId = 0;
  };
  struct Node {
    std::uint32_t id = 0;
    std::string name, serial;
    std::uint32_t clientId = SPA_ID_INVALID;
  };
  mutable std::mutex mutex;  // guards everything below
  std::map<std::uint32_t, Client> clients;
  std::vector<Node> nodes;
  int negotiatedWidth = 0, negotiatedHeight = 0;
  std::optional<Frame> frame;
};

namespace {

using Impl = PipeWireProbe::Impl;

std::string lookup(const spa_dict* props, const char* key) {
  const char* value = props ? spa_dict_lookup(props, key) : nullptr;
  return value ? value : "";
}

// ---------------------------------------------------------------------------
// [SECTION] Registry and consumer callbacks (loop thread)
// ---------------------------------------------------------------------------

void onGlobal(void* data, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t, const spa_dict* props) {
  auto* impl = static_cast<Impl*>(data);
  std::lock_guard lock(impl->mutex);
  if (std::strcmp(type, PW_TYPE_INTERFACE_Client) == 0) {
    Impl::Client client;
    client.application = lookup(props, PW_KEY_APP_NAME);
    client.processId = std::atoi(lookup(props, PW_KEY_SEC_PID).c_str());
    impl->clients[id] = client;
  } else if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0 && lookup(props, PW_KEY_MEDIA_CLASS) == "Video/Source") {
    Impl::Node node;
    node.id = id;
    node.name = lookup(props, PW_KEY_NODE_NAME);
    node.serial = lookup(props, PW_KEY_OBJECT_SERIAL);
    const std::string client = lookup(props, PW_KEY_CLIENT_ID);
    if (!client.empty()) node.clientId = static_cast<std::uint32_t>(std::strtoul(client.c_str(), nullptr, 10));
    impl->nodes.push_back(node);
  }
}

void onGlobalRemove(void* data, std::uint32_t id) {
  auto* impl = static_cast<Impl*>(data);
  std::lock_guard lock(impl->mutex);
  impl->clients.erase(id);
  impl->nodes.erase(std::remove_if(impl->nodes.begin(), impl->nodes.end(), [&](const Impl::Node& n) { return n.id == id; }),
                    impl->nodes.end());
}

void onClientParamChanged(void* data, std::uint32_t id, const spa_pod* param) {
  auto* impl = static_cast<Impl*>(data);
  if (!param || id != SPA_PARAM_Format) return;
  spa_video_info_raw info{};
  if (spa_format_video_raw_parse(param, &info) < 0) return;
  std::lock_guard lock(impl->mutex);
  impl->negotiatedWidth = static_cast<int>(info.size.width);
  impl->negotiatedHeight = static_cast<int>(info.size.height);
}

// Keeps the first complete frame; later buffers go straight back.
void onClientProcess(void* data) {
  auto* impl = static_cast<Impl*>(data);
  pw_buffer* buffer = impl->api->streamDequeueBuffer(impl->stream);
  if (!buffer) return;
  const spa_data& d = buffer->buffer->datas[0];
  {
    std::lock_guard lock(impl->mutex);
    const int w = impl->negotiatedWidth, h = impl->negotiatedHeight;
    const std::size_t row = static_cast<std::size_t>(w) * 4;
    const std::size_t stride = d.chunk->stride > 0 ? static_cast<std::size_t>(d.chunk->stride) : row;
    if (!impl->frame && d.data && w > 0 && h > 0 && d.chunk->size >= stride * (h - 1) + row) {
      PipeWireProbe::Frame frame;
      frame.width = w;
      frame.height = h;
      frame.bgra.resize(row * h);
      const auto* source = static_cast<const std::uint8_t*>(d.data) + d.chunk->offset;
      for (int y = 0; y < h; ++y) std::memcpy(frame.bgra.data() + row * y, source + stride * y, row);
      impl->frame = std::move(frame);
    }
  }
  impl->api->streamQueueBuffer(impl->stream, buffer);
}

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] Creation, teardown, consumer (controlling thread)
// ---------------------------------------------------------------------------

PipeWireProbe::PipeWireProbe(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

CreateResult<PipeWireProbe> PipeWireProbe::create(std::shared_ptr<const PipeWireApi> api) {
  using Result = CreateResult<PipeWireProbe>;
  if (!api) return Result::failure("PipeWireProbe::create(): PipeWire is not loaded");
  if (!api->hasClientEntryPoints())
    return Result::failure("PipeWireProbe::create(): the PipeWire library lacks the client entry points");
  auto impl = std::make_unique<Impl>();
  impl->api = api;
  impl->registryEvents.version = PW_VERSION_REGISTRY_EVENTS;
  impl->registryEvents.global = onGlobal;
  impl->registryEvents.global_remove = onGlobalRemove;
  impl->streamEvents.version = PW_VERSION_STREAM_EVENTS;
  impl->streamEvents.param_changed = onClientParamChanged;
  impl->streamEvents.process = onClientProcess;
  impl->threadLoop = api->threadLoopNew("velmora-probe", nullptr);
  if (!impl->threadLoop) return Result::failure("PipeWireProbe::create(): no thread loop");
  impl->loop = api->threadLoopGetLoop(impl->threadLoop);
  std::unique_ptr<PipeWireProbe> probe(new PipeWireProbe(std::move(impl)));
  Impl& s = *probe->impl_;
  if (api->threadLoopStart(s.threadLoop) < 0) return Result::failure("PipeWireProbe::create(): the loop did not start");
  api->threadLoopLock(s.threadLoop);
  s.context = api->contextNew(s.loop, nullptr, 0);
  if (s.context) s.core = api->contextConnect(s.context, nullptr, 0);
  if (s.core) {
    s.registry = pw_core_get_registry(s.core, PW_VERSION_REGISTRY, 0);
    if (s.registry) pw_registry_add_listener(s.registry, &s.registryListener, &s.registryEvents, &s);
  }
  api->threadLoopUnlock(s.threadLoop);
  if (!s.core) return Result::failure("PipeWireProbe::create(): no PipeWire daemon answers");
  if (!s.registry) return Result::failure("PipeWireProbe::create(): no registry");
  return Result::success(std::move(probe));
}

PipeWireProbe::~PipeWireProbe() {
  Impl& s = *impl_;
  const PipeWireApi& api = *s.api;
  if (!s.threadLoop) return;
  api.threadLoopLock(s.threadLoop);
  if (s.stream) {
    api.streamDisconnect(s.stream);
    api.streamDestroy(s.stream);
  }
  if (s.registry) {
    spa_hook_remove(&s.registryListener);
    api.proxyDestroy(reinterpret_cast<pw_proxy*>(s.registry));
  }
  if (s.core) api.coreDisconnect(s.core);
  if (s.context) api.contextDestroy(s.context);
  api.threadLoopUnlock(s.threadLoop);
  api.threadLoopStop(s.threadLoop);
  api.threadLoopDestroy(s.threadLoop);
}

std::vector<PipeWireProbe::SourceNode> PipeWireProbe::videoSources() const {
  std::lock_guard lock(impl_->mutex);
  std::vector<SourceNode> result;
  for (const auto& node : impl_->nodes) {
    SourceNode source;
    source.id = node.id;
    source.name = node.name;
    source.serial = node.serial;
    auto client = impl_->clients.find(node.clientId);
    if (client != impl_->clients.end()) {
      source.application = client->second.application;
      source.processId = client->second.processId;
    }
    result.push_back(std::move(source));
  }
  return result;
}

bool PipeWireProbe::connectClient(const SourceNode& node, int width, int height, std::string* error) {
  Impl& s = *impl_;
  const PipeWireApi& api = *s.api;
  if (s.stream) return true;
  api.threadLoopLock(s.threadLoop);
  // The session manager links the stream to the node named by its serial
  // (a name could match another program's node).
  const std::string target = node.serial.empty() ? node.name : node.serial;
  pw_properties* props =
      api.propertiesNew(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE, "Camera",
                        PW_KEY_TARGET_OBJECT, target.c_str(), PW_KEY_NODE_NAME, "velmora-selftest-client", nullptr);
  s.stream = api.streamNewSimple(s.loop, "velmora-selftest-client", props, &s.streamEvents, &s);
  int result = -1;
  if (s.stream) {
    spa_rectangle size{static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)};
    spa_fraction rate{60, 1}, minRate{0, 1}, maxRate{1000, 1};
    std::uint8_t storage[1024];
    spa_pod_builder b = SPA_POD_BUILDER_INIT(storage, sizeof storage);
    const spa_pod* params[1];
    params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &b, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
        SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
        SPA_POD_Id(SPA_VIDEO_FORMAT_BGRA), SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size),
        SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&rate, &minRate, &maxRate)));
    result = api.streamConnect(s.stream, PW_DIRECTION_INPUT, PW_ID_ANY,
                               PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS, params, 1);
  }
  api.threadLoopUnlock(s.threadLoop);
  if (result < 0 && error)
    *error = std::string("PipeWireProbe::connectClient(): ") + (s.stream ? std::strerror(-result) : "no stream");
  return result >= 0;
}

std::optional<PipeWireProbe::Frame> PipeWireProbe::receivedFrame() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->frame;
}

}  // namespace velmora
