#include "tracking/PhoneConnection.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <chrono>
#include <cstring>
#include <utility>
#include <vector>

#include "base/Clock.h"
#include "base/Log.h"
#include "base/MainQueue.h"
#include "base/SerialQueue.h"
#include "tracking/FaceTrackingState.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {

// Main thread, except `resolver`'s own work.
struct PhoneConnection::Shared {
  SerialQueue resolver{"com.velmora.phone"};
  std::string host;  // the phoneAddress being asked
  std::string app;   // the phoneApp being asked
  double lastRequest = -1.0e9;  // uptime of the last request begun
  bool inFlight = false;        // a request is resolving or being sent
  std::string address;          // the phone's address once resolved, dotted
};

std::optional<PhoneConnection::App> PhoneConnection::appNamed(std::string_view name) {
  if (name == "iFacialMocap") return App::iFacialMocap;
  if (name == "VTube Studio") return App::vtubeStudio;
  return std::nullopt;
}

std::string_view PhoneConnection::appName(App app) {
  return app == App::iFacialMocap ? "iFacialMocap" : "VTube Studio";
}

std::uint16_t PhoneConnection::phonePort(App app) {
  return app == App::iFacialMocap ? iFacialMocapPort : vtubeStudioPort;
}

std::string PhoneConnection::request(App app, std::uint16_t replyPort) {
  // iFacialMocap's fixed string answers to the port it came from.
  if (app == App::iFacialMocap) return "iFacialMocap_sahuasouryya9218sauhuiayeta91555dy3719";
  return R"({"messageType":"iOSTrackingDataRequest","time":10.0,"sentBy":"Velmora","ports":[)" +
         std::to_string(replyPort) + "]}";
}

namespace {

// "host" or "host:port": the host, and the port when one is given (1..65535).
std::pair<std::string, std::optional<std::uint16_t>> hostAndPort(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 == text.size() || colon + 6 < text.size()) return {text, std::nullopt};
  unsigned port = 0;
  for (std::size_t i = colon + 1; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return {text, std::nullopt};
    port = port * 10 + unsigned(text[i] - '0');
  }
  if (port < 1 || port > 65535) return {text, std::nullopt};
  return {text.substr(0, colon), static_cast<std::uint16_t>(port)};
}

}  // namespace

PhoneConnection::PhoneConnection(TrackingReceiver& receiver, FaceTrackingState& state, MainQueue& mainQueue)
    : receiver_(receiver), state_(state), mainQueue_(mainQueue), shared_(std::make_shared<Shared>()) {}

PhoneConnection::~PhoneConnection() = default;

void PhoneConnection::setStatus(const std::string& text) {
  if (state_.phoneStatus() == text) return;
  state_.setPhoneStatus(text);
  logLine("PhoneConnection", text.substr(std::string_view("Phone: ").size()));
}

bool PhoneConnection::answeredBy(const std::string& address) const {
  const auto last = state_.lastPacketTimestamp();
  return last && state_.senderIP().starts_with(address + ":") &&
         std::chrono::duration<double>(wallNow() - *last).count() < requestInterval;
}

void PhoneConnection::tick(double now) {
  Shared& s = *shared_;
  if (state_.phoneAddress() != s.host || state_.phoneApp() != s.app) {
    s.host = state_.phoneAddress();
    s.app = state_.phoneApp();
    s.lastRequest = -1.0e9;
    s.address.clear();
  }
  if (s.host.empty()) {
    setStatus("Phone: none set");
    return;
  }
  const auto app = appNamed(s.app);
  if (!app) {
    setStatus("Phone: unknown app \"" + s.app + "\" (iFacialMocap or VTube Studio)");
    return;
  }
  const bool answered = !s.address.empty() && answeredBy(s.address);
  if (answered) setStatus("Phone: " + s.address + " answered (" + state_.senderApp() + ")");
  // VTube Studio's stream lasts only as long as its last request asked.
  if (s.inFlight || now - s.lastRequest < requestInterval || (answered && *app != App::vtubeStudio)) return;
  s.inFlight = true;
  s.lastRequest = now;

  std::weak_ptr<Shared> weak = shared_;
  // Results come back to the main thread, where `this` is alive while the
  // shared part is (both end together, on the main thread).
  auto finish = [this, weak, &mainQueue = mainQueue_, host = s.host](std::string address, std::string status) {
    // Any thread: only the main queue is touched here.
    mainQueue.post([this, weak, host, address = std::move(address), status = std::move(status)] {
      const auto self = weak.lock();
      if (!self) return;
      self->inFlight = false;
      if (self->host != host) return;  // asked about another phone since
      self->address = address;
      if (!status.empty() && !answeredBy(address)) setStatus(status);
    });
  };
  TrackingReceiver& receiver = receiver_;
  s.resolver.post([text = s.host, app = *app, &receiver, finish] {
    const auto [host, port] = hostAndPort(text);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (const int rc = ::getaddrinfo(host.c_str(), nullptr, &hints, &found); rc != 0 || !found) {
      finish({}, "Phone: cannot resolve \"" + host + "\": " + (rc ? ::gai_strerror(rc) : "no IPv4 address"));
      return;
    }
    sockaddr_in in{};
    std::memcpy(&in, found->ai_addr, sizeof in);
    ::freeaddrinfo(found);
    char dotted[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &in.sin_addr, dotted, sizeof dotted);
    const std::string address = dotted;
    receiver.sendFromListeningPort(
        [app](std::uint16_t fromPort) {
          const std::string text = request(app, fromPort);
          return std::vector<std::uint8_t>(text.begin(), text.end());
        },
        ntohl(in.sin_addr.s_addr), port.value_or(phonePort(app)), iFacialMocapPort,
        [finish, address, app](std::uint16_t fromPort, const std::string& error) {
          if (!error.empty()) {
            finish(address, "Phone: could not send the request to " + address + ": " + error);
          } else {
            finish(address, "Phone: asking " + address + " (" + std::string(appName(app)) + ") from UDP port " +
                                std::to_string(fromPort));
          }
        });
  });
}

}  // namespace velmora
