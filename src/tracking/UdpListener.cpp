#include "tracking/UdpListener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <exception>

namespace velmora {

std::string UdpSender::text() const {
  in_addr raw{};
  raw.s_addr = htonl(address);
  char dotted[INET_ADDRSTRLEN] = {0};
  ::inet_ntop(AF_INET, &raw, dotted, sizeof dotted);
  std::string out = dotted;
  out += ':';
  out += std::to_string(port);
  return out;
}

// The open socket and what its readiness events need. Pending waits hold it
// weakly, so closing (dropping it) ends them.
struct UdpListener::Socket {
  explicit Socket(asio::io_context& context) : socket(context) {}
  asio::ip::udp::socket socket;
  std::uint16_t port = 0;
  std::span<std::uint8_t> buffer;
  Callbacks callbacks;
};

UdpListener::UdpListener(asio::io_context& context, Options options) : context_(context), options_(options) {}

UdpListener::~UdpListener() { close(); }

UdpListener::OpenResult UdpListener::open(std::uint16_t port, std::span<std::uint8_t> buffer, Callbacks callbacks,
                                          std::uint32_t bindAddress) {
  close();
  // The first socket of an io_context also creates its reactor (an epoll
  // and an eventfd), which throws rather than reporting when no descriptor
  // is left.
  std::shared_ptr<Socket> socket;
  std::error_code ec;
  try {
    socket = std::make_shared<Socket>(context_);
    socket->socket.open(asio::ip::udp::v4(), ec);
  } catch (const std::exception&) {
    ec = asio::error::no_descriptors;
  }
  if (ec) return {Failure::create, ec};

  const int fd = socket->socket.native_handle();
  if (options_.reuseAddressAndPort) {
    const int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &yes, sizeof yes);
  }
  // Non-blocking, so a drain ends when the socket is empty.
  const int flags = ::fcntl(fd, F_GETFL, 0);
  ::fcntl(fd, F_SETFL, (flags < 0 ? 0 : flags) | O_NONBLOCK);

  socket->socket.bind(asio::ip::udp::endpoint(asio::ip::address_v4(bindAddress), port), ec);
  if (ec) {
    std::error_code ignored;
    socket->socket.close(ignored);
    return {Failure::bind, ec};
  }
  socket->port = port;
  socket->buffer = buffer;
  socket->callbacks = std::move(callbacks);
  socket_ = std::move(socket);
  armWait();
  return {};
}

void UdpListener::close() {
  if (!socket_) return;
  std::error_code ignored;
  socket_->socket.close(ignored);  // ends the pending wait and closes the descriptor
  socket_.reset();
}

bool UdpListener::isOpen() const { return socket_ != nullptr; }

std::uint16_t UdpListener::port() const { return socket_ ? socket_->port : 0; }

int UdpListener::descriptor() const { return socket_ ? socket_->socket.native_handle() : -1; }

void UdpListener::armWait() {
  std::weak_ptr<Socket> weak = socket_;
  socket_->socket.async_wait(asio::socket_base::wait_read, [this, weak](const std::error_code& ec) {
    const auto s = weak.lock();
    if (!s || ec || s != socket_) return;  // closed, or replaced by a later open
    if (s->callbacks.onReadiness) s->callbacks.onReadiness();
    const int fd = s->socket.native_handle();
    for (std::size_t count = 0; options_.maxDatagramsPerEvent == 0 || count < options_.maxDatagramsPerEvent;
         ++count) {
      sockaddr_in from{};
      socklen_t fromLength = sizeof from;
      const ssize_t n = ::recvfrom(fd, s->buffer.data(), s->buffer.size(), 0, reinterpret_cast<sockaddr*>(&from),
                                   &fromLength);
      if (n < 1) break;  // empty, or an error: wait for the next readiness event
      const UdpSender sender{ntohl(from.sin_addr.s_addr), ntohs(from.sin_port)};
      s->callbacks.onDatagram(s->buffer.first(static_cast<std::size_t>(n)), sender);
      if (s != socket_) return;  // a callback closed or reopened the listener
    }
    if (s->callbacks.onDrained) s->callbacks.onDrained();
    if (s == socket_) armWait();
  });
}

}  // namespace velmora
