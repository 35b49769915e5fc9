#include "inbound_json.h"

#include "orvi/utils/untrusted_json.h"

namespace orvi {
namespace emulator {

nlohmann::ordered_json parseInbound(const std::string& text, std::string* why) {
  const nlohmann::ordered_json discarded(nlohmann::ordered_json::value_t::discarded);
  try {
    // Parsed into a map first: an ordered object compares each new key with
    // all the keys before it, so a frame of 150,000 keys held the I/O thread
    // for most of a minute. The copy into the ordered tree is linear.
    return nlohmann::ordered_json(parseUntrustedJson(text));
  } catch (const std::exception& e) {
    if (why != nullptr) *why = e.what();
    return discarded;
  }
}

}  // namespace emulator
}  // namespace orvi
