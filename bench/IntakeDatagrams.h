#pragma once
// The datagrams the intake benchmarks feed, built once per benchmark: a
// Live Link face packet, a 52-element VMC bundle, single OSC messages, a
// JSON object of 52 names with a head, and the iFacialMocap app's and VTube
// Studio's own datagrams. Every intake and peer benchmark
// reads these same bytes, so their figures compare.

#include <array>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "osc/OSCWriter.h"
#include "tracking/LiveLinkNames.h"
#include "tracking/LiveLinkWriter.h"

namespace intake {

using Bytes = std::vector<std::uint8_t>;
inline const std::string kSender = "192.168.1.20:50000";

// The i-th value, 0.01..0.91, so no two neighbours are equal.
inline float value(std::size_t i) { return 0.013f * float(i % 70) + 0.01f; }

// A 45-byte header (subject and device names, frame time), then 61 floats.
inline Bytes liveLink() {
  std::array<float, velmora::LiveLinkWriter::kValueCount> values{};
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = value(i);
  return velmora::LiveLinkWriter::packet("device", "iPhone", {1, 0.0f, 1, 1}, values);
}

// #bundle, time tag "immediately", 52 elements of /VMC/Ext/Blend/Val ,sf name value.
inline Bytes oscBundle() {
  auto bundle = velmora::OSCWriter::bundle();
  for (std::size_t i = 0; i < 52; ++i) bundle.message("/VMC/Ext/Blend/Val").s(velmora::unrealARKitNames[i]).f(value(i));
  return bundle.bytes();
}

// One message: `address` with one float.
inline Bytes oscMessage(const std::string& address, float v) { return velmora::OSCWriter::message(address).f(v).bytes(); }

// {"blendshapes": {52 names}, "rotation": [...], "position": [...]}.
inline Bytes json() {
  nlohmann::json shapes = nlohmann::json::object();
  for (std::size_t i = 0; i < 52; ++i) shapes[std::string(velmora::unrealARKitNames[i])] = value(i);
  const std::string t =
      nlohmann::json{{"blendshapes", shapes}, {"rotation", {0.1, 0.2, 0.3}}, {"position", {0, 0, 0.3}}}.dump();
  return Bytes(t.begin(), t.end());
}

// The iFacialMocap app's own line: the 52 with its side suffixes
// ("eyeBlink_L"), integer percents, each item ended by "|", then the
// labelled head and both eyes.
inline Bytes iFacialMocapApp() {
  std::string t;
  for (std::size_t i = 0; i < 52; ++i) {
    std::string name(velmora::unrealARKitNames[i]);
    const bool movement = name == "jawLeft" || name == "jawRight" || name == "mouthLeft" || name == "mouthRight";
    if (!movement && name.ends_with("Left")) name = name.substr(0, name.size() - 4) + "_L";
    if (!movement && name.ends_with("Right")) name = name.substr(0, name.size() - 5) + "_R";
    t += name + "-" + std::to_string(i * 13 % 100) + "|";
  }
  t += "=head#-21.488958,-6.038993,-6.6019735,-0.030653415,-0.10287084,-0.6584072|"
       "rightEye#6.0297494,2.4403017,0.25649446|leftEye#6.034903,-1.6660284,-0.17520553|";
  return Bytes(t.begin(), t.end());
}

// VTube Studio's phone JSON: the 52 capitalised in a list of {k, v}, the
// head and eyes as {x, y, z} in degrees.
inline Bytes vtubeStudio() {
  nlohmann::json shapes = nlohmann::json::array();
  for (std::size_t i = 0; i < 52; ++i) {
    std::string name(velmora::unrealARKitNames[i]);
    name[0] = char(name[0] - 'a' + 'A');
    shapes.push_back({{"k", name}, {"v", value(i)}});
  }
  const auto xyz = [](double x, double y, double z) { return nlohmann::json{{"x", x}, {"y", y}, {"z", z}}; };
  const std::string t = nlohmann::json{{"Timestamp", 1732500000123}, {"Hotkey", -1}, {"FaceFound", true},
                                       {"Rotation", xyz(10.5, -20.25, 3.0)}, {"Position", xyz(0.5, -1.0, 30.0)},
                                       {"EyeLeft", xyz(4.0, -8.0, 0.0)}, {"EyeRight", xyz(4.0, -7.0, 0.0)},
                                       {"BlendShapes", shapes}}
                            .dump();
  return Bytes(t.begin(), t.end());
}

}  // namespace intake
