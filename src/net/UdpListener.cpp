#include "net/UdpListener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <algorithm>
#include <exception>
#include <vector>

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
  std::size_t slotSize = 0;  // bytes per datagram slot of `buffer`
  Callbacks callbacks;
  // One entry per slot, pointing into `buffer` and `senders`; set up once
  // at open and reused by every receive call.
  std::vector<mmsghdr> messages;
  std::vector<iovec> slices;
  std::vector<sockaddr_in> senders;
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
  if (options_.receiveBufferBytes > 0) {
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &options_.receiveBufferBytes, sizeof options_.receiveBufferBytes);
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
  // Port 0 asks the kernel for a free one: keep the one it chose.
  std::error_code ignored;
  const auto local = socket->socket.local_endpoint(ignored);
  socket->port = port != 0 || ignored ? port : local.port();
  socket->buffer = buffer;
  const std::size_t slots = std::max<std::size_t>(1, std::min(options_.datagramsPerRead, buffer.size()));
  socket->slotSize = buffer.size() / slots;
  socket->messages.assign(slots, mmsghdr{});
  socket->slices.assign(slots, iovec{});
  socket->senders.assign(slots, sockaddr_in{});
  for (std::size_t i = 0; i < slots; ++i) {
    socket->slices[i] = {buffer.data() + i * socket->slotSize, socket->slotSize};
    msghdr& header = socket->messages[i].msg_hdr;
    header.msg_name = &socket->senders[i];
    header.msg_iov = &socket->slices[i];
    header.msg_iovlen = 1;
  }
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

bool UdpListener::sendTo(std::span<const std::uint8_t> bytes, const UdpSender& to) {
  if (!socket_) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(to.address);
  address.sin_port = htons(to.port);
  const ssize_t sent = ::sendto(socket_->socket.native_handle(), bytes.data(), bytes.size(), MSG_DONTWAIT,
                                reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return sent == static_cast<ssize_t>(bytes.size());
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
    if (!drain(s)) return;  // a callback closed or reopened the listener
    if (s->callbacks.onDrained) s->callbacks.onDrained();
    if (s == socket_) armWait();
  });
}

bool UdpListener::drain(const std::shared_ptr<Socket>& s) {
  const int fd = s->socket.native_handle();
  const std::size_t limit = options_.maxDatagramsPerEvent;
  std::size_t read = 0;
  while (limit == 0 || read < limit) {
    std::size_t want = s->messages.size();
    if (limit != 0) want = std::min(want, limit - read);
    for (std::size_t i = 0; i < want; ++i) {
      s->messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
      s->messages[i].msg_hdr.msg_flags = 0;
      s->messages[i].msg_len = 0;
    }
    const int n = ::recvmmsg(fd, s->messages.data(), static_cast<unsigned>(want), MSG_DONTWAIT, nullptr);
    if (n < 1) break;  // empty, or an error: wait for the next readiness event
    for (int i = 0; i < n; ++i) {
      const unsigned length = s->messages[i].msg_len;  // already cut to the slot (MSG_TRUNC in msg_flags)
      if (length == 0) continue;
      const sockaddr_in& from = s->senders[i];
      const UdpSender sender{ntohl(from.sin_addr.s_addr), ntohs(from.sin_port)};
      const std::span<const std::uint8_t> bytes(static_cast<const std::uint8_t*>(s->slices[i].iov_base), length);
      s->callbacks.onDatagram(bytes, sender);
      if (s != socket_) return false;
    }
    read += static_cast<std::size_t>(n);
    if (s->callbacks.onBatch) {
      s->callbacks.onBatch(static_cast<std::size_t>(n));
      if (s != socket_) return false;
    }
    // Fewer than asked: the socket was empty a moment ago. Saves one empty
    // call; anything arriving since wakes the next readiness wait at once.
    if (static_cast<std::size_t>(n) < want) break;
  }
  return true;
}

}  // namespace velmora
