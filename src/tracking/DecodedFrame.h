#pragma once
// What one tracking datagram decoded to, on its way from the receiver's
// queue to the main thread.
//
// OSC senders may send single head components ("/Head/Yaw" alone). Such a
// packet changes only those components; the others keep the state's last
// raw rotation/position. Those raw values are main-thread state, so the
// decoder does not read them: it records which components the packet set,
// and the main thread fills in the rest with completed() at the moment the
// frame is ingested. That reads exactly the state's current rawRotation /
// rawPosition, whatever frames were dropped under a flood in between and
// whoever else ingested frames, and the receiver's queue never touches
// main-thread data.

#include <array>
#include <cstddef>

#include "stage/FaceFrame.h"
#include "tracking/TrackingFormat.h"

namespace velmora {

struct DecodedFrame {
  FaceFrame frame;
  // Component i of frame.rotation / frame.position came from the packet.
  // Unset components hold 0 until completed() fills them.
  std::array<bool, 3> rotationSet{true, true, true};
  std::array<bool, 3> positionSet{true, true, true};
  // The app the datagram came from.
  TrackingApp app = TrackingApp::none;

  // Main thread (or any thread that owns the given raw values): the face
  // frame with every component the packet did not set taken from
  // rawRotation / rawPosition.
  FaceFrame completed(const float3& rawRotation, const float3& rawPosition) && {
    if (frame.rotation) {
      for (int i = 0; i < 3; ++i)
        if (!rotationSet[i]) (*frame.rotation)[i] = rawRotation[i];
    }
    if (frame.position) {
      for (int i = 0; i < 3; ++i)
        if (!positionSet[i]) (*frame.position)[i] = rawPosition[i];
    }
    return std::move(frame);
  }

  // Folds an older frame from the same sender into this newer one, for a
  // frame that replaces one still waiting for the main thread: this frame's
  // values win per blendshape name and per head component; names and
  // components only the older one carried are kept (a non-finite newer
  // value, which ingesting skips, leaves the older finite one). Ingesting
  // the result publishes what ingesting both in order would. The older
  // frame's names are added only while the map holds fewer than `maxNames`
  // (this frame's own names always stay), so repeated merging stays
  // bounded. The arrival time, the app and faceFound are the newer frame's;
  // an eye rotation only the older frame carried is kept.
  void mergeOlder(DecodedFrame&& older, std::size_t maxNames);
};

}  // namespace velmora
