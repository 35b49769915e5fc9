// MessageEngine::patch: applies a streamed delta to its assistant message.
//
// A delta carries a JSON array of operations: the standard JSON Patch ones,
// executed by the JSON library, and "append", which extends a string (or
// creates it) and is executed here. All appends of a delta take effect
// before all its standard operations, whatever their order in the array.
// Any failure leaves the payload, and the parsed document kept beside it,
// exactly as they were.
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvi/message/engine/message_engine.h"
#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/message/wrapper/delta_message_wrapper.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/untrusted_json.h"

namespace orvi {
namespace {

using Json = nlohmann::json;

const char kAppend[] = "append";

// The common delta of a streamed answer: appends to strings that already
// exist. Applied straight to the kept document; false, with nothing
// changed, when the delta is anything else.
bool applyPlainAppends(PatchedDocument& cache, const Json& operations, std::string& payload) {
  struct Edit {
    std::string* target;
    const std::string* value;
    size_t old_size;
  };
  std::vector<Edit> edits;
  edits.reserve(operations.size());
  try {
    for (const auto& operation : operations) {
      if (!operation.is_object()) return false;
      const auto op = operation.find("op");
      const auto path = operation.find("path");
      const auto value = operation.find("value");
      if (op == operation.end() || !op->is_string() || *op != kAppend) return false;
      if (path == operation.end() || !path->is_string()) return false;
      if (value == operation.end() || !value->is_string()) return false;
      const Json::json_pointer pointer(path->get<std::string>());
      if (!cache.document.contains(pointer)) return false;
      Json& target = cache.document.at(pointer);
      if (!target.is_string()) return false;
      edits.push_back({&target.get_ref<std::string&>(), &value->get_ref<const std::string&>(), 0});
    }
  } catch (const std::exception&) {
    return false;  // the general path reports it
  }

  for (auto& edit : edits) {
    edit.old_size = edit.target->size();
    edit.target->append(*edit.value);
  }
  std::string text;
  try {
    text = cache.document.dump();
  } catch (...) {
    for (auto it = edits.rbegin(); it != edits.rend(); ++it) it->target->resize(it->old_size);
    throw;
  }
  payload.swap(text);
  cache.text = payload;
  return true;
}

}  // namespace

void MessageEngine::patch(const MessagePtr& message) {
  if (!message) {
    ORVI_LOGE("MessageEngine patch failed, message is null");
    return;
  }
  const auto* delta = dynamic_cast<const DeltaMessageWrapper*>(message.get());
  if (!delta) {
    ORVI_LOGE("MessageEngine patch failed, message type is not delta");
    return;
  }
  std::lock_guard<std::mutex> lock(queue_mutex_);
  patchLocked(*delta);
}

void MessageEngine::patchLocked(const DeltaMessageWrapper& delta) {
  const std::string& id = delta.targetMessageId();
  const auto entry = assistant_index_.find(id);
  if (entry == assistant_index_.end()) {
    ORVI_LOGE("MessageEngine patch failed, message %s is not found", id.c_str());
    return;
  }
  auto* assistant = dynamic_cast<AssistantMessageWrapper*>(entry->second.get());
  if (!assistant) {
    ORVI_LOGE("MessageEngine patch failed, message %s is not assistant message, type: %d",
              id.c_str(), static_cast<int>(entry->second->type()));
    return;
  }
  const auto& record = assistant->message();
  if (!record) {
    ORVI_LOGE("MessageEngine patch failed, assistant_message's message %s is nullptr, type: %d",
              id.c_str(), static_cast<int>(assistant->type()));
    return;
  }
  if (!record->content) {
    ORVI_LOGE("MessageEngine patch failed, assistant_message_inner %s, optional content is null",
              id.c_str());
    return;
  }

  std::string& payload = record->content->content;
  const std::string& patch_text = delta.jsonPatch();
  PatchedDocument& cache = assistant->patchCache();
  try {
    if (!cache.valid || cache.text != payload) {
      cache.valid = false;
      cache.document = parseUntrustedJson(payload);
      cache.text = payload;
      cache.valid = true;
    }
    const Json operations = parseUntrustedJson(patch_text);
    if (!operations.is_array()) {
      ORVI_LOGE("MessageEngine patch msg(%s) failed, json_patch is not array, json_patch_str: %s",
                id.c_str(), patch_text.c_str());
      return;
    }
    if (applyPlainAppends(cache, operations, payload)) return;

    // Everything else works on a copy, committed only when all of it held.
    Json document = cache.document;
    Json standard = Json::array();
    for (const auto& operation : operations) {
      const auto op = operation.is_object() ? operation.find("op") : operation.end();
      if (op == operation.end() || !op->is_string()) {
        ORVI_LOGE("MessageEngine patch msg(%s) failed, json_patch op is not string, patch: %s",
                  id.c_str(), operation.dump().c_str());
        return;
      }
      if (*op != kAppend) {
        standard.push_back(operation);
        continue;
      }
      const auto path = operation.find("path");
      if (path == operation.end() || !path->is_string()) {
        ORVI_LOGE("MessageEngine patch msg(%s) failed, json_patch path is not string, patch: %s",
                  id.c_str(), operation.dump().c_str());
        return;
      }
      const auto value = operation.find("value");
      if (value == operation.end() || !value->is_string()) {
        ORVI_LOGE(
            "MessageEngine patch msg(%s) failed, json_patch (op=append) value is not string, "
            "patch: %s",
            id.c_str(), operation.dump().c_str());
        return;
      }
      const Json::json_pointer pointer(path->get<std::string>());
      if (document.contains(pointer)) {
        document.at(pointer).get_ref<std::string&>() += value->get_ref<const std::string&>();
      } else {
        document[pointer] = value->get<std::string>();
      }
    }
    if (!standard.empty()) document.patch_inplace(standard);
    std::string text = document.dump();
    payload.swap(text);
    cache.document = std::move(document);
    cache.text = payload;
  } catch (const std::exception& e) {
    ORVI_LOGE(
        "MessageEngine patch failed, message id: %s, error: %s, original payload: %s, "
        "json_patch: %s",
        id.c_str(), e.what(), payload.c_str(), patch_text.c_str());
  }
}

}  // namespace orvi
