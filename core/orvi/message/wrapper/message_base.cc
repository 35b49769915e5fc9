#include "orvi/message/wrapper/message_base.h"

namespace orvi {

const char* messageKindName(MessageKind kind) {
  switch (kind) {
    case MessageKind::User: return "user";
    case MessageKind::Assistant: return "assistant";
    case MessageKind::Delta: return "delta";
    case MessageKind::System: return "system";
    case MessageKind::Custom: return "custom";
  }
  return "";
}

}  // namespace orvi
