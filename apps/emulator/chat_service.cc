#include "chat_service.h"

#include <utility>

#include "codec.h"
#include "inbound_json.h"

namespace orvi {
namespace emulator {
namespace {

using Json = nlohmann::ordered_json;

const char kFiller[] =
    "I am the emulated assistant, and I stream this same sentence after every prompt so that "
    "a client can compare what it shows with what I sent.";
const char kStory[] =
    "Once upon a time a small client opened a socket to a patient server. The server answered "
    "one word at a time, slowly, the way a storyteller pauses between sentences. The client "
    "listened, folded every word into its history, and waited for the end. Some nights the "
    "connection broke in the middle, and the client had to ask again what had been said. "
    "Every time, the server remembered the whole story and told it once more, to the last word.";
const char kToolFiller[] = "That is all I know about it.";
const size_t kNameBytes = 40;
// An answer quotes this much of a prompt or tool output at most: one word
// per delta, a 16 MiB prompt would otherwise stream for days.
const size_t kQuotedBytes = 4096;

std::string stringMember(const Json& object, const char* key) {
  const auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

std::vector<std::string> splitWords(const std::string& text) {
  std::vector<std::string> words;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(' ', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) words.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return words;
}

std::string joinWords(const std::vector<std::string>& words) {
  std::string text;
  for (const auto& word : words) text += word + " ";
  return text;
}

std::string promptOf(const Json& message) {
  const auto content = message.find("content");
  return content != message.end() && content->is_object() ? stringMember(*content, "payload")
                                                          : std::string();
}

// The first `bytes` bytes of `text`, cut back to a UTF-8 character boundary.
std::string cutUtf8(const std::string& text, size_t bytes) {
  if (text.size() <= bytes) return text;
  size_t cut = bytes;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return text.substr(0, cut);
}

// A conversation's name: its first prompt, cut to 40 bytes.
std::string nameOf(const std::string& prompt) {
  return cutUtf8(prompt, kNameBytes);
}

// The texts a tool returned, or null when the message carries no tool result.
const Json* toolResultOf(const Json& message) {
  const auto it = message.find("tool_result");
  return it != message.end() && it->is_object() ? &*it : nullptr;
}

std::string toolOutputOf(const Json& tool_result) {
  std::string output;
  const auto calls = tool_result.find("tool_call_result");
  if (calls == tool_result.end() || !calls->is_array()) return output;
  for (const auto& call : *calls) {
    if (!call.is_object()) continue;
    if (!output.empty()) output += "; ";
    output += stringMember(call, "result");
  }
  return output;
}

Json weatherToolCalls() {
  return Json::array({{{"name", "get_weather"},
                       {"properties", "{\"city\":\"Paris\"}"},
                       {"compose_type", "node"}}});
}

}  // namespace

ChatService::ChatService(ServiceHost& host, FaultSwitches& faults, Store& store,
                         int32_t delta_interval_ms, int32_t gzip_every, Log log)
    : host_(host),
      faults_(faults),
      store_(store),
      delta_interval_ms_(delta_interval_ms < 0 ? 0 : delta_interval_ms),
      gzip_every_(gzip_every),
      log_(std::move(log)) {}

std::string ChatService::answerFor(const std::string& prompt) {
  const bool story = prompt.find("story") != std::string::npos;
  return joinWords(
      splitWords("You said: " + cutUtf8(prompt, kQuotedBytes) + ". " + (story ? kStory : kFiller)));
}

std::string ChatService::toolAnswerFor(const std::string& tool_output) {
  return joinWords(
      splitWords("The tool says: " + cutUtf8(tool_output, kQuotedBytes) + ". " + kToolFiller));
}

void ChatService::onText(SessionId session, const std::string& text) {
  std::string why = "no message in it";
  const Json uplink = parseInbound(text, &why);
  const auto messages = uplink.is_object() ? uplink.find("messages") : uplink.end();
  if (!uplink.is_object() || messages == uplink.end() || !messages->is_array() ||
      messages->empty() || !messages->front().is_object()) {
    log("chat: ignored a frame that is not a user message (" + why + "): " + text.substr(0, 200));
    return;
  }
  const Json& message = messages->front();
  const std::string action = stringMember(uplink, "action");
  const std::string local_message_id = stringMember(message, "local_message_id");
  Conversation& conversation = conversationFor(uplink);
  Route route{session, conversation.id, stringMember(uplink, "local_conversation_id"),
              stringMember(uplink, "section_id"), stringMember(uplink, "local_section_id")};

  // A resend of a message already seen: acknowledged again, never answered again.
  if (const StoredMessage* seen = conversation.findUserMessage(local_message_id)) {
    const Section* section = conversation.sectionOf(seen->message_id);
    route.section_id = section->id;
    route.local_section_id = section->local_id;
    log("chat: repeated " + local_message_id + ", acknowledged again as " + seen->message_id);
    acknowledge(route, seen->wire, nullptr);
    return;
  }

  const int64_t now = host_.nowMs();
  StoredMessage user;
  user.message_id = store_.newId("um-");
  user.local_message_id = local_message_id;
  user.reply_message_id = stringMember(uplink, "reply_message_id");
  user.action = action;
  user.create_time = now;
  user.wire = message;
  user.wire["message_id"] = user.message_id;
  user.wire["role"] = "user";
  user.wire["create_time"] = now;
  user.wire["status"] = 2;
  user.wire["is_complete"] = true;
  conversation.update_time = now;

  Section* section = conversation.findSection(route.section_id, route.local_section_id);
  if (action == "cancel") {
    if (section != nullptr) {
      stopSectionStreams(conversation.id, section->id);
      if (section->state == SectionState::Running) section->state = SectionState::Cancelled;
      route.section_id = section->id;
      route.local_section_id = section->local_id;
      section->messages.push_back(user);
    }
    log("chat: cancel " + route.section_id);
    acknowledge(route, user.wire, nullptr);
    return;
  }

  // A retry or a reply continues its section; anything else opens one.
  if (section == nullptr) {
    Section opened;
    opened.id = store_.newId("s-");
    opened.local_id = route.local_section_id;
    opened.prompt = promptOf(message);
    if (conversation.name.empty()) conversation.name = nameOf(opened.prompt);
    conversation.sections.push_back(std::move(opened));
    section = &conversation.sections.back();
  } else {
    stopSectionStreams(conversation.id, section->id);
  }
  route.section_id = section->id;
  route.local_section_id = section->local_id;
  section->state = SectionState::Running;
  section->messages.push_back(user);

  std::string answer;
  Json tool_calls;
  if (const Json* tool_result = toolResultOf(message)) {
    answer = toolAnswerFor(toolOutputOf(*tool_result));
  } else {
    const std::string basis = action == "retry" ? section->prompt : promptOf(message);
    if (basis.find("weather") != std::string::npos) {
      tool_calls = weatherToolCalls();
    } else {
      answer = answerFor(basis);
    }
  }
  log("chat: " + (action.empty() ? std::string("message") : action) + " " + local_message_id +
      " in " + route.conversation_id + "/" + route.section_id);
  // A tool call leaves the section waiting for the tool's result.
  const bool ends_section = tool_calls.is_null();
  acknowledge(route, user.wire, [this, route, answer, tool_calls, ends_section] {
    startAnswer(route, answer, tool_calls, ends_section);
  });
}

void ChatService::onClosed(SessionId session) {
  for (auto it = streams_.begin(); it != streams_.end();) {
    if (it->second.route.session == session) {
      finishInStore(it->second);
      it = streams_.erase(it);
    } else {
      ++it;
    }
  }
  frame_count_.erase(session);
}

Conversation& ChatService::conversationFor(const Json& uplink) {
  const std::string id = stringMember(uplink, "conversation_id");
  const std::string local_id = stringMember(uplink, "local_conversation_id");
  if (!id.empty()) {
    if (Conversation* known = store_.find(id)) return *known;
  } else if (!local_id.empty()) {
    // The client has not learned the id yet (a second prompt sent before
    // the first acknowledgement): the conversation is the one bound to it.
    if (Conversation* known = store_.findByLocalId(local_id)) return *known;
  }
  // An id the emulator does not know (it was restarted, or the conversation
  // deleted) is adopted rather than refused.
  Conversation conversation;
  conversation.id = id.empty() ? store_.newId("c-") : id;
  conversation.local_id = local_id;
  conversation.create_time = conversation.update_time = host_.nowMs();
  store_.conversations().push_back(std::move(conversation));
  log("chat: conversation " + store_.conversations().back().id + " for " + local_id);
  return store_.conversations().back();
}

void ChatService::acknowledge(const Route& route, const Json& echo, std::function<void()> then) {
  auto deliver = [this, route, echo, then = std::move(then)] {
    if (faults_.takeDropAck()) {
      log("chat: dropped the acknowledgement of " + stringMember(echo, "local_message_id"));
    } else {
      sendFrame(route, "message", echo.dump());
    }
    if (then) then();
  };
  const int32_t delay_ms = faults_.get().ack_delay_ms;
  if (delay_ms > 0) {
    host_.schedule(delay_ms, std::move(deliver));
  } else {
    deliver();
  }
}

void ChatService::startAnswer(const Route& route, const std::string& text, Json tool_calls,
                              bool ends_section) {
  const int64_t now = host_.nowMs();
  Stream stream{route, store_.newId("am-"), splitWords(text), 0, ends_section};
  if (Section* section = storedSection(route)) {
    StoredMessage assistant;
    assistant.message_id = stream.message_id;
    assistant.assistant = true;
    assistant.tool_calls = tool_calls;
    assistant.create_time = now;
    section->messages.push_back(std::move(assistant));
  }
  Json content = {{"message_id", stream.message_id},
                  {"local_message_id", ""},
                  {"role", "assistant"},
                  {"content", {{"payload", "{\"text\":\"\"}"}, {"content_type", 1}}}};
  if (!tool_calls.is_null()) content["tool_calls"] = std::move(tool_calls);
  content["create_time"] = now;
  content["status"] = 0;
  content["is_complete"] = false;
  sendFrame(route, "message", content.dump());

  const uint64_t id = ++last_stream_id_;
  streams_.emplace(id, std::move(stream));
  host_.schedule(delta_interval_ms_, [this, id] { tick(id); });
}

void ChatService::tick(uint64_t stream_id) {
  const auto it = streams_.find(stream_id);
  if (it == streams_.end()) return;  // cancelled, replaced or its session closed
  Stream& stream = it->second;
  bool mid_frame = false;
  if (faults_.takeCut(static_cast<int32_t>(stream.sent), &mid_frame)) {
    log("chat: cutting the connection after " + std::to_string(stream.sent) + " deltas of " +
        stream.message_id);
    const Stream cut = std::move(stream);
    streams_.erase(it);
    host_.cut(cut.route.session, mid_frame);
    finishInStore(cut);
    return;
  }
  if (stream.sent < stream.words.size()) {
    const std::string piece = stream.words[stream.sent++] + " ";
    if (StoredMessage* stored = storedMessage(stream.route, stream.message_id)) {
      stored->text += piece;
    }
    const Json patch = Json::array({{{"op", "append"}, {"path", "/text"}, {"value", piece}}});
    const Json delta = {{"message_id", stream.message_id}, {"json_patch", patch.dump()}};
    sendFrame(stream.route, "delta", delta.dump());
    host_.schedule(delta_interval_ms_, [this, stream_id] { tick(stream_id); });
    return;
  }
  const Stream done = std::move(stream);
  streams_.erase(it);
  sendSystem(done.route, "stream_complete");
  if (done.ends_section) sendSystem(done.route, "section_complete");
  finishInStore(done);
}

void ChatService::finishInStore(const Stream& stream) {
  if (StoredMessage* stored = storedMessage(stream.route, stream.message_id)) {
    stored->text = joinWords(stream.words);
  }
  Section* section = storedSection(stream.route);
  if (section != nullptr && stream.ends_section && section->state == SectionState::Running) {
    section->state = SectionState::Complete;
  }
  if (Conversation* conversation = store_.find(stream.route.conversation_id)) {
    conversation->update_time = host_.nowMs();
  }
}

void ChatService::stopSectionStreams(const std::string& conversation_id,
                                     const std::string& section_id) {
  for (auto it = streams_.begin(); it != streams_.end();) {
    const Route& route = it->second.route;
    if (route.conversation_id == conversation_id && route.section_id == section_id) {
      it = streams_.erase(it);
    } else {
      ++it;
    }
  }
}

void ChatService::sendFrame(const Route& route, const char* event, const std::string& content) {
  const uint64_t count = ++frame_count_[route.session];
  const bool gzip = gzip_every_ > 0 && count % static_cast<uint64_t>(gzip_every_) == 0;
  Json frame = {{"conversation_id", route.conversation_id},
                {"local_conversation_id", route.local_conversation_id},
                {"section_id", route.section_id},
                {"local_section_id", route.local_section_id},
                {"event", event},
                {"content", gzip ? gzipBase64(content) : content},
                {"server_time", host_.nowMs()}};
  if (gzip) frame["compression"] = {{"algo", "gzip"}};
  host_.send(route.session, frame.dump());
}

void ChatService::sendSystem(const Route& route, const char* msg) {
  sendFrame(route, "system", Json{{"code", 0}, {"msg", msg}}.dump());
}

Section* ChatService::storedSection(const Route& route) {
  Conversation* conversation = store_.find(route.conversation_id);
  return conversation != nullptr ? conversation->findSection(route.section_id, "") : nullptr;
}

StoredMessage* ChatService::storedMessage(const Route& route, const std::string& message_id) {
  Section* section = storedSection(route);
  if (section == nullptr) return nullptr;
  for (auto& message : section->messages) {
    if (message.message_id == message_id) return &message;
  }
  return nullptr;
}

void ChatService::log(const std::string& line) const {
  if (log_) log_(line);
}

}  // namespace emulator
}  // namespace orvi
