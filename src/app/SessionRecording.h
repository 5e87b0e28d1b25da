#pragma once
// Starting and stopping a session recording of the tracking stream: the
// headless run's "--record FILE" and the dashboard's record button both go
// through here. A recording that cannot start (the file cannot be created,
// the disk is full) is reported and the show goes on without it.
//
// Threads: main thread.

#include <memory>
#include <string>

namespace velmora {

class SessionRecorder;
class TrackingReceiver;

class SessionRecording {
 public:
  explicit SessionRecording(TrackingReceiver& receiver);
  // Stops a recording still running.
  ~SessionRecording();
  SessionRecording(const SessionRecording&) = delete;
  SessionRecording& operator=(const SessionRecording&) = delete;

  // Records every tracking datagram from now on to `path` (a running
  // recording is stopped first). False, with the reason logged as "[Velmora]
  // Not recording: could not create FILE: reason" and kept in statusText(),
  // when the file cannot be written.
  bool start(const std::string& path);
  // Finishes the file. Idempotent.
  void stop();

  bool isRecording() const;
  // "Not recording", the recorder's own status ("Recording: N datagrams to
  // FILE", "Recording stopped: could not write ..."), or why it could not start.
  std::string statusText() const;

  // "velmora-YYYYMMDD-HHMMSS.pcap" for the current local time: the
  // dashboard's default file name.
  static std::string defaultFileName();

 private:
  TrackingReceiver& receiver_;
  std::shared_ptr<SessionRecorder> recorder_;
  std::string startFailure_;
};

}  // namespace velmora
