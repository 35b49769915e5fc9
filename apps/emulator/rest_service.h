// The five REST scenes, answered from the Store: recover one section,
// recover sections by page, list conversations by page, delete messages,
// delete conversations. Bodies and replies are those of docs/protocol.md.
//
// Used on the emulator's I/O thread only, like the store it reads.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "store.h"

namespace orvi {
namespace emulator {

struct RestReply {
  int32_t status = 200;  // HTTP status
  std::string body;      // JSON
};

class RestService {
 public:
  RestService(Store& store, std::function<int64_t()> now_ms)
      : store_(store), now_ms_(std::move(now_ms)) {}

  // The reply to a POST of `body` at `path`; 404 for a path that is none of
  // the scenes. A body that is not the scene's JSON is answered with a
  // non-zero "ret".
  RestReply handle(const std::string& path, const std::string& body);

 private:
  std::string recoverSection(const std::string& body);
  std::string recoverSections(const std::string& body);
  std::string conversationList(const std::string& body);
  std::string deleteMessages(const std::string& body);
  std::string deleteConversations(const std::string& body);
  std::string nextLogId();

  Store& store_;
  const std::function<int64_t()> now_ms_;
  uint64_t last_log_id_ = 0;
};

}  // namespace emulator
}  // namespace orvi
