// Feeds arbitrary bytes to the frame parser. Whatever parses must store and
// parse back to a message of the same kind that writes the same frame.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orvi/logger.h"
#include "orvi/message/processor/message_processor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    orvi::ILogger::setLogLevel(static_cast<orvi::LogLevel>(4));
    return true;
  }();
  (void)quiet;

  const std::string text(reinterpret_cast<const char*>(data), size);
  const orvi::MessagePtr message = orvi::MessageProcessor::parse(text);
  orvi::MessageProcessor::isMatchAssistantMessage(text, "a1");
  if (!message) return 0;

  const orvi::MessageRecord record = orvi::MessageProcessor::message2Record(message);
  if (record.type.empty()) return 0;
  const orvi::MessagePtr back = orvi::MessageProcessor::parse(record.content);
  if (!back || back->type() != message->type()) std::abort();
  if (orvi::MessageProcessor::message2Record(back).content != record.content) std::abort();
  return 0;
}
