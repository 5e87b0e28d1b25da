#pragma once
// One UDP socket on a serial queue: opened with the options its owner asks
// for, bound to every local IPv4 address, and drained into the owner's
// buffer on each read-readiness event. The tracking receiver and the OSC cue
// server both listen through it; each keeps its own socket options and
// buffer size.
//
// Reads are batched: one recvmmsg call takes up to `datagramsPerRead`
// datagrams into equal slots of the owner's buffer, and each is handed out
// in place, in arrival order; nothing is copied or allocated per datagram.
//
// Threads: every call and every callback runs on the one thread running the
// io_context given at construction (the owner's SerialQueue). Closing or
// destroying the listener ends its pending wait; no callback runs after that.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <system_error>

namespace asio {
class io_context;
}

namespace velmora {

// Where a datagram came from: IPv4 address and port in host byte order.
struct UdpSender {
  std::uint32_t address = 0;
  std::uint16_t port = 0;
  // "a.b.c.d:port", the address in dotted-quad form and the port in decimal.
  std::string text() const;
};

class UdpListener {
 public:
  struct Options {
    // Address reuse and port reuse (each set to 1) before binding, so that
    // several listeners, or a restarted program, can bind the same port.
    bool reuseAddressAndPort = false;
    // Datagrams read per readiness event before the queue runs other work
    // (a stop, a rebind); the wait fires again at once while data is
    // waiting. 0 drains the socket until it is empty.
    std::size_t maxDatagramsPerEvent = 0;
    // Datagrams taken per receive call (recvmmsg). The buffer given to open()
    // is split into this many equal slots; each datagram is cut to one
    // slot's size. 1 reads one datagram per call into the whole buffer.
    std::size_t datagramsPerRead = 1;
    // The socket's receive buffer in bytes (SO_RCVBUF; the kernel caps it at
    // net.core.rmem_max); 0 keeps the system default. What it holds rides
    // out the moments the queue's thread is not running.
    int receiveBufferBytes = 0;
  };

  struct Callbacks {
    // One datagram, cut to the slot's size; the bytes are valid during the
    // call only. Empty datagrams are skipped.
    std::function<void(std::span<const std::uint8_t> bytes, const UdpSender& from)> onDatagram;
    // Optional: after each receive call's datagrams were handed out, with
    // how many it read (empty ones included), so per-datagram bookkeeping
    // can be settled once per batch.
    std::function<void(std::size_t count)> onBatch;
    // Optional: once per readiness event, before its datagrams are read.
    std::function<void()> onReadiness;
    // Optional: once per readiness event, after its datagrams were read.
    std::function<void()> onDrained;
  };

  enum class Failure { none, create, bind };
  struct OpenResult {
    Failure failure = Failure::none;
    std::error_code error;  // why it failed; system errors carry the errno value
    explicit operator bool() const { return failure == Failure::none; }
  };

  UdpListener(asio::io_context& context, Options options);
  ~UdpListener();
  UdpListener(const UdpListener&) = delete;
  UdpListener& operator=(const UdpListener&) = delete;

  // Creates the socket, sets the options, makes it non-blocking, binds it to
  // `bindAddress` (IPv4, host byte order; 0, the default, is every local
  // address) and `port`, and starts waiting for datagrams, which are
  // received into `buffer` (owned by the caller, alive until close; split
  // into Options::datagramsPerRead slots). On
  // failure nothing stays open. A listener already open is closed first.
  OpenResult open(std::uint16_t port, std::span<std::uint8_t> buffer, Callbacks callbacks,
                  std::uint32_t bindAddress = 0);
  // Closes the socket (ending the pending wait). Idempotent.
  void close();

  // Sends one datagram from the listening socket (so it leaves from the
  // listening port) to `to`, without blocking: false when closed or when
  // the kernel refused it (send buffer full, nothing routes there). The
  // bytes are copied by the kernel before it returns.
  bool sendTo(std::span<const std::uint8_t> bytes, const UdpSender& to);

  bool isOpen() const;
  // The bound port (the kernel's choice when opened on port 0).
  std::uint16_t port() const;
  // The socket's descriptor, -1 when closed.
  int descriptor() const;

 private:
  struct Socket;
  void armWait();
  // One readiness event: batched reads until the socket is empty or the
  // event's share is used. False when a callback closed or reopened the
  // listener.
  bool drain(const std::shared_ptr<Socket>& s);

  asio::io_context& context_;
  Options options_;
  std::shared_ptr<Socket> socket_;
};

}  // namespace velmora
