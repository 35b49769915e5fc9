// Feeds arbitrary bytes to the frame parser, as a live frame and as a stored
// one. Whatever parses must store and parse back to a message of the same
// kind that writes the same frame.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "orvi/message/processor/message_processor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orvi::fuzz::quietLogs();
  const std::string text = orvi::fuzz::asText(data, size);

  // A cap below the frame's length refuses it whatever it holds.
  if (!text.empty() && orvi::MessageProcessor::parse(text, text.size() - 1)) std::abort();
  orvi::MessageProcessor::isMatchAssistantMessage(text, "a1");
  const orvi::MessagePtr message =
      orvi::MessageProcessor::parse(text, orvi::kDefaultMaxDownlinkFrameBytes);
  if (!message) return 0;

  const orvi::MessageRecord record = orvi::MessageProcessor::message2Record(message);
  if (record.type.empty()) return 0;
  const orvi::MessagePtr back = orvi::MessageProcessor::parse(record.content);
  if (!back || back->type() != message->type()) std::abort();
  if (orvi::MessageProcessor::message2Record(back).content != record.content) std::abort();
  return 0;
}
