// ConversationHubImpl: the process's one hub. It takes the configuration
// once, opens conversations and remembers them weakly by local id (the host
// owns them), keeps the HistoryManager they share, and has its own transport
// for listing and removing conversations on the server.
//
// Any host thread may call it. mutex_ guards the map of conversations and is
// never held while a conversation is built or a callback runs. The sender,
// transport, listener and REST client are set by connect, listen and the
// first remote call, before the host uses the hub from several threads; a
// second small mutex makes reading them race-free all the same.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "orvi/conversation_hub.h"

namespace orvi {

class ConversationImpl;
class HistoryManager;
class RestApiClient;
class Transport;

class ConversationHubImpl : public ConversationHub {
 public:
  ConversationHubImpl();
  ~ConversationHubImpl() override;

  void config(const OrviConfig& config, std::shared_ptr<ISqlExecutor> executor) override;
  std::shared_ptr<Conversation> open(const std::string& local_conversation_id,
                                     const ConversationOptions& options) override;
  void close(const std::string& local_conversation_id) override;
  std::vector<ConversationInfo> list() override;
  bool listRemote(const std::string& cursor, int32_t count, bool create_time_desc,
                  std::shared_ptr<IConversations> callback) override;
  void saveConversationInfos(const ConversationListInfo& page) override;
  bool remove(const std::string& local_conversation_id) override;
  bool removeLocal(const std::string& local_conversation_id) override;
  void listen(std::shared_ptr<ConversationHubListener> listener) override;
  std::shared_ptr<ITransport> connect(std::shared_ptr<ITransportSender> sender) override;
  bool flush(int64_t timeout_ms) override;

  const std::shared_ptr<HistoryManager>& history() const { return history_; }

 private:
  // Whether the conversation is open and alive; forgets an expired entry.
  bool checkConversation(const std::string& local_conversation_id);
  // Forgets conversations the host dropped without close (mutex_ held).
  void sweepExpired();
  std::shared_ptr<RestApiClient> restClient();
  std::shared_ptr<ConversationHubListener> hubListener();

  std::atomic<bool> configured_{false};
  std::string cache_path_;
  int64_t retention_days_ = 0;
  bool enable_merge_ = false;
  // Set while a config runs; a second config meanwhile is refused rather
  // than made to wait, since config runs the host's store and no lock is
  // held while host code runs.
  std::atomic<bool> configuring_{false};

  std::mutex mutex_;
  std::unordered_map<std::string, std::weak_ptr<ConversationImpl>>
      conversations_;  // guarded by mutex_
  static constexpr size_t kFirstSweep = 8;
  size_t sweep_at_ = kFirstSweep;  // guarded by mutex_

  std::shared_ptr<HistoryManager> history_;

  std::mutex remote_mutex_;
  std::shared_ptr<ITransportSender> sender_;           // guarded by remote_mutex_
  std::shared_ptr<Transport> transport_;               // guarded by remote_mutex_
  std::shared_ptr<ConversationHubListener> listener_;  // guarded by remote_mutex_
  std::shared_ptr<RestApiClient> rest_client_;         // guarded by remote_mutex_
};

}  // namespace orvi
