#pragma once
// The tests' view of the NDI runtime double (ndi_runtime_double/): opens the
// same file the publisher loads, so both see one copy of its state, and keeps
// it loaded for the whole test even when the publisher closes its handle.
#include <cstdint>
#include <memory>
#include <string>

#include "base/RuntimeLibrary.h"
#include "outputs/NDIRuntimeTypes.h"

namespace velmora::test {

// Folders holding a complete double and one without
// NDIlib_send_get_no_connections, both named libndi.so.6.
inline const std::string ndiDoubleDir = VELMORA_NDI_DOUBLE_DIR;
inline const std::string ndiIncompleteDoubleDir = VELMORA_BINARY_DIR "/tests/ndi-runtime-missing";

class NDIRuntimeDoubleHandle {
 public:
  // Both doubles are built from one source: one control present means all are.
  NDIRuntimeDoubleHandle() : library_(RuntimeLibrary::open(ndiDoubleDir + "/libndi.so.6").value) {
    if (library_ && !library_->symbol("NDIdouble_counts")) library_.reset();
    if (library_) reset();
  }
  bool loaded() const { return library_ != nullptr; }

  void reset() { call<void (*)()>("NDIdouble_reset")(); }
  int initializeCalls() const { return count(0); }
  int framesSent() const { return count(1); }
  int liveSenders() const { return count(2); }
  int sendsInProgress() const { return count(3); }
  void holdSends(bool hold) { call<void (*)(bool)>("NDIdouble_hold_sends")(hold); }

  struct Sent {
    ndi::VideoFrameV2 frame{};
    std::uint64_t checksum = 0;
  };
  // The last frame the runtime was handed, as it was handed.
  bool lastFrame(Sent& out) const {
    return call<bool (*)(ndi::VideoFrameV2*, std::uint64_t*)>("NDIdouble_last_frame")(&out.frame, &out.checksum);
  }

  struct Settings {
    std::string name;
    bool groupsNull = false, clockVideo = true, clockAudio = true;
  };
  bool lastSendCreate(Settings& out) const {
    char name[256] = {};
    const bool got = call<bool (*)(char*, std::size_t, bool*, bool*, bool*)>("NDIdouble_last_send_create")(
        name, sizeof name, &out.groupsNull, &out.clockVideo, &out.clockAudio);
    out.name = name;
    return got;
  }

  // Broken promises (a send on a destroyed sender, a destroy during a send,
  // pixels freed or changed during the send...): empty when none.
  std::string violations() const {
    char text[512] = {};
    const int n = call<int (*)(char*, std::size_t)>("NDIdouble_violations")(text, sizeof text);
    return n == 0 ? std::string() : std::to_string(n) + " violation(s), first: " + text;
  }

 private:
  int count(int which) const {
    int counts[4] = {};
    call<void (*)(int*)>("NDIdouble_counts")(counts);
    return counts[which];
  }

  // Present once one is (loaded() is false otherwise).
  template <class F>
  F call(const char* name) const {
    return library_->function<F>(name);
  }

  std::unique_ptr<RuntimeLibrary> library_;
};

}  // namespace velmora::test
