#pragma once
// The remote-control listener: one UDP socket on the cue port (the state's
// oscPort, default 53100) that accepts OSC packets from a show controller's
// network cues and hands every message to OSCCommandCatalog::dispatch on the
// main thread. It reports through FaceTrackingState::oscStatus (one status
// line) and lastQLabCommand (the last message received).
//
// It is given what it uses: the commands' context (whose state holds the
// port, the switch and the status texts) and the main queue. The switch
// itself (isOSCEnabled) starts and stops it through setEnabled, called by an
// observer the application installs.
//
// Threads: socket creation, binding, receiving and closing run only on the
// serial queue "com.velmora.qlab". Dispatch and every state write run on the
// main thread; decoded messages reach it through a bounded mailbox, so a
// flood of datagrams drops the oldest waiting messages (counted) instead of
// growing memory. Replies and events are built on the main thread and
// sent on the queue (RemoteReplies), so the main thread never waits on the
// network.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "control/CommandContext.h"
#include "control/RemoteReplies.h"
#include "osc/OSCMessage.h"
#include "net/SenderFilter.h"

namespace velmora {

class MainQueue;

class QLabOSCServer {
 public:
  // QLab's own port; never bound, refused before any socket exists.
  static constexpr std::uint16_t reservedQLabPort = 53000;
  // Larger datagrams are cut to this size by the receive call.
  static constexpr std::size_t receiveBufferSize = 4096;
  // Decoded messages that may wait for the main thread at once.
  static constexpr std::size_t mailboxCapacity = 1024;
  // Datagrams read per readiness event before the queue runs other work (a
  // stop, a rebind); the wait fires again at once while data is waiting.
  static constexpr std::size_t maxDatagramsPerEvent = 256;
  // Datagrams taken per receive call (recvmmsg), each in its own slot of
  // receiveBufferSize bytes.
  static constexpr std::size_t datagramsPerRead = 16;

  // Main thread. `commands` and `mainQueue` must outlive the server.
  QLabOSCServer(CommandContext commands, MainQueue& mainQueue);
  ~QLabOSCServer();
  QLabOSCServer(const QLabOSCServer&) = delete;
  QLabOSCServer& operator=(const QLabOSCServer&) = delete;

  // Main thread. (Re)opens the listener on the state's current port, or
  // shows "OSC cues: disabled" when remote control is off. Any previous
  // listener is closed first, so a new port rebinds.
  void startListening();
  // Any thread. Closes the listener; sets no status.
  void stopListening();
  // Same as startListening().
  void restart();
  // Main thread. Starts or stops according to the state's isOSCEnabled,
  // showing "OSC cues: disabled" when stopped.
  void updateActiveState();
  // Main thread. The remote-control switch was set (the state has stored it
  // and, when off, shown "OSC cues: disabled"): starts or stops.
  void setEnabled(bool enabled);
  // Any thread. Writes the state's oscStatus on the main thread.
  void setStatus(const std::string& text);
  // Main thread. Dispatches one received message and records it in
  // lastQLabCommand ("  (unknown)" appended when no command took it).
  void handleQLabMessage(const OSCMessage& message);
  // The same for a message from the network, then answers `from` (see
  // RemoteReplies): the reply leaves from the cue port on the queue.
  void handleQLabMessage(const OSCMessage& message, const UdpSender& from);
  // Main thread, once a tick: lapsed subscriptions end and what changed
  // goes to the subscribers, sent on the queue.
  void tick();
  // Main thread. Subscribers and the last reply, for the operator.
  const RemoteReplies& replies() const { return *replies_; }

  // The reason shown after a failed bind: "already in use by another app"
  // for EADDRINUSE, else "bind failed (errno N)".
  static std::string bindFailureReason(int errorNumber);

  // Any thread. The port actually bound, none when not listening.
  std::optional<std::uint16_t> listeningPort() const;
  // Any thread. Messages dropped because the main thread fell behind.
  std::uint64_t droppedMessageCount() const;

  // Any thread. The local address the cue port binds (IPv4, host byte
  // order); 0, the default, is every interface. Takes effect at the next
  // startListening().
  void setBindAddress(std::uint32_t address) { bindAddress_ = address; }
  std::uint32_t bindAddress() const { return bindAddress_; }
  // Who may send cues: datagrams from others are dropped unread, counted,
  // and logged once per sender as "[QLabOSCServer] Refused OSC from a.b.c.d
  // (not in the allowed senders)". Everyone until an allow-list is set.
  SenderFilter& senderFilter();
  // Any thread but the queue's: waits until the socket work submitted so
  // far has run (tests, shutdown).
  void waitForQueue();
  // Closes the listener and ends the queue's worker; later starts are
  // ignored. Called at process shutdown.
  void shutdown();

 private:
  // On the queue.
  void open(std::uint16_t port);
  void closeSocket();
  void reportDrops();
  // Main thread: dispatch, then lastQLabCommand; true when a command took it.
  bool dispatchAndRecord(const OSCMessage& message, CommandContext& context);
  // Main thread: hands datagrams to the queue, which sends them from the
  // cue port (dropped when it is closed).
  void send(std::vector<std::vector<std::uint8_t>> datagrams, std::vector<UdpSender> targets);

  CommandContext commands_;
  MainQueue& mainQueue_;
  struct Impl;
  std::unique_ptr<Impl> impl_;
  std::unique_ptr<RemoteReplies> replies_;
  // The state's isOSCEnabled as last read on the main thread, for the
  // queue's second look (the state itself is main-thread only).
  std::atomic<bool> enabled_{true};
  // Main thread: a network message is being handled, and it switched remote
  // control off (the close waits until its reply is on the queue).
  bool handlingMessage_ = false;
  bool stopAfterReply_ = false;
  std::atomic<int> listeningPort_{-1};
  std::atomic<std::uint32_t> bindAddress_{0};
};

}  // namespace velmora
