#include "orvi/message/wrapper/message_base.h"

#include <atomic>

namespace orvi {
namespace {

std::atomic<int64_t> live_wrappers{0};

}  // namespace

MessageBase::MessageBase() {
  live_wrappers.fetch_add(1, std::memory_order_relaxed);
}

MessageBase::MessageBase(const MessageBase& other) : envelope_(other.envelope_) {
  live_wrappers.fetch_add(1, std::memory_order_relaxed);
}

MessageBase::~MessageBase() {
  live_wrappers.fetch_sub(1, std::memory_order_relaxed);
}

int64_t MessageBase::liveCount() {
  return live_wrappers.load(std::memory_order_relaxed);
}

const char* messageKindName(MessageKind kind) {
  switch (kind) {
    case MessageKind::User: return "user";
    case MessageKind::Assistant: return "assistant";
    case MessageKind::Delta: return "delta";
    case MessageKind::System: return "system";
    case MessageKind::Custom: return "custom";
  }
  return "";
}

}  // namespace orvi
