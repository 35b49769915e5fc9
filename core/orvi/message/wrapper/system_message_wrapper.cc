#include "orvi/message/wrapper/system_message_wrapper.h"

#include "orvi/message/wrapper/wire_text.h"

namespace orvi {

void SystemMessageWrapper::sync() {
  if (message_) return;
  message_ = std::make_shared<SystemMessage>();
  message_->code = wire_.code;
  message_->msg = wire_.msg;
}

bool SystemMessageWrapper::unmarshal(const std::string& text) {
  return readWireText(text, wire_);
}

}  // namespace orvi
