// Feeds arbitrary bytes to the five REST reply parsers: none may throw,
// crash or hang, whatever the server answers.
#include <cstddef>
#include <cstdint>
#include <string>

#include "orvi/logger.h"
#include "orvi/message/processor/message_processor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    orvi::ILogger::setLogLevel(static_cast<orvi::LogLevel>(4));
    return true;
  }();
  (void)quiet;

  const std::string body(reinterpret_cast<const char*>(data), size);
  orvi::MessageProcessor::recoverSection(body);
  orvi::MessageProcessor::recoverSections(body);
  orvi::MessageProcessor::parseConversationListResp(body);
  orvi::MessageProcessor::parseConversationMsgDeleteResp(body);
  orvi::MessageProcessor::parseConversationBatchDeleteResp(body);
  return 0;
}
