#include "store.h"

#include <algorithm>

namespace orvi {
namespace emulator {

Section* Conversation::findSection(const std::string& section_id,
                                   const std::string& local_section_id) {
  // The server id wins; the local one finds a section whose id the client
  // has not learned yet (its acknowledgement was lost, for example).
  for (auto& section : sections) {
    if (!section_id.empty() && section.id == section_id) return &section;
  }
  for (auto& section : sections) {
    if (!local_section_id.empty() && section.local_id == local_section_id) return &section;
  }
  return nullptr;
}

StoredMessage* Conversation::findUserMessage(const std::string& local_message_id) {
  if (local_message_id.empty()) return nullptr;
  for (auto& section : sections) {
    for (auto& message : section.messages) {
      if (!message.assistant && message.local_message_id == local_message_id) return &message;
    }
  }
  return nullptr;
}

Section* Conversation::sectionOf(const std::string& message_id) {
  for (auto& section : sections) {
    for (const auto& message : section.messages) {
      if (message.message_id == message_id) return &section;
    }
  }
  return nullptr;
}

int32_t Conversation::messageCount() const {
  size_t count = 0;
  for (const auto& section : sections) count += section.messages.size();
  return static_cast<int32_t>(count);
}

Conversation* Store::find(const std::string& conversation_id) {
  for (auto& conversation : conversations_) {
    if (conversation.id == conversation_id) return &conversation;
  }
  return nullptr;
}

Conversation* Store::findByLocalId(const std::string& local_conversation_id) {
  for (auto& conversation : conversations_) {
    if (conversation.local_id == local_conversation_id) return &conversation;
  }
  return nullptr;
}

bool Store::erase(const std::string& conversation_id) {
  const auto it = std::find_if(conversations_.begin(), conversations_.end(),
                               [&](const Conversation& c) { return c.id == conversation_id; });
  if (it == conversations_.end()) return false;
  conversations_.erase(it);
  return true;
}

std::string Store::newId(const char* prefix) {
  const std::string number = std::to_string(++last_id_[prefix]);
  return run_.empty() ? prefix + number : prefix + run_ + "-" + number;
}

}  // namespace emulator
}  // namespace orvi
