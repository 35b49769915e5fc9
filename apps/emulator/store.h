// The emulator's memory of conversations, sections and messages: what the
// conversation protocol has seen and said, kept so that the REST scenes can
// answer from it. Plain data with lookups; it is owned by the Emulator and
// used only on its I/O thread (no locking).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvi {
namespace emulator {

struct StoredMessage {
  std::string message_id;
  std::string local_message_id;
  std::string reply_message_id;
  bool assistant = false;
  std::string action;  // user messages: "retry", "cancel" or empty
  // User messages: the message as acknowledged (as received, with the
  // server's id, status and time), so a repeat is acknowledged identically.
  nlohmann::ordered_json wire;
  nlohmann::ordered_json tool_calls;  // assistant messages: null when none
  std::string text;                   // assistant messages: the text streamed so far
  int64_t create_time = 0;
};

enum class SectionState { Running, Complete, Cancelled };

struct Section {
  std::string id;
  std::string local_id;
  std::string prompt;  // the text that opened it; a retry answers it again
  SectionState state = SectionState::Running;
  std::vector<StoredMessage> messages;
};

struct Conversation {
  std::string id;
  std::string local_id;
  std::string name;
  int64_t create_time = 0;
  int64_t update_time = 0;
  std::vector<Section> sections;  // oldest first

  Section* findSection(const std::string& section_id, const std::string& local_section_id);
  StoredMessage* findUserMessage(const std::string& local_message_id);
  Section* sectionOf(const std::string& message_id);
  int32_t messageCount() const;
};

class Store {
 public:
  // `run` goes into every id this store makes, so that the ids of one run of
  // the emulator never repeat those of an earlier one; empty: bare numbers.
  explicit Store(std::string run = std::string()) : run_(std::move(run)) {}

  // Conversations in the order they were made.
  std::vector<Conversation>& conversations() { return conversations_; }
  Conversation* find(const std::string& conversation_id);
  Conversation* findByLocalId(const std::string& local_conversation_id);
  bool erase(const std::string& conversation_id);

  // Server ids: "c-N", "s-N", "um-N" (user messages) and "am-N" (assistant),
  // or "c-RUN-N" and so on with a run.
  std::string newId(const char* prefix);

 private:
  const std::string run_;
  std::vector<Conversation> conversations_;
  std::map<std::string, uint64_t> last_id_;  // by prefix
};

}  // namespace emulator
}  // namespace orvi
