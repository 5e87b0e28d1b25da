#pragma once
// Small vector aliases over GLM, shared by every subsystem.

#include <glm/glm.hpp>

namespace velmora {

using float2 = glm::vec2;
using float3 = glm::vec3;
using float4 = glm::vec4;
using float4x4 = glm::mat4;

}  // namespace velmora
