#include "animation/AnimationOutput.h"

namespace velmora {

const AnimationOutput& AnimationOutput::neutral() {
  static const AnimationOutput value{};
  return value;
}

}  // namespace velmora
