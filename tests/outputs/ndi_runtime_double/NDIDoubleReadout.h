#pragma once
// What the NDI runtime double has recorded, copied out whole under its lock
// by NDIdouble_read. The double fills it with its own copy of the SDK's frame
// structure, the tests read it with the publisher's (both 72 bytes).
#include <cstdint>

template <class VideoFrame>
struct NDIDoubleReadout {
  int initializeCalls = 0;
  int framesSent = 0;
  int liveSenders = 0;
  int sendsInProgress = 0;
  // The last NDIlib_send_create's settings (its name shows in discovery).
  bool groupsNull = false, clockVideo = true, clockAudio = true;
  VideoFrame lastFrame{};  // as handed over, p_data included; xres 0 before the first send
  std::uint64_t lastChecksum = 0;  // of lastFrame's pixels, read during its send
  // Broken promises (a send on a destroyed sender, a destroy during a send,
  // pixels unreadable at the stated stride) and the first one's text.
  int violations = 0;
  char firstViolation[256] = {};
};
