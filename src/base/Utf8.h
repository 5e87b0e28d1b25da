#pragma once
// Strict UTF-8 validation (no overlong forms, no surrogates, nothing above
// U+10FFFF), shared by the OSC decoder and the tracking text detection.

#include <cstdint>
#include <span>

namespace velmora {

bool isValidUTF8(std::span<const std::uint8_t> bytes);

}  // namespace velmora
