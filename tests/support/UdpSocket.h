#pragma once
// A plain loopback UDP socket for tests: a sender, or another program
// holding a port (bound to the wildcard address, no reuse options).
#include <arpa/inet.h>
#include <poll.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace velmora::test {

class UdpSocket {
 public:
  // Port 0 binds an ephemeral port; `address` (host byte order) is the
  // local address it binds, and so the source of what it sends to loopback
  // (127.0.0.2 sends as 127.0.0.2).
  explicit UdpSocket(std::uint16_t port = 0, std::uint32_t address = INADDR_ANY) : fd_(::socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in a{.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(address)}, .sin_zero = {}};
    bound_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    socklen_t len = sizeof a;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
  }
  ~UdpSocket() {
    if (fd_ >= 0) ::close(fd_);
  }
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  bool bound() const { return bound_; }
  int descriptor() const { return fd_; }
  std::uint16_t port() const { return port_; }
  // To `port` of loopback, or of another local address (host byte order).
  void sendTo(std::uint16_t port, std::span<const std::uint8_t> bytes, std::uint32_t address = INADDR_LOOPBACK) const {
    sockaddr_in to{.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(address)}, .sin_zero = {}};
    ::sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  }
  void sendTo(std::uint16_t port, std::string_view text, std::uint32_t address = INADDR_LOOPBACK) const {
    sendTo(port, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, address);
  }
  // The next datagram, waiting up to `seconds`; none when nothing came.
  std::optional<std::vector<std::uint8_t>> receive(double seconds) const {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(seconds * 1000)) != 1) return std::nullopt;
    std::vector<std::uint8_t> buffer(65536);
    const ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), 0);
    if (n < 0) return std::nullopt;
    buffer.resize(static_cast<std::size_t>(n));
    return buffer;
  }

 private:
  int fd_;
  bool bound_ = false;
  std::uint16_t port_ = 0;
};

// A UDP port nobody holds right now (the kernel's choice for an ephemeral bind).
inline std::uint16_t freeUdpPort() { return UdpSocket().port(); }

}  // namespace velmora::test
