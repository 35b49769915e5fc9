// SyncChannelImpl is the library's SyncChannel: it holds the channel's
// options, its Transport and the host's listener and uploader, builds wire
// records from the host's records, and routes downlink messages ("ack",
// "nack", "collect", "query") to its SyncQos and the listener.
//
// Owned by the host through std::shared_ptr; the transport holds it weakly
// as its listener. The SyncQos is made on the first send, with whatever
// transport, listener and uploader are set by then.
//
// Threading: host operations are meant for one host thread; downlink text
// arrives on the host's delivery thread. `mutex_` guards the four pointers
// only and is never held while the SyncQos, the transport or the listener
// runs.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "orvi/sync_channel.h"
#include "orvi/transport/transport.h"
#include "orvi/utils/ref_contained.h"

namespace orvi {

class SyncQos;

class SyncChannelImpl : public SyncChannel, public Transport::Listener, public RefContained {
 public:
  static constexpr int32_t kDefaultSendIntervalMs = 1000;
  static constexpr int32_t kDefaultMaxStashCount = 10;
  static constexpr int32_t kDefaultFailedMaxRetryCount = 5;
  static constexpr int32_t kDefaultFragmentSizeKb = 200;

  explicit SyncChannelImpl(const SyncChannelOptions& options);
  ~SyncChannelImpl() override;

  void listen(std::shared_ptr<SyncChannelListener> listener) override;
  std::shared_ptr<ITransport> connect(std::shared_ptr<ITransportSender> sender) override;
  bool send(const SyncInfo& info) override;
  void flush() override;
  void setFileUploader(std::shared_ptr<IFileUploader> uploader) override;

  // Transport::Listener: downlink text from the server.
  void onMessageReceived(const std::string& message) override;

 private:
  std::shared_ptr<SyncQos> qos() const;
  std::shared_ptr<SyncChannelListener> listener() const;
  // The SyncQos, made and wired on the first call.
  std::shared_ptr<SyncQos> qosForSend();

  const int32_t send_interval_ms_;
  const int32_t max_stash_count_;
  const int32_t failed_max_retry_count_;
  const int32_t fragment_size_kb_;
  const std::string compression_algo_;
  const bool enable_file_upload_;

  mutable std::mutex mutex_;
  std::shared_ptr<SyncQos> qos_;                   // guarded by mutex_
  std::shared_ptr<Transport> transport_;           // guarded by mutex_
  std::shared_ptr<SyncChannelListener> listener_;  // guarded by mutex_
  std::shared_ptr<IFileUploader> uploader_;        // guarded by mutex_
};

}  // namespace orvi
