// velmora-phone-sim: stands in for a phone running a face-tracking app.
// Streams a plausible animated face (blinks, talking jaw, smiles, brows, a
// slow head turn) over UDP in one of the wire formats Velmora accepts, so
// that Velmora can be tried without a phone. With --replay it sends a
// session recording (a pcap file) instead, with the recorded timing and
// destination ports.
//
// Index of this file
//   [SECTION] options
//   [SECTION] the face
//   [SECTION] encoders
//   [SECTION] replay
//   [SECTION] main
//
// Run `velmora-phone-sim --help` for the options.

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "osc/OSCWriter.h"
#include "tracking/LiveLinkNames.h"
#include "tracking/LiveLinkWriter.h"
#include "net/PcapReader.h"

namespace {

// [SECTION] options

constexpr double kPi = 3.14159265358979323846;

const char* const kUsage =
    "Usage: velmora-phone-sim [options]\n"
    "\n"
    "Streams an animated face to Velmora over UDP, as a phone's tracking app would.\n"
    "\n"
    "Options:\n"
    "  --format FORMAT   livelink (default), ifacialmocap, osc, vmc or json\n"
    "                      livelink      Unreal Live Link face packet (binary, 61 big-endian floats)\n"
    "                      ifacialmocap  text: name-percent|...=pitch,yaw,roll,x,y,z (degrees, cm)\n"
    "                      osc           one OSC bundle per frame: /BlendShapes/<name> f,\n"
    "                                    /Head/Pitch|Yaw|Roll f (degrees), /Head/X|Y|Z f (cm)\n"
    "                      vmc           one OSC bundle per frame: /VMC/Ext/Blend/Val s f per\n"
    "                                    blendshape, then /VMC/Ext/Blend/Apply\n"
    "                      json          {\"blendshapes\": {...}, \"rotation\": [p, y, r], \"position\": [x, y, z]}\n"
    "  --host HOST       where Velmora runs (default 127.0.0.1)\n"
    "  --port PORT       its tracking port (default 11111; Velmora also listens on 49983 and 39539)\n"
    "  --rate N          packets per second (default 60)\n"
    "  --duration SECS   stop after this many seconds (default: run until Ctrl-C)\n"
    "  --replay FILE     send the datagrams of a recording (velmora --record FILE, or a\n"
    "                    Wireshark/tcpdump capture) with their recorded timing, each to\n"
    "                    the port it was recorded on; --format, --port and --rate do not apply\n"
    "  --speed X         replay X times as fast (default 1; 0.5 is half speed)\n"
    "  --loop            replay the recording over and over (until Ctrl-C or --duration)\n"
    "  --help            this text\n"
    "\n"
    "Examples: velmora-phone-sim --format osc --port 39539 --duration 10\n"
    "          velmora-phone-sim --replay show.pcap --speed 2 --loop\n";

enum class Format { liveLink, iFacialMocap, osc, vmc, json };

std::optional<Format> formatNamed(std::string_view name) {
  if (name == "livelink") return Format::liveLink;
  if (name == "ifacialmocap") return Format::iFacialMocap;
  if (name == "osc") return Format::osc;
  if (name == "vmc") return Format::vmc;
  if (name == "json") return Format::json;
  return std::nullopt;
}

struct Options {
  Format format = Format::liveLink;
  std::string formatName = "livelink";
  std::string host = "127.0.0.1";
  std::uint16_t port = 11111;
  double rate = 60.0;
  double duration = 0.0;  // 0: until interrupted
  std::string replayFile;  // empty: stream the animated face
  double speed = 1.0;
  bool loop = false;
  bool streamOptionGiven = false;  // --format, --port or --rate
};

// [SECTION] the face

// One moment of the animated face: 52 blendshapes in Live Link order
// (0..1), head rotation in radians (pitch, yaw, roll), head position in metres.
struct Face {
  std::array<float, 52> shapes{};
  float pitch = 0, yaw = 0, roll = 0;
  float x = 0, y = 0, z = 0;
};

int indexOf(std::string_view name) {
  for (std::size_t i = 0; i < velmora::unrealARKitNames.size(); ++i)
    if (velmora::unrealARKitNames[i] == name) return static_cast<int>(i);
  return -1;
}

float clamp01(double v) { return static_cast<float>(v < 0 ? 0 : v > 1 ? 1 : v); }

// 0 most of the time, rising to 1 and back within `length` seconds once
// every `period` seconds, starting `offset` seconds into each period.
double pulse(double t, double period, double offset, double length) {
  const double phase = std::fmod(t + period - offset, period);
  return phase < length ? std::sin(kPi * phase / length) : 0.0;
}

Face faceAt(double t) {
  Face f;
  auto set = [&](std::string_view name, double v) { f.shapes[static_cast<std::size_t>(indexOf(name))] = clamp01(v); };
  // A faint idle movement on everything, so every coefficient is alive.
  for (std::size_t i = 0; i < f.shapes.size(); ++i) {
    f.shapes[i] = clamp01(0.03 + 0.025 * std::sin(0.7 * t + 1.3 * double(i)));
  }
  // Blinks about every 3.7 s, the right eye a few milliseconds later.
  const double blink = pulse(t, 3.7, 1.0, 0.2);
  set("eyeBlinkLeft", blink);
  set("eyeBlinkRight", pulse(t, 3.7, 1.015, 0.2));
  // Talking: the jaw opens in syllables, in phrases of a few seconds.
  const double phrase = std::max(0.0, std::sin(2 * kPi * 0.17 * t));
  const double syllable = std::max(0.0, std::sin(2 * kPi * 2.3 * t));
  set("jawOpen", 0.05 + 0.5 * phrase * syllable);
  set("mouthClose", 0.1 * (1.0 - syllable) * phrase);
  set("mouthFunnel", 0.25 * phrase * std::max(0.0, std::sin(2 * kPi * 0.9 * t)));
  // Slow smiles, slightly lopsided.
  const double smile = 0.5 + 0.5 * std::sin(2 * kPi * 0.09 * t);
  set("mouthSmileLeft", 0.7 * smile);
  set("mouthSmileRight", 0.6 * smile);
  set("cheekSquintLeft", 0.3 * smile);
  set("cheekSquintRight", 0.25 * smile);
  set("mouthFrownLeft", 0.3 * (1.0 - smile) * (1.0 - smile));
  set("mouthFrownRight", 0.3 * (1.0 - smile) * (1.0 - smile));
  // Brows: a raise now and then, a frown in between.
  const double raise = pulse(t, 6.1, 2.5, 1.6);
  set("browInnerUp", 0.8 * raise);
  set("browOuterUpLeft", 0.6 * raise);
  set("browOuterUpRight", 0.6 * raise);
  const double frown = pulse(t, 9.3, 6.0, 2.0);
  set("browDownLeft", 0.5 * frown);
  set("browDownRight", 0.5 * frown);
  set("eyeWideLeft", 0.4 * raise);
  set("eyeWideRight", 0.4 * raise);
  // A slow head turn, nods and tilts (radians), the eyes leading the turn.
  const double turn = std::sin(2 * kPi * t / 8.0);
  f.yaw = static_cast<float>(25.0 * kPi / 180.0 * turn);
  f.pitch = static_cast<float>(8.0 * kPi / 180.0 * std::sin(2 * kPi * t / 5.3));
  f.roll = static_cast<float>(5.0 * kPi / 180.0 * std::sin(2 * kPi * t / 6.7));
  set("eyeLookOutLeft", 0.5 * std::max(0.0, turn));
  set("eyeLookInRight", 0.5 * std::max(0.0, turn));
  set("eyeLookInLeft", 0.5 * std::max(0.0, -turn));
  set("eyeLookOutRight", 0.5 * std::max(0.0, -turn));
  f.x = static_cast<float>(0.01 * std::sin(2 * kPi * t / 7.0));
  f.y = static_cast<float>(0.005 * std::sin(2 * kPi * t / 4.0));
  f.z = static_cast<float>(0.3 + 0.02 * std::sin(2 * kPi * t / 11.0));
  return f;
}

float degrees(float radians) { return static_cast<float>(radians * 180.0 / kPi); }

// [SECTION] encoders

// The packet the Live Link Face app sends; its layout is described in
// LiveLinkWriter. Eye yaw follows the head a little, eye pitch and roll stay 0.
std::vector<std::uint8_t> encodeLiveLink(const Face& f, std::uint32_t frame, double rate) {
  std::array<float, velmora::LiveLinkWriter::kValueCount> values{};
  std::copy(f.shapes.begin(), f.shapes.end(), values.begin());
  values[52] = f.yaw;
  values[53] = f.pitch;
  values[54] = f.roll;
  values[55] = values[58] = 0.3f * f.yaw;
  const velmora::LiveLinkWriter::FrameTime time{frame, 0.0f, static_cast<std::uint32_t>(std::lround(rate)), 1};
  return velmora::LiveLinkWriter::packet("velmora-phone-sim", "iPhone", time, values);
}

std::string fixed(double v, int decimals) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  return buf;
}

// name-percent pairs (integers 0..100) joined by "|", then "=" and the head:
// pitch, yaw, roll in degrees and x, y, z in centimetres.
std::vector<std::uint8_t> encodeIFacialMocap(const Face& f) {
  std::string text;
  text.reserve(1200);
  for (std::size_t i = 0; i < f.shapes.size(); ++i) {
    if (i) text += '|';
    text += velmora::unrealARKitNames[i];
    text += '-';
    text += std::to_string(std::lround(f.shapes[i] * 100.0f));
  }
  text += '=';
  text += fixed(degrees(f.pitch), 3) + "," + fixed(degrees(f.yaw), 3) + "," + fixed(degrees(f.roll), 3) + ",";
  text += fixed(f.x * 100.0, 3) + "," + fixed(f.y * 100.0, 3) + "," + fixed(f.z * 100.0, 3);
  return std::vector<std::uint8_t>(text.begin(), text.end());
}

// Velmora's decoder treats a zero-led 4-byte group right after a string as
// padding, so an exact 0.0 (00 00 00 00) would vanish; -0.0 (80 00 00 00)
// carries the same value and survives.
float wireSafe(float v) { return v == 0.0f ? -0.0f : v; }

std::vector<std::uint8_t> encodeOSC(const Face& f) {
  auto bundle = velmora::OSCWriter::bundle();
  for (std::size_t i = 0; i < f.shapes.size(); ++i) {
    bundle.message("/BlendShapes/" + std::string(velmora::unrealARKitNames[i])).f(wireSafe(f.shapes[i]));
  }
  bundle.message("/Head/Pitch").f(wireSafe(degrees(f.pitch)));
  bundle.message("/Head/Yaw").f(wireSafe(degrees(f.yaw)));
  bundle.message("/Head/Roll").f(wireSafe(degrees(f.roll)));
  bundle.message("/Head/X").f(wireSafe(f.x * 100.0f));
  bundle.message("/Head/Y").f(wireSafe(f.y * 100.0f));
  bundle.message("/Head/Z").f(wireSafe(f.z * 100.0f));
  return bundle.bytes();
}

std::vector<std::uint8_t> encodeVMC(const Face& f) {
  auto bundle = velmora::OSCWriter::bundle();
  for (std::size_t i = 0; i < f.shapes.size(); ++i) {
    bundle.message("/VMC/Ext/Blend/Val").s(velmora::unrealARKitNames[i]).f(wireSafe(f.shapes[i]));
  }
  bundle.message("/VMC/Ext/Blend/Apply");
  return bundle.bytes();
}

std::vector<std::uint8_t> encodeJSON(const Face& f) {
  nlohmann::json shapes = nlohmann::json::object();
  for (std::size_t i = 0; i < f.shapes.size(); ++i) shapes[std::string(velmora::unrealARKitNames[i])] = f.shapes[i];
  const nlohmann::json doc = {
      {"blendshapes", shapes},
      {"rotation", {f.pitch, f.yaw, f.roll}},
      {"position", {f.x, f.y, f.z}},
  };
  const std::string text = doc.dump();
  return std::vector<std::uint8_t>(text.begin(), text.end());
}

// [SECTION] replay

// Set by SIGINT and SIGTERM; both the stream and the replay stop on it.
std::atomic<bool> interrupted{false};

// Sends every datagram of the recording to `target`'s address on the port
// it was recorded on, at its recorded time divided by the speed. Times that
// go backwards (a clock step while recording) send at once. A loop starts
// again one average datagram interval after the last datagram.
int replay(const Options& options, sockaddr_in target, int fd) {
  const auto recording = velmora::PcapReader::readFile(options.replayFile);
  if (!recording) {
    std::fprintf(stderr, "velmora-phone-sim: %s\n", recording.error.c_str());
    return 2;
  }
  const auto& datagrams = recording.datagrams;
  if (datagrams.empty()) {
    std::fprintf(stderr, "velmora-phone-sim: %s: no IPv4 UDP datagrams to replay\n", options.replayFile.c_str());
    return 2;
  }
  // Seconds from the first datagram, never decreasing.
  std::vector<double> at(datagrams.size(), 0.0);
  const std::int64_t first = datagrams.front().envelope.arrivalMicroseconds;
  for (std::size_t i = 1; i < datagrams.size(); ++i) {
    at[i] = std::max(at[i - 1], double(datagrams[i].envelope.arrivalMicroseconds - first) * 1e-6);
  }
  const double span = at.back();
  const double loopGap = datagrams.size() > 1 && span > 0 ? span / double(datagrams.size() - 1) : 1.0 / 60.0;

  char address[INET_ADDRSTRLEN] = {0};
  ::inet_ntop(AF_INET, &target.sin_addr, address, sizeof address);
  std::printf("[phone-sim] replaying %zu datagrams (%.1f s) from %s to %s at %gx speed%s\n", datagrams.size(), span,
              options.replayFile.c_str(), address, options.speed, options.loop ? ", looping" : "");
  if (recording.skipped) {
    std::printf("[phone-sim] skipped %zu packets that are not IPv4 UDP datagrams\n", recording.skipped);
  }
  std::fflush(stdout);

  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  std::uint64_t sent = 0, failed = 0;
  double loopStart = 0.0;  // recording seconds at which this pass began
  bool done = false;
  while (!done && !interrupted) {
    for (std::size_t i = 0; i < datagrams.size() && !interrupted; ++i) {
      const double due = (loopStart + at[i]) / options.speed;
      if (options.duration > 0 && due >= options.duration) {
        done = true;
        break;
      }
      std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(due)));
      if (interrupted) break;
      target.sin_port = htons(datagrams[i].envelope.destinationPort);
      const auto& payload = datagrams[i].payload;
      if (::sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&target), sizeof target) < 0) {
        ++failed;  // nobody listening on that port yet, as with a phone
      } else {
        ++sent;
      }
    }
    if (!options.loop) break;
    loopStart += span + loopGap;
  }
  std::printf("[phone-sim] sent %llu packets", static_cast<unsigned long long>(sent));
  if (failed) std::printf(" (%llu could not be sent)", static_cast<unsigned long long>(failed));
  std::printf("\n");
  return 0;
}

// [SECTION] main

void onSignal(int) { interrupted = true; }

bool parseNumber(std::string_view text, double& out) {
  auto r = std::from_chars(text.data(), text.data() + text.size(), out);
  return r.ec == std::errc() && r.ptr == text.data() + text.size();
}

int usageError(const std::string& message) {
  std::fprintf(stderr, "velmora-phone-sim: %s\n\n%s", message.c_str(), kUsage);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    std::string value;
    bool hasValue = false;
    if (auto eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      value = arg.substr(eq + 1);
      arg = arg.substr(0, eq);
      hasValue = true;
    }
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (arg == "--loop" && !hasValue) {
      options.loop = true;
      continue;
    }
    const bool takesValue = arg == "--format" || arg == "--host" || arg == "--port" || arg == "--rate" ||
                            arg == "--duration" || arg == "--replay" || arg == "--speed";
    if (!takesValue) return usageError("unknown option " + arg);
    if (!hasValue) {
      if (i + 1 >= argc) return usageError(arg + " needs a value");
      value = argv[++i];
    }
    double number = 0;
    if (arg == "--format") {
      auto f = formatNamed(value);
      if (!f) return usageError("unknown format \"" + value + "\"");
      options.format = *f;
      options.formatName = value;
    } else if (arg == "--host") {
      options.host = value;
    } else if (arg == "--port") {
      if (!parseNumber(value, number) || number < 1 || number > 65535 || number != std::floor(number))
        return usageError("--port must be a whole number from 1 to 65535");
      options.port = static_cast<std::uint16_t>(number);
    } else if (arg == "--rate") {
      if (!parseNumber(value, number) || !(number > 0) || number > 10000)
        return usageError("--rate must be a number of packets per second above 0 (at most 10000)");
      options.rate = number;
    } else if (arg == "--duration") {
      if (!parseNumber(value, number) || !(number >= 0) || !std::isfinite(number))
        return usageError("--duration must be a number of seconds (0: until Ctrl-C)");
      options.duration = number;
    } else if (arg == "--replay") {
      if (value.empty()) return usageError("--replay needs a file");
      options.replayFile = value;
    } else if (arg == "--speed") {
      if (!parseNumber(value, number) || !(number > 0) || number > 1000)
        return usageError("--speed must be a number above 0 (at most 1000)");
      options.speed = number;
    }
    if (arg == "--format" || arg == "--port" || arg == "--rate") options.streamOptionGiven = true;
  }
  if (!options.replayFile.empty() && options.streamOptionGiven)
    return usageError("--replay takes its ports and timing from the recording; --format, --port and --rate do not apply");
  if (options.replayFile.empty() && (options.loop || options.speed != 1.0))
    return usageError("--speed and --loop apply to --replay only");

  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* resolved = nullptr;
  const std::string portText = std::to_string(options.port);
  if (int rc = ::getaddrinfo(options.host.c_str(), portText.c_str(), &hints, &resolved); rc != 0 || !resolved) {
    std::fprintf(stderr, "velmora-phone-sim: cannot resolve host \"%s\": %s\n", options.host.c_str(), gai_strerror(rc));
    return 1;
  }
  sockaddr_in target{};
  std::memcpy(&target, resolved->ai_addr, sizeof target);
  ::freeaddrinfo(resolved);

  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) {
    std::perror("velmora-phone-sim: socket");
    return 1;
  }

  struct sigaction sa{};
  sa.sa_handler = onSignal;
  ::sigaction(SIGINT, &sa, nullptr);
  ::sigaction(SIGTERM, &sa, nullptr);

  if (!options.replayFile.empty()) {
    const int rc = replay(options, target, fd);
    ::close(fd);
    return rc;
  }

  char address[INET_ADDRSTRLEN] = {0};
  ::inet_ntop(AF_INET, &target.sin_addr, address, sizeof address);
  std::printf("[phone-sim] streaming %s to %s:%u at %g packets/s%s\n", options.formatName.c_str(), address,
              unsigned(options.port), options.rate,
              options.duration > 0 ? (" for " + fixed(options.duration, 1) + " s").c_str() : " (Ctrl-C to stop)");
  std::fflush(stdout);

  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  const auto period = std::chrono::duration<double>(1.0 / options.rate);
  std::uint64_t sent = 0, failed = 0;
  for (std::uint32_t frame = 0; !interrupted; ++frame) {
    const double t = frame / options.rate;
    if (options.duration > 0 && t >= options.duration) break;
    std::this_thread::sleep_until(start + std::chrono::duration_cast<Clock::duration>(period * frame));
    if (interrupted) break;
    const Face face = faceAt(t);
    std::vector<std::uint8_t> packet;
    switch (options.format) {
      case Format::liveLink: packet = encodeLiveLink(face, frame, options.rate); break;
      case Format::iFacialMocap: packet = encodeIFacialMocap(face); break;
      case Format::osc: packet = encodeOSC(face); break;
      case Format::vmc: packet = encodeVMC(face); break;
      case Format::json: packet = encodeJSON(face); break;
    }
    const ssize_t n = ::sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&target), sizeof target);
    if (n < 0) {
      // Nobody listening yet (ICMP port unreachable) is not fatal: a phone
      // keeps sending too.
      ++failed;
    } else {
      ++sent;
    }
  }
  ::close(fd);
  std::printf("[phone-sim] sent %llu packets", static_cast<unsigned long long>(sent));
  if (failed) std::printf(" (%llu could not be sent)", static_cast<unsigned long long>(failed));
  std::printf("\n");
  return 0;
}
