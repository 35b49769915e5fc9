// The emulator's handling of what clients send, without sockets: each line
// of the input is a "/chat" frame, a "/sync" frame ("SYNC <text>") or a REST
// call ("POST <path> <body>"), and the answers stream on a fake clock.
// Whatever arrives, the emulator must go on, and everything it sends must
// be JSON that a client can parse.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <nlohmann/json.hpp>

#include "chat_service.h"
#include "fake_service_host.h"
#include "fault_switches.h"
#include "fuzz_support.h"
#include "rest_service.h"
#include "store.h"
#include "sync_service.h"

namespace {

// Well-formed, whatever its depth: a reply may nest a client's own message
// a few levels deeper than the client sent it.
void mustBeJson(const std::string& text) {
  if (!nlohmann::json::accept(text)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orvi::emulator;
  orvi::fuzz::quietLogs();
  FakeHost host;
  Faults faults;
  faults.drop_acks = 1;  // the first acknowledgement is dropped, the resend gets one
  FaultSwitches switches(faults);
  Store store;
  ChatService chat(host, switches, store, 20, 3, nullptr);
  SyncService sync(host, switches, nullptr);
  RestService rest(store, [&host] { return host.nowMs(); });

  for (const auto& line : orvi::fuzz::linesOf(orvi::fuzz::asText(data, size))) {
    std::string rest_of_line;
    if (orvi::fuzz::startsWith(line, "SYNC ", &rest_of_line)) {
      sync.onText(2, rest_of_line);
    } else if (orvi::fuzz::startsWith(line, "POST ", &rest_of_line)) {
      const size_t space = rest_of_line.find(' ');
      const RestReply reply =
          rest.handle(rest_of_line.substr(0, space),
                      space == std::string::npos ? "" : rest_of_line.substr(space + 1));
      mustBeJson(reply.body);
    } else if (line == "CLOSE") {
      chat.onClosed(1);
    } else {
      chat.onText(1, line);
    }
    host.advance(50);
  }
  host.runAll();
  for (const auto& frame : host.sent) mustBeJson(frame.second);
  return 0;
}
