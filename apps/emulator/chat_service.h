// The assistant behind "/chat": reads each uplink user message, keeps the
// conversation in the Store, acknowledges the message and streams an answer
// made from the prompt (see answerFor). Faults from FaultSwitches drop or
// delay acknowledgements and cut a stream.
//
// Everything runs on the thread that owns the ServiceHost; the service, the
// host, the store and the switches are owned by the Emulator (or a test),
// which keeps them alive together. A stream in progress is a scheduled task;
// when the emulator stops, the pending task is dropped and the stream ends.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "fault_switches.h"
#include "service_host.h"
#include "store.h"

namespace orvi {
namespace emulator {

class ChatService {
 public:
  using Log = std::function<void(const std::string& line)>;

  ChatService(ServiceHost& host, FaultSwitches& faults, Store& store, int32_t delta_interval_ms,
              int32_t gzip_every, Log log);

  // One text frame from a "/chat" session.
  void onText(SessionId session, const std::string& text);
  // The session is gone: its streams are completed in the store at once, as
  // if the answer had gone on to its end.
  void onClosed(SessionId session);

  // The whole text of the answer to a prompt, as the deltas build it: every
  // word followed by one space.
  static std::string answerFor(const std::string& prompt);
  // The answer to a tool's result (the texts of its "tool_call_result").
  static std::string toolAnswerFor(const std::string& tool_output);

 private:
  // The ids every frame of a section carries.
  struct Route {
    SessionId session = 0;
    std::string conversation_id;
    std::string local_conversation_id;
    std::string section_id;
    std::string local_section_id;
  };
  // One assistant message being streamed, one word per tick.
  struct Stream {
    Route route;
    std::string message_id;
    std::vector<std::string> words;
    size_t sent = 0;
    bool ends_section = true;  // false: the answer asks for a tool and the section waits
  };

  Conversation& conversationFor(const nlohmann::ordered_json& uplink);
  // Sends the acknowledgement (unless dropped), after ack_delay_ms when set,
  // then runs `then`.
  void acknowledge(const Route& route, const nlohmann::ordered_json& echo,
                   std::function<void()> then);
  void startAnswer(const Route& route, const std::string& text, nlohmann::ordered_json tool_calls,
                   bool ends_section);
  void tick(uint64_t stream_id);
  void finishInStore(const Stream& stream);
  void stopSectionStreams(const std::string& conversation_id, const std::string& section_id);
  void sendFrame(const Route& route, const char* event, const std::string& content);
  void sendSystem(const Route& route, const char* msg);
  StoredMessage* storedMessage(const Route& route, const std::string& message_id);
  Section* storedSection(const Route& route);
  void log(const std::string& line) const;

  ServiceHost& host_;
  FaultSwitches& faults_;
  Store& store_;
  const int32_t delta_interval_ms_;
  const int32_t gzip_every_;
  const Log log_;
  std::map<uint64_t, Stream> streams_;  // by stream id; erased when it ends
  uint64_t last_stream_id_ = 0;
  std::map<SessionId, uint64_t> frame_count_;  // frames sent per session, for gzip_every
};

}  // namespace emulator
}  // namespace orvi
