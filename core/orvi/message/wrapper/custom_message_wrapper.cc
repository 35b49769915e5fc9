#include "orvi/message/wrapper/custom_message_wrapper.h"

#include "orvi/message/processor/wire_conversion.h"
#include "orvi/message/wrapper/wire_text.h"

namespace orvi {

void CustomMessageWrapper::sync() {
  if (message_) return;
  message_ = std::make_shared<CustomMessage>();
  message_->is_complete = wire_.is_complete;
  message_->message_id = wire_.message_id;
  if (wire_.content) message_->content = fromWire(*wire_.content);
}

bool CustomMessageWrapper::unmarshal(const std::string& text) {
  if (!readWireText(text, wire_)) return false;
  envelope().message_id = wire_.message_id;
  return true;
}

}  // namespace orvi
