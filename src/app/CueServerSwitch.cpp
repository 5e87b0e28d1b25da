#include "app/CueServerSwitch.h"

#include "control/QLabOSCServer.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

CueServerSwitch::CueServerSwitch(FaceTrackingState& state, QLabOSCServer& server) : state_(state) {
  token_ = state.observe([&state, &server](FaceTrackingState::Property property) {
    if (property == FaceTrackingState::Property::isOSCEnabled) server.setEnabled(state.isOSCEnabled());
  });
}

CueServerSwitch::~CueServerSwitch() { state_.unobserve(token_); }

}  // namespace velmora
