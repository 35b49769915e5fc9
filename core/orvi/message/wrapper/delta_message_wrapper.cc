#include "orvi/message/wrapper/delta_message_wrapper.h"

#include "orvi/message/wrapper/wire_text.h"

namespace orvi {

bool DeltaMessageWrapper::unmarshal(const std::string& text) {
  if (!readWireText(text, wire_)) return false;
  envelope().message_id = wire_.message_id;
  return true;
}

}  // namespace orvi
