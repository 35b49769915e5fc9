// What the emulator's protocol logic needs from the network side, and
// nothing more: send a text on a session, cut a session, run a task later,
// read the clock. The socket code in server.cc implements it; the unit tests
// implement it with a queue and a fake clock.
//
// Every call is made on the one thread that owns the protocol state (the
// emulator's I/O thread), and a scheduled task runs on that thread too. A
// task still pending when the emulator stops is dropped without running.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace orvi {
namespace emulator {

// A connection's id; never reused while the emulator runs.
using SessionId = uint64_t;

class ServiceHost {
 public:
  virtual ~ServiceHost() = default;
  // Queues one text frame; a session that is gone drops it silently.
  virtual void send(SessionId session, std::string text) = 0;
  // Closes the connection abruptly once the frames already queued are out,
  // without a WebSocket close. With mid_frame it first writes the start of a
  // text frame that never ends.
  virtual void cut(SessionId session, bool mid_frame) = 0;
  virtual void schedule(int32_t delay_ms, std::function<void()> task) = 0;
  // Milliseconds since the epoch.
  virtual int64_t nowMs() = 0;
};

}  // namespace emulator
}  // namespace orvi
