#include "outputs/PipeWireApi.h"

namespace velmora {

namespace {

template <class Function>
bool resolve(const RuntimeLibrary& library, Function& slot, const char* name) {
  slot = library.function<Function>(name);
  return slot != nullptr;
}

}  // namespace

std::shared_ptr<const PipeWireApi> PipeWireApi::load(const std::vector<std::string>& candidatePaths) {
  std::shared_ptr<PipeWireApi> api(new PipeWireApi());
  // A candidate that lacks a producer entry point is refused and the next
  // one tried; the table is filled again from the library that was kept.
  auto library = RuntimeLibrary::loadFirst("Syphon", candidatePaths,
                                           [&](RuntimeLibrary& candidate) { return api->resolveProducer(candidate); });
  if (!library) return nullptr;
  api->resolveProducer(*library);
  api->resolveClient(*library);
  api->library_ = std::move(library);
  // pw_init is reference counted inside PipeWire and cheap after the first
  // call; the library stays initialised for the rest of the process.
  api->init(nullptr, nullptr);
  return api;
}

bool PipeWireApi::resolveProducer(const RuntimeLibrary& l) {
  bool ok = true;
  ok &= resolve(l, init, "pw_init");
  ok &= resolve(l, deinit, "pw_deinit");
  ok &= resolve(l, getLibraryVersion, "pw_get_library_version");
  ok &= resolve(l, threadLoopNew, "pw_thread_loop_new");
  ok &= resolve(l, threadLoopGetLoop, "pw_thread_loop_get_loop");
  ok &= resolve(l, threadLoopStart, "pw_thread_loop_start");
  ok &= resolve(l, threadLoopStop, "pw_thread_loop_stop");
  ok &= resolve(l, threadLoopLock, "pw_thread_loop_lock");
  ok &= resolve(l, threadLoopUnlock, "pw_thread_loop_unlock");
  ok &= resolve(l, threadLoopDestroy, "pw_thread_loop_destroy");
  ok &= resolve(l, propertiesNew, "pw_properties_new");
  ok &= resolve(l, streamNewSimple, "pw_stream_new_simple");
  ok &= resolve(l, streamConnect, "pw_stream_connect");
  ok &= resolve(l, streamDisconnect, "pw_stream_disconnect");
  ok &= resolve(l, streamDestroy, "pw_stream_destroy");
  ok &= resolve(l, streamUpdateParams, "pw_stream_update_params");
  ok &= resolve(l, streamDequeueBuffer, "pw_stream_dequeue_buffer");
  ok &= resolve(l, streamQueueBuffer, "pw_stream_queue_buffer");
  ok &= resolve(l, streamTriggerProcess, "pw_stream_trigger_process");
  ok &= resolve(l, streamGetNodeId, "pw_stream_get_node_id");
  ok &= resolve(l, streamStateAsString, "pw_stream_state_as_string");
  return ok;
}

void PipeWireApi::resolveClient(const RuntimeLibrary& l) {
  resolve(l, contextNew, "pw_context_new");
  resolve(l, contextDestroy, "pw_context_destroy");
  resolve(l, contextConnect, "pw_context_connect");
  resolve(l, coreDisconnect, "pw_core_disconnect");
  resolve(l, proxyDestroy, "pw_proxy_destroy");
  resolve(l, threadLoopTimedWait, "pw_thread_loop_timed_wait");
  resolve(l, threadLoopSignal, "pw_thread_loop_signal");
}

bool PipeWireApi::hasClientEntryPoints() const {
  return contextNew && contextDestroy && contextConnect && coreDisconnect && proxyDestroy && threadLoopTimedWait &&
         threadLoopSignal;
}

}  // namespace velmora
