#include "sync_service.h"

#include <type_traits>

#include <nlohmann/json.hpp>

#include "inbound_json.h"

namespace orvi {
namespace emulator {
namespace {

using Json = nlohmann::ordered_json;

template <typename T>
bool member(const Json& object, const char* key, T* value) {
  const auto it = object.find(key);
  if (it == object.end()) return false;
  if constexpr (std::is_same_v<T, std::string>) {
    if (!it->is_string()) return false;
  } else {
    if (!it->is_number_integer()) return false;
  }
  *value = it->get<T>();
  return true;
}

}  // namespace

void SyncService::onText(SessionId session, const std::string& text) {
  std::string why = "no \"sync_infos\" list";
  const Json envelope = parseInbound(text, &why);
  const auto infos = envelope.is_object() ? envelope.find("sync_infos") : envelope.end();
  if (!envelope.is_object() || infos == envelope.end() || !infos->is_array()) {
    log("sync: ignored a frame that is not an envelope (" + why + "): " + text.substr(0, 200));
    return;
  }
  for (const auto& info : *infos) {
    RecordKey key{std::string(), -1};
    if (!info.is_object() || !member(info, "id", &key.first)) continue;
    member(info, "index", &key.second);
    const auto fragment = info.find("fragment");
    int32_t total = 0;
    int32_t index = 0;
    if (fragment == info.end() || !fragment->is_object() || !member(*fragment, "total", &total) ||
        !member(*fragment, "index", &index) || total < 1 || index < 0 || index >= total) {
      reply(session, key, "ack", 0, 0);
      continue;
    }
    if (collect(session, key, total, index)) reply(session, key, "ack", 0, 0);
  }
}

bool SyncService::collect(SessionId session, const RecordKey& key, int32_t total,
                          int32_t fragment) {
  if (completed_.count(key) != 0) return true;
  auto found = collecting_.find(key);
  if (found == collecting_.end()) {
    if (nack_fragment_ < 0) {
      nack_fragment_ = faults_.takeSyncNackFragment();
      nack_record_ = key;
    }
    found = collecting_.emplace(key, Collecting{total, {}}).first;
  }
  if (nack_fragment_ >= 0 && key == nack_record_ && fragment == nack_fragment_) {
    nack_fragment_ = -1;
    log("sync: refusing fragment " + std::to_string(fragment) + " of " + key.first);
    reply(session, key, "nack", total, fragment);
    return false;
  }
  Collecting& record = found->second;
  record.arrived.insert(fragment);
  if (static_cast<int32_t>(record.arrived.size()) < record.total) return false;
  collecting_.erase(found);
  completed_.insert(key);
  if (key == nack_record_) nack_fragment_ = -1;  // a fragment it named that never came
  return true;
}

void SyncService::reply(SessionId session, const RecordKey& key, const char* action, int32_t total,
                        int32_t fragment) {
  Json message = {{"id", key.first}, {"action", action}, {"index", key.second}};
  if (total > 0) message["fragment"] = {{"total", total}, {"index", fragment}};
  host_.send(session, message.dump());
}

void SyncService::log(const std::string& line) const {
  if (log_) log_(line);
}

}  // namespace emulator
}  // namespace orvi
