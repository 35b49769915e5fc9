// Feeds arbitrary bytes to the five REST reply parsers, through the
// callbacks a host answers: none may throw, crash or hang, whatever the
// server answers.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "orvi/message/processor/message_processor.h"
#include "orvi/rest_api/rest_api.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orvi::fuzz::quietLogs();
  const std::string body = orvi::fuzz::asText(data, size);

  // A failed status is logged, never hides the body; no body reads as "{}".
  std::string handed;
  const auto keep = [&handed](const std::string& reply) { handed = reply; };
  orvi::RecoverSectionCallback(keep).onResponse(orvi::HttpResponse(500, body));
  if (handed != body) std::abort();
  orvi::ConversationListCallback(keep).onResponse(orvi::HttpResponse(200, std::nullopt));
  if (handed != "{}") std::abort();

  const auto one = orvi::MessageProcessor::recoverSection(body);
  for (const auto& message : one.section.messages) {
    if (!message) std::abort();
  }
  const auto page = orvi::MessageProcessor::recoverSections(body);
  if (!page.valid && (page.has_more || !page.sections.empty())) std::abort();
  const auto list = orvi::MessageProcessor::parseConversationListResp(body);
  if (list.error && !list.conversations.empty()) std::abort();
  orvi::MessageProcessor::parseConversationMsgDeleteResp(body);
  orvi::MessageProcessor::parseConversationBatchDeleteResp(body);
  return 0;
}
