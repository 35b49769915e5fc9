// The one-time import of the history that earlier versions kept as JSON
// files in the cache directory.
#include <exception>
#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvi/history/cacher/cacher.h"
#include "orvi/history/cacher/guarded_call.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/utils/clock.h"
#include "orvi/utils/file_utils.h"
#include "orvi/utils/json_error.h"
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
  if (it == object.end()) return;
  if constexpr (std::is_integral<T>::value) {
    out = checkedInteger<T>(*it);
  } else {
    it->get_to(out);
  }
}

// One entry of the index; a value of the wrong type throws the JSON
// library's error. An entry without "create_time" is dated `now`: the
// expiry pass that follows the import would otherwise take it for a
// conversation of 1970 and delete it at once.
ConversationInfo conversationFromLegacy(const Json& entry, int64_t now) {
  if (!entry.is_object()) {
    throw Json::type_error::create(
        302, std::string("type must be object, but is ") + entry.type_name(), &entry);
  }
  ConversationInfo info;
  readMember(entry, "local_conversation_id", info.local_conversation_id);
  readMember(entry, "conversation_id", info.conversation_id);
  readMember(entry, "name", info.name);
  info.create_time = now;
  readMember(entry, "create_time", info.create_time);
  if (entry.contains("update_time")) {
    info.update_time = checkedInteger<int64_t>(entry.at("update_time"));
  }
  if (entry.contains("message_count")) {
    info.message_count = checkedInteger<int32_t>(entry.at("message_count"));
  }
  const auto extra = entry.find("extra");
  if (extra != entry.end()) {
    info.extra = extra->is_string() ? extra->get<std::string>() : extra->dump();
  }
  return info;
}

// The entries of the index that can be imported. An entry with a bad value
// or without a local id is left out with an error line; the others go on.
std::vector<ConversationInfo> conversationsFromLegacy(const Json& list) {
  std::vector<ConversationInfo> conversations;
  const int64_t now = wallMs();
  for (size_t i = 0; i < list.size(); ++i) {
    try {
      ConversationInfo info = conversationFromLegacy(list[i], now);
      if (info.local_conversation_id.empty()) {
        ORVI_LOGE("skip legacy conversation entry %zu: local_conversation_id is empty", i);
        continue;
      }
      conversations.push_back(std::move(info));
    } catch (const std::exception& e) {
      ORVI_LOGE("skip legacy conversation entry %zu: %s", i, e.what());
    }
  }
  return conversations;
}

}  // namespace

bool Cacher::firstMigrationToDb() {
  const auto executor = this->executor();
  if (!executor) {
    ORVI_LOGE("sql executor is null, u need register it before config.");
    return false;
  }
  bool migrated = false;
  if (!guardedCall("query of the migration flag", [&] {
        migrated = executor->isMigrated();
        return true;
      })) {
    // Unknown: importing again could double the history, so not this time.
    return false;
  }
  if (migrated) return true;
  const auto markDone = [this] {
    postWrite("mark the migration done", [](ISqlExecutor& sql) { return sql.setMigrated(true); });
  };

  const std::string index_path = pathIn(cache_dir_, kIndexFile);
  std::error_code ec;
  if (!std::filesystem::exists(std::filesystem::u8path(index_path), ec)) {
    ORVI_LOGW("history file(%s) not exists, skip migration..", index_path.c_str());
    markDone();
    return true;
  }
  std::string text;
  if (!file_utils::read(index_path, text)) {
    ORVI_LOGE("read history file(%s) failed, skip migration..", index_path.c_str());
    markDone();
    return false;
  }

  std::vector<ConversationInfo> conversations;
  try {
    const Json index = parseUntrustedJson(text);
    const Json& list = index.at("conversations");
    if (!list.is_array()) {
      throw Json::type_error::create(
          302, std::string("type must be array, but is ") + list.type_name(), &list);
    }
    conversations = conversationsFromLegacy(list);
  } catch (const std::exception& e) {
    // A corrupt index is not tried again: it would fail the same way.
    ORVI_LOG_JSON_ERROR(e, text);
    markDone();
    return false;
  }

  saveConversations(conversations);
  for (const auto& conversation : conversations) {
    for (auto& record : loadMessages(conversation)) insertMessage(std::move(record));
  }
  markDone();
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
      throw Json::type_error::create(
          302, std::string("type must be array, but is ") + messages.type_name(), &messages);
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
