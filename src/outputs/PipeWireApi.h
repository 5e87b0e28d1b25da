#pragma once
// The entry points of libpipewire-0.3 that Velmora uses, looked up by name in
// a library opened at run time (never linked). Everything else PipeWire
// offers a C program (the SPA pod builder, loop events, registry calls) is
// inline header code and needs no symbol.
//
// A producer (the video source) needs only `producer` entry points; the
// output self-test's registry listener and consumer stream need `client`
// ones as well. load() refuses a library that lacks a producer entry point;
// hasClientEntryPoints() says whether the others are there.
//
// Threads: the table is immutable once loaded; PipeWire's own rules about
// which thread may call what apply (thread-loop lock held outside the loop).

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/RuntimeLibrary.h"

struct pw_buffer;
struct pw_context;
struct pw_core;
struct pw_loop;
struct pw_properties;
struct pw_proxy;
struct pw_stream;
struct pw_stream_events;
struct pw_thread_loop;
struct spa_dict;
struct spa_pod;

namespace velmora {

class PipeWireApi {
 public:
  // The library's file name, the same in every candidate folder.
  static constexpr const char* libraryName = "libpipewire-0.3.so.0";

  // Opens the first candidate path that holds a usable libpipewire (every
  // place is logged once under "[Syphon]") and calls pw_init. Null when no
  // candidate works.
  static std::shared_ptr<const PipeWireApi> load(const std::vector<std::string>& candidatePaths);

  const std::string& path() const { return library_->path(); }
  bool hasClientEntryPoints() const;

  // ---- producer ----
  void (*init)(int* argc, char** argv[]) = nullptr;
  void (*deinit)() = nullptr;
  const char* (*getLibraryVersion)() = nullptr;
  pw_thread_loop* (*threadLoopNew)(const char* name, const spa_dict* props) = nullptr;
  pw_loop* (*threadLoopGetLoop)(pw_thread_loop* loop) = nullptr;
  int (*threadLoopStart)(pw_thread_loop* loop) = nullptr;
  void (*threadLoopStop)(pw_thread_loop* loop) = nullptr;
  void (*threadLoopLock)(pw_thread_loop* loop) = nullptr;
  void (*threadLoopUnlock)(pw_thread_loop* loop) = nullptr;
  void (*threadLoopDestroy)(pw_thread_loop* loop) = nullptr;
  pw_properties* (*propertiesNew)(const char* key, ...) = nullptr;
  pw_stream* (*streamNewSimple)(pw_loop* loop, const char* name, pw_properties* props,
                                const pw_stream_events* events, void* data) = nullptr;
  int (*streamConnect)(pw_stream* stream, int direction, std::uint32_t targetId, int flags,
                       const spa_pod** params, std::uint32_t paramCount) = nullptr;
  int (*streamDisconnect)(pw_stream* stream) = nullptr;
  void (*streamDestroy)(pw_stream* stream) = nullptr;
  int (*streamUpdateParams)(pw_stream* stream, const spa_pod** params, std::uint32_t paramCount) = nullptr;
  pw_buffer* (*streamDequeueBuffer)(pw_stream* stream) = nullptr;
  int (*streamQueueBuffer)(pw_stream* stream, pw_buffer* buffer) = nullptr;
  int (*streamTriggerProcess)(pw_stream* stream) = nullptr;
  std::uint32_t (*streamGetNodeId)(pw_stream* stream) = nullptr;
  const char* (*streamStateAsString)(int state) = nullptr;

  // ---- client (output self-test) ----
  pw_context* (*contextNew)(pw_loop* loop, pw_properties* props, std::size_t userDataSize) = nullptr;
  void (*contextDestroy)(pw_context* context) = nullptr;
  pw_core* (*contextConnect)(pw_context* context, pw_properties* props, std::size_t userDataSize) = nullptr;
  int (*coreDisconnect)(pw_core* core) = nullptr;
  void (*proxyDestroy)(pw_proxy* proxy) = nullptr;
  int (*threadLoopTimedWait)(pw_thread_loop* loop, int waitMaxSeconds) = nullptr;
  void (*threadLoopSignal)(pw_thread_loop* loop, bool waitForAccept) = nullptr;

 private:
  PipeWireApi() = default;
  bool resolveProducer(const RuntimeLibrary& library);
  void resolveClient(const RuntimeLibrary& library);

  std::unique_ptr<RuntimeLibrary> library_;
};

}  // namespace velmora
