// A stand-in for the NDI runtime (built as libndi.so.6, loaded by tests
// through NDI_RUNTIME_DIR_V6; never installed or shipped). It exports the
// runtime's entry points with the public SDK's C structures, checks what it
// is handed as a real runtime relies on (a live sender, readable pixels at
// the stated stride, no sender destroyed during its own send), and records
// it for the tests to read back through NDIdouble_read (NDIDoubleReadout.h).
//
// Behaviour chosen by environment variables:
//   NDI_DOUBLE_REFUSE_INIT=1       NDIlib_initialize reports failure
//   NDI_DOUBLE_FAIL_CREATE=1       NDIlib_send_create returns no sender
//   NDI_DOUBLE_CONNECTIONS=<n>     receivers reported per sender (default 0)
//   NDI_DOUBLE_FAIL_FIND=1         NDIlib_find_create_v2 returns no finder
//   NDI_DOUBLE_REMOTE_SOURCES=a,b  sources on other machines, listed after the local ones
//   NDI_DOUBLE_UNREAD_SENDS=1      senders created now leave the pixels unread
//                                  (benchmarks: the caller's cost alone)
// Built with NDI_DOUBLE_WITHOUT_GET_NO_CONNECTIONS it lacks
// NDIlib_send_get_no_connections, like a runtime too old or incomplete.
//
// Index:
//   [SECTION] SDK structures
//   [SECTION] Recorded state
//   [SECTION] Send entry points
//   [SECTION] Find entry points
//   [SECTION] Inspection for tests

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "NDIDoubleReadout.h"

#define NDI_EXPORT extern "C" __attribute__((visibility("default")))

// [SECTION] SDK structures (Processing.NDI.*.h of the public SDK, x86-64)

// Sender and finder instances are opaque pointers (void*).
typedef struct NDIlib_send_create_t {
  const char* p_ndi_name;
  const char* p_groups;
  bool clock_video;
  bool clock_audio;
} NDIlib_send_create_t;
static_assert(sizeof(NDIlib_send_create_t) == 24);

typedef struct NDIlib_video_frame_v2_t {
  int xres, yres;
  std::uint32_t FourCC;
  int frame_rate_N, frame_rate_D;
  float picture_aspect_ratio;
  std::int32_t frame_format_type;
  std::int64_t timecode;
  std::uint8_t* p_data;
  int line_stride_in_bytes;  // a union with data_size_in_bytes (compressed frames only)
  const char* p_metadata;
  std::int64_t timestamp;
} NDIlib_video_frame_v2_t;
static_assert(sizeof(NDIlib_video_frame_v2_t) == 72);

typedef struct NDIlib_find_create_t {
  bool show_local_sources;
  const char* p_groups;
  const char* p_extra_ips;
} NDIlib_find_create_t;
static_assert(sizeof(NDIlib_find_create_t) == 24);

typedef struct NDIlib_source_t {
  const char* p_ndi_name;
  const char* p_url_address;  // a union with p_ip_address; the double has no addresses
} NDIlib_source_t;
static_assert(sizeof(NDIlib_source_t) == 16);

// [SECTION] Recorded state

namespace {

struct Sender {
  std::string name;
  bool readPixels = true;
  int sendsInProgress = 0;
};

struct Finder {
  bool showLocal = true;
  std::vector<std::string> names;  // what `sources` points into (no addresses: nobody reads them)
  std::vector<NDIlib_source_t> sources;
};

struct State {
  std::mutex mutex;  // guards everything below
  std::condition_variable released;
  std::list<Sender> senders;  // a sender's address is its instance handle
  bool holdSends = false;
  NDIDoubleReadout<NDIlib_video_frame_v2_t> r;  // what NDIdouble_reset forgets; the live counts are filled in when read
};

// One per process: every handle the runtime gives out belongs to it.
State state;

bool flag(const char* name) {
  const char* v = std::getenv(name);
  return v && *v && std::strcmp(v, "0") != 0;
}

// Under the state's lock.
void violation(const std::string& text) {
  if (state.r.violations++ == 0) std::snprintf(state.r.firstViolation, sizeof state.r.firstViolation, "%s", text.c_str());
}

// Under the state's lock. Without such a sender, a call named `caller` broke a promise.
Sender* find(void* instance, const char* caller = nullptr) {
  for (Sender& sender : state.senders)
    if (&sender == instance) return &sender;
  if (caller) violation(std::string(caller) + ": unknown sender");
  return nullptr;
}

// The machine's short name in capitals, as the runtime announces it.
std::string machineName() {
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  std::string name(host, std::strcspn(host, "."));
  std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::toupper(c); });
  return name;
}

// FNV-1a over the picture's visible bytes, row by row at the stated stride:
// reading every byte is what a runtime compressing the frame does.
std::uint64_t checksum(const NDIlib_video_frame_v2_t& f) {
  std::uint64_t h = 1469598103934665603ull;
  for (int y = 0; y < f.yres; ++y) {
    const std::uint8_t* row = f.p_data + std::size_t(y) * f.line_stride_in_bytes;
    for (int i = 0; i < f.xres * 4; ++i) h = (h ^ row[i]) * 1099511628211ull;
  }
  return h;
}

}  // namespace

// [SECTION] Send entry points

NDI_EXPORT bool NDIlib_initialize(void) {
  std::lock_guard lock(state.mutex);
  ++state.r.initializeCalls;
  return !flag("NDI_DOUBLE_REFUSE_INIT");
}

NDI_EXPORT void* NDIlib_send_create(const NDIlib_send_create_t* settings) {
  std::lock_guard lock(state.mutex);
  state.r.groupsNull = !settings || !settings->p_groups;
  state.r.clockVideo = !settings || settings->clock_video;
  state.r.clockAudio = !settings || settings->clock_audio;
  if (flag("NDI_DOUBLE_FAIL_CREATE")) return nullptr;
  const char* name = settings && settings->p_ndi_name ? settings->p_ndi_name : "";
  return &state.senders.emplace_back(Sender{name, !flag("NDI_DOUBLE_UNREAD_SENDS")});
}

NDI_EXPORT void NDIlib_send_destroy(void* instance) {
  std::lock_guard lock(state.mutex);
  Sender* sender = find(instance, "NDIlib_send_destroy");
  if (sender && sender->sendsInProgress > 0) violation("NDIlib_send_destroy: sender destroyed during its own send");
  state.senders.remove_if([&](const Sender& s) { return &s == sender; });
}

NDI_EXPORT void NDIlib_send_send_video_v2(void* instance, const NDIlib_video_frame_v2_t* frame) {
  std::unique_lock lock(state.mutex);
  Sender* sender = find(instance, "NDIlib_send_send_video_v2");
  if (!sender) return;
  // What the double itself reads; every other field is checked by the tests, literally.
  if (!frame || !frame->p_data || frame->xres <= 0 || frame->yres <= 0 ||
      frame->line_stride_in_bytes < frame->xres * 4)
    return violation("NDIlib_send_send_video_v2: no pixels at the stated size and stride");
  ++sender->sendsInProgress;
  // The runtime owns the frame for the length of the call and no longer.
  const bool readPixels = sender->readPixels;
  lock.unlock();
  const std::uint64_t sum = readPixels ? checksum(*frame) : 0;
  lock.lock();
  state.released.wait(lock, [&] { return !state.holdSends; });
  if (Sender* still = find(instance)) --still->sendsInProgress;
  ++state.r.framesSent;
  state.r.lastFrame = *frame;
  state.r.lastChecksum = sum;
}

#ifndef NDI_DOUBLE_WITHOUT_GET_NO_CONNECTIONS
NDI_EXPORT int NDIlib_send_get_no_connections(void* instance, std::uint32_t /*timeout_in_ms*/) {
  std::lock_guard lock(state.mutex);
  const char* connections = std::getenv("NDI_DOUBLE_CONNECTIONS");
  return find(instance, "NDIlib_send_get_no_connections") && connections ? std::max(0, std::atoi(connections)) : 0;
}
#endif

// [SECTION] Find entry points

NDI_EXPORT void* NDIlib_find_create_v2(const NDIlib_find_create_t* settings) {
  if (flag("NDI_DOUBLE_FAIL_FIND")) return nullptr;
  return new Finder{!settings || settings->show_local_sources, {}, {}};
}

NDI_EXPORT void NDIlib_find_destroy(void* instance) { delete static_cast<Finder*>(instance); }

// Local sources are there at once; otherwise nothing turns up within the timeout.
NDI_EXPORT bool NDIlib_find_wait_for_sources(void* instance, std::uint32_t timeout_in_ms) {
  if (std::lock_guard lock(state.mutex); static_cast<Finder*>(instance)->showLocal && !state.senders.empty()) return true;
  std::this_thread::sleep_for(std::chrono::milliseconds(timeout_in_ms));
  return false;
}

// Every sender alive in this process is a local source, then the remote ones.
// The list stays valid until the next call on this finder or its destruction.
NDI_EXPORT const NDIlib_source_t* NDIlib_find_get_current_sources(void* instance,
                                                                  std::uint32_t* p_no_sources) {
  auto* finder = static_cast<Finder*>(instance);
  finder->names.clear();
  std::lock_guard lock(state.mutex);
  for (const Sender& sender : state.senders)
    if (finder->showLocal) finder->names.push_back(machineName() + " (" + sender.name + ")");
  std::istringstream remote(std::getenv("NDI_DOUBLE_REMOTE_SOURCES") ? std::getenv("NDI_DOUBLE_REMOTE_SOURCES") : "");
  for (std::string name; std::getline(remote, name, ',');)
    if (!name.empty()) finder->names.push_back(name);
  finder->sources.clear();
  for (const auto& name : finder->names) finder->sources.push_back(NDIlib_source_t{name.c_str(), nullptr});
  if (p_no_sources) *p_no_sources = static_cast<std::uint32_t>(finder->sources.size());
  return finder->sources.empty() ? nullptr : finder->sources.data();
}

// [SECTION] Inspection for tests

// Forgets what was recorded (live senders stay).
NDI_EXPORT void NDIdouble_reset(void) {
  std::lock_guard lock(state.mutex);
  state.r = {};
}

// Everything recorded since the last reset, and the live counts.
NDI_EXPORT void NDIdouble_read(NDIDoubleReadout<NDIlib_video_frame_v2_t>* out) {
  std::lock_guard lock(state.mutex);
  *out = state.r;
  out->liveSenders = static_cast<int>(state.senders.size());
  for (const Sender& sender : state.senders) out->sendsInProgress += sender.sendsInProgress;
}

// While held, every send blocks before returning (after reading its pixels once).
NDI_EXPORT void NDIdouble_hold_sends(bool hold) {
  std::lock_guard lock(state.mutex);
  state.holdSends = hold;
  state.released.notify_all();
}
