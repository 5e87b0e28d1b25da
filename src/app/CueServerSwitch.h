#pragma once
// The remote-control switch: whenever the state's isOSCEnabled is written
// (by the dashboard or a remote command), the cue server starts (on) or
// stops (off). By then the state has stored the flag and, when switched
// off, shown "OSC cues: disabled". Installed for as long as this object
// lives. Main thread.

namespace velmora {

class FaceTrackingState;
class QLabOSCServer;

class CueServerSwitch {
 public:
  CueServerSwitch(FaceTrackingState& state, QLabOSCServer& server);
  ~CueServerSwitch();
  CueServerSwitch(const CueServerSwitch&) = delete;
  CueServerSwitch& operator=(const CueServerSwitch&) = delete;

 private:
  FaceTrackingState& state_;
  int token_ = 0;
};

}  // namespace velmora
