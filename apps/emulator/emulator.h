// An assistant service on loopback, for demos and end-to-end tests. It
// speaks the conversation protocol of docs/protocol.md over a WebSocket at
// "/chat", the sync protocol of docs/sync.md over a WebSocket at "/sync", and
// answers the five REST scenes as POSTs at the default paths of orvi_net
// (orvi::net::defaultScenePath). Conversations, sections and messages live in
// the emulator's own memory for as long as it runs.
//
// The emulator owns one I/O thread, started by start() and joined by stop()
// or the destructor; a stream in progress ends with it. Faults may be
// changed at any time from any thread and apply from the next event they
// concern.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace orvi {
namespace emulator {

// Switches for tests. "Once" switches disarm themselves after firing.
struct Faults {
  int32_t drop_acks = 0;            // the next N acknowledgements of user messages are not sent
  int32_t ack_delay_ms = 0;         // every acknowledgement waits this long
  int32_t cut_after_deltas = -1;    // once: close the connection after N deltas of an answer
  bool cut_mid_frame = false;       // with the cut: send the start of a frame, then close
  int32_t rest_status = 0;          // non-zero: every REST call is answered with this HTTP status
  bool rest_truncate = false;       // every REST answer stops half-way and the connection closes
  int32_t sync_nack_fragment = -1;  // once: nack this fragment of the first fragmented record
};

struct EmulatorOptions {
  std::string host = "127.0.0.1";
  uint16_t port = 0;               // 0: any free port
  int32_t delta_interval_ms = 20;  // pause between the deltas of an answer
  int32_t gzip_every = 3;          // every Nth downlink frame is gzip-compressed; 0: none
  Faults faults;
  // Part of every server id ("am-RUN-N"), so that a client that goes on
  // talking to a restarted emulator never gets an id of an earlier run;
  // empty: the start time in milliseconds, in base 36.
  std::string id_run;
  // Log lines of the emulator; empty: none.
  std::function<void(const std::string& line)> log;
};

class Emulator {
 public:
  explicit Emulator(EmulatorOptions options);
  ~Emulator();
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  // Binds and starts serving. False, with the reason in *error, when the
  // address cannot be bound.
  bool start(std::string* error = nullptr);
  // Closes every connection and joins the I/O thread. Idempotent.
  void stop();

  // The bound port; 0 before start.
  uint16_t port() const;
  void setFaults(const Faults& faults);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace emulator
}  // namespace orvi
