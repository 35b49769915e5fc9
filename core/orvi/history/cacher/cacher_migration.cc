// The one-time import of the history that earlier versions kept as JSON
// files in the cache directory.
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvi/history/cacher/cacher.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/utils/file_utils.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/untrusted_json.h"

namespace orvi {
namespace {

using Json = nlohmann::json;

const char kIndexFile[] = "orvi_history.json";

std::string pathIn(const std::string& directory, const std::string& file) {
  return (std::filesystem::u8path(directory) / std::filesystem::u8path(file)).u8string();
}

// Reads one member if present; a wrong type throws the JSON library's error.
template <typename T>
void readMember(const Json& object, const char* key, T& out) {
  const auto it = object.find(key);
  if (it != object.end()) it->get_to(out);
}

ConversationInfo conversationFromLegacy(const Json& entry) {
  ConversationInfo info;
  readMember(entry, "local_conversation_id", info.local_conversation_id);
  readMember(entry, "conversation_id", info.conversation_id);
  readMember(entry, "name", info.name);
  readMember(entry, "create_time", info.create_time);
  if (entry.contains("update_time")) info.update_time = entry.at("update_time").get<int64_t>();
  if (entry.contains("message_count")) {
    info.message_count = entry.at("message_count").get<int32_t>();
  }
  const auto extra = entry.find("extra");
  if (extra != entry.end()) {
    info.extra = extra->is_string() ? extra->get<std::string>() : extra->dump();
  }
  return info;
}

}  // namespace

bool Cacher::firstMigrationToDb() {
  const auto executor = this->executor();
  if (!executor) {
    ORVI_LOGE("sql executor is null, u need register it before config.");
    return false;
  }
  if (executor->isMigrated()) return true;

  const std::string index_path = pathIn(cache_dir_, kIndexFile);
  std::error_code ec;
  if (!std::filesystem::exists(std::filesystem::u8path(index_path), ec)) {
    ORVI_LOGW("history file(%s) not exists, skip migration..", index_path.c_str());
    executor->setMigrated(true);
    return true;
  }
  std::string text;
  if (!file_utils::read(index_path, text)) {
    ORVI_LOGE("read history file(%s) failed, skip migration..", index_path.c_str());
    executor->setMigrated(true);
    return false;
  }

  std::vector<ConversationInfo> conversations;
  try {
    const Json index = parseUntrustedJson(text);
    const Json& list = index.at("conversations");
    if (!list.is_array()) {
      throw Json::type_error::create(302, std::string("type must be array, but is ") +
                                              list.type_name(), &list);
    }
    for (const auto& entry : list) conversations.push_back(conversationFromLegacy(entry));
  } catch (const std::exception& e) {
    // A corrupt index is not tried again: it would fail the same way.
    ORVI_LOGE("Error: %s, original json: %s", e.what(), text.c_str());
    executor->setMigrated(true);
    return false;
  }

  saveConversations(conversations);
  for (const auto& conversation : conversations) {
    for (auto& record : loadMessages(conversation)) insertMessage(std::move(record));
  }
  post([executor] { executor->setMigrated(true); });
  ORVI_LOGI("migrated %zu legacy conversations", conversations.size());
  return true;
}

std::vector<MessageRecord> Cacher::loadMessages(const ConversationInfo& conversation) {
  const std::string path = pathIn(cache_dir_, conversation.local_conversation_id + ".json");
  std::error_code ec;
  if (!std::filesystem::exists(std::filesystem::u8path(path), ec)) {
    ORVI_LOGE("message history file(%s) not exists, skip loading history..", path.c_str());
    return {};
  }
  std::string text;
  if (!file_utils::read(path, text)) {
    ORVI_LOGE("read message history file(%s) failed", path.c_str());
    return {};
  }

  std::vector<MessageRecord> records;
  try {
    const Json file = parseUntrustedJson(text);
    const Json& messages = file.at("messages");
    if (!messages.is_array()) {
      throw Json::type_error::create(302, std::string("type must be array, but is ") +
                                              messages.type_name(), &messages);
    }
    for (const auto& stored : messages) {
      const MessagePtr message =
          MessageProcessor::parse(stored.is_string() ? stored.get<std::string>() : stored.dump());
      if (!message) continue;
      // Old files left the owner implicit: it is the file's conversation.
      MessageEnvelope& ids = message->envelope();
      if (ids.local_conversation_id.empty()) {
        ids.local_conversation_id = conversation.local_conversation_id;
      }
      if (ids.conversation_id.empty()) ids.conversation_id = conversation.conversation_id;
      MessageRecord record = MessageProcessor::message2Record(message);
      if (!record.type.empty()) records.push_back(std::move(record));
    }
  } catch (const std::exception& e) {
    ORVI_LOGE("load conversation file(%s) failed, error: %s", path.c_str(), e.what());
    return {};
  } catch (...) {
    ORVI_LOGE("load message history file(%s) failed", path.c_str());
    return {};
  }
  return records;
}

}  // namespace orvi
