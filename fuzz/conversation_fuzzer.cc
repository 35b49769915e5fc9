// A hostile server against a whole conversation: transport, processor,
// engine, delta patching, history and listener. The input is a transcript,
// one step per line:
//   SEND <text>      the host sends a prompt (the first one is sent before
//                    the transcript, with local message id "lm")
//   CANCEL           the host cancels the section in progress
//   RECOVER <body>   the host recovers the latest section; <body> answers it
//   PAGE <body>      the host recovers a page of sections; <body> answers it
//   anything else    a downlink frame pushed into the conversation's transport
// Afterwards the stored history is popped up again, so every record the
// conversation stored is read back. Nothing may crash, hang or throw.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "orvi/conversation/conversation_impl.h"
#include "orvi/history/manager/history_manager.h"
#include "support/memory_sql_executor.h"
#include "support/recording_listener.h"
#include "support/recording_sender.h"
#include "support/temp_dir.h"

namespace {

// Turns every custom message into an assistant message, so that custom
// frames reach the engine too.
class EchoCustomHandler : public orvi::ICustomMessageHandler {
 public:
  void onCustomMessage(const orvi::CustomMessage& message,
                       std::optional<orvi::CustomMessage>& handled) override {
    handled = message;
  }
};

orvi::InputMessage prompt(const std::string& text, const std::string& local_message_id = "") {
  orvi::InputMessage input;
  input.local_message_id = local_message_id;
  input.content = orvi::MessageContent(text, 0);
  return input;
}

// Answers every HTTP request the conversation made with `body`.
void answerRequests(orvi::test::RecordingSender& sender, size_t* answered,
                    const std::string& body) {
  const auto requests = sender.requests();
  for (; *answered < requests.size(); ++*answered) {
    requests[*answered].callback->onResponse(orvi::HttpResponse(200, body));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orvi::fuzz::quietLogs();
  static const orvi::test::TempDir dir("orvi-fuzz-conversation");
  auto history = std::make_shared<orvi::HistoryManager>();
  history->init(dir.path(), std::make_shared<orvi::test::MemorySqlExecutor>(), 36500, true);

  orvi::ConversationOptions options;
  options.enable_resend = false;
  options.max_downlink_frame_bytes = 1 << 20;
  auto conversation = std::make_shared<orvi::ConversationImpl>("lc", options, history);
  auto listener = std::make_shared<orvi::test::RecordingListener>();
  auto sender = std::make_shared<orvi::test::RecordingSender>();
  conversation->listen(listener);
  conversation->registerCustomMessageHandler(std::make_shared<EchoCustomHandler>());
  const std::shared_ptr<orvi::ITransport> transport = conversation->connect(sender);
  conversation->sendMessage(prompt("hello", "lm"));

  size_t answered = 0;
  for (const auto& line : orvi::fuzz::linesOf(orvi::fuzz::asText(data, size))) {
    std::string rest;
    if (orvi::fuzz::startsWith(line, "SEND ", &rest)) {
      conversation->sendMessage(prompt(rest));
    } else if (line == "CANCEL") {
      conversation->cancel(orvi::InputMessage());
    } else if (orvi::fuzz::startsWith(line, "RECOVER ", &rest)) {
      conversation->recoverRemoteSection();
      answerRequests(*sender, &answered, rest);
    } else if (orvi::fuzz::startsWith(line, "PAGE ", &rest)) {
      conversation->recoverRemoteSections("0", 10);
      answerRequests(*sender, &answered, rest);
    } else {
      transport->onMessageReceived(line);
    }
  }
  history->flush();
  conversation->popupHistoryMessages(false, 0, 0);
  return 0;
}
