#pragma once
// Asks the phone for its tracking data. Some apps send nothing until the
// computer asks:
//  - iFacialMocap streams to UDP port 49983 of whoever sent its request
//    string to the phone's port 49983;
//  - VTube Studio's phone app (and the Android apps that copy it) streams,
//    for the seconds its JSON request names (at most 10), to the ports the
//    request lists on the asking address; the request goes to its port 21412.
// The request goes out from a socket the receiver listens on (49983 when
// that one is open), so the answer reaches the receiver, and again every
// requestInterval seconds while no data comes from the phone. VTube Studio's
// request is repeated while data comes too: its stream ends when the last
// request's time runs out.
//
// The phone and its app are the state's phoneAddress (a host name or IPv4
// address, with ":port" where the app shows another port than its usual
// one; empty asks nobody) and phoneApp ("iFacialMocap" or "VTube
// Studio"). phoneStatus says what came of it: "Phone: none set", "Phone:
// asking 192.168.1.7 (iFacialMocap) from UDP port 49983", "Phone:
// 192.168.1.7 answered (iFacialMocap)" (the app its datagrams show),
// "Phone: cannot resolve \"name\": reason", "Phone: could not send the
// request to 192.168.1.7: reason", "Phone: unknown app \"X\" (iFacialMocap
// or VTube Studio)". Each new status is logged once as "[PhoneConnection]
// " and the text after "Phone: ".
//
// Threads: tick() and the state on the main thread; host names resolve on
// the connection's own queue ("com.velmora.phone"), so a slow name server
// never delays the frame loop or the receiver; the request is sent on the
// receiver's queue, from its socket. Results come back through the main
// queue.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

class FaceTrackingState;
class MainQueue;
class TrackingReceiver;

class PhoneConnection {
 public:
  enum class App { iFacialMocap, vtubeStudio };
  static constexpr double requestInterval = 3.0;  // seconds between requests
  static constexpr std::uint16_t iFacialMocapPort = 49983;
  static constexpr std::uint16_t vtubeStudioPort = 21412;
  // VTube Studio: seconds of data one request asks for (its limit is 10).
  static constexpr double vtubeStudioRequestSeconds = 10.0;

  // The names phoneApp holds: "iFacialMocap", "VTube Studio"; none for others.
  static std::optional<App> appNamed(std::string_view name);
  static std::string_view appName(App app);
  // The phone's port the request goes to.
  static std::uint16_t phonePort(App app);
  // The request datagram, asking for data on `replyPort`.
  static std::string request(App app, std::uint16_t replyPort);

  // `receiver`, `state` and `mainQueue` must outlive the connection.
  PhoneConnection(TrackingReceiver& receiver, FaceTrackingState& state, MainQueue& mainQueue);
  ~PhoneConnection();
  PhoneConnection(const PhoneConnection&) = delete;
  PhoneConnection& operator=(const PhoneConnection&) = delete;

  // Main thread, every tick (`now`: uptime seconds): asks when it is time.
  void tick(double now);

 private:
  struct Shared;
  void setStatus(const std::string& text);
  bool answeredBy(const std::string& address) const;

  TrackingReceiver& receiver_;
  FaceTrackingState& state_;
  MainQueue& mainQueue_;
  std::shared_ptr<Shared> shared_;  // main thread; the posted results hold it weakly
};

}  // namespace velmora
