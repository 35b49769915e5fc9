// MessageEngine::patch: applies a streamed delta to its assistant message.
//
// A delta carries a JSON array of operations: the standard JSON Patch ones,
// checked here and executed by the JSON library, and "append", which extends
// a string (or creates it) and is executed here. All appends of a delta take
// effect before all its standard operations, whatever their order in the
// array. The message's StreamingDocument does the work; this function finds
// the target and logs every failure, which leaves the payload exactly as it
// was. Error lines quote the texts as they came, cut, never a re-serialised
// tree.
#include <exception>
#include <string>

#include "orvi/message/engine/message_engine.h"
#include "orvi/message/engine/streaming_document.h"
#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/message/wrapper/delta_message_wrapper.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/untrusted_json.h"

namespace orvi {

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
  const std::string& id = delta->targetMessageId();
  std::lock_guard<std::mutex> lock(queue_mutex_);
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
  const std::string& patch_text = delta->jsonPatch();
  try {
    assistant->streamingDocument().apply(patch_text, payload);
  } catch (const MalformedDelta& e) {
    const std::string element = textForLog(e.element());
    switch (e.fault()) {
      case MalformedDelta::Fault::NotArray:
        ORVI_LOGE("MessageEngine patch msg(%s) failed, json_patch is not array, json_patch_str: %s",
                  id.c_str(), textForLog(patch_text).c_str());
        break;
      case MalformedDelta::Fault::OpNotString:
        ORVI_LOGE("MessageEngine patch msg(%s) failed, json_patch op is not string, patch: %s",
                  id.c_str(), element.c_str());
        break;
      case MalformedDelta::Fault::PathNotString:
        ORVI_LOGE("MessageEngine patch msg(%s) failed, json_patch path is not string, patch: %s",
                  id.c_str(), element.c_str());
        break;
      case MalformedDelta::Fault::AppendValueNotString:
        ORVI_LOGE(
            "MessageEngine patch msg(%s) failed, json_patch (op=append) value is not string, "
            "patch: %s",
            id.c_str(), element.c_str());
        break;
    }
  } catch (const std::exception& e) {
    ORVI_LOGE(
        "MessageEngine patch failed, message id: %s, error: %s, original payload: %s, "
        "json_patch: %s",
        id.c_str(), e.what(), textForLog(payload).c_str(), textForLog(patch_text).c_str());
  }
}

}  // namespace orvi
