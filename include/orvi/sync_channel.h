// The sync channel: carries small app records to the server in the
// background, batched, compressed, fragmented or uploaded when large, and
// retried within limits. Independent of conversations.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "orvi/export.h"
#include "orvi/transport.h"
#include "orvi/transport_types.h"

namespace orvi {

// Implemented by the host. Calls arrive on the channel's sender thread, on
// the host thread that pushes downlink frames, or on the thread that sent
// (records sent at once); never under a library lock.
class SyncChannelListener {
 public:
  virtual ~SyncChannelListener() = default;
  virtual void onAck(const std::string& id, int64_t index) = 0;
  virtual void onNack(const std::string& id, int64_t index) = 0;
  virtual void onQuery(const SyncDownlinkMessage& message, const std::string& query) = 0;
  virtual void onCollect(const SyncDownlinkMessage& message) = 0;
  // After every send attempt: whether it went out, and which records it held.
  virtual void onSendResult(bool success, const SentResults& results) = 0;
};

// Implemented by the library; the host reports an upload's progress through
// it, from any thread.
class FileUploadStatusCallback {
 public:
  virtual ~FileUploadStatusCallback() = default;
  virtual void onUploadProgress(int32_t percent) = 0;
  virtual void onUploadSuccess(int32_t code, const std::string& message,
                               const std::string& uri) = 0;
  virtual void onUploadFailed(int32_t code, const std::string& message) = 0;
  virtual void onUploadCanceled() = 0;
};

// Implemented by the host; uploads a record's content as a file. `info.extra`
// carries the content's compression name (for example "gzip"), if any.
class IFileUploader {
 public:
  virtual ~IFileUploader() = default;
  virtual void upload(const SyncInfo& info, std::shared_ptr<FileUploadStatusCallback> callback) = 0;
};

// Implemented by the library; meant to be driven from one host thread.
class ORVI_EXPORT SyncChannel {
 public:
  virtual ~SyncChannel();

  static std::shared_ptr<SyncChannel> create(const SyncChannelOptions& options);

  // listen, connect and setFileUploader take effect only before the first send.
  virtual void listen(std::shared_ptr<SyncChannelListener> listener) = 0;
  virtual std::shared_ptr<ITransport> connect(std::shared_ptr<ITransportSender> sender) = 0;
  // Queues a record. Always returns false: delivery is reported through
  // SyncChannelListener::onSendResult.
  virtual bool send(const SyncInfo& info) = 0;
  virtual void flush() = 0;
  virtual void setFileUploader(std::shared_ptr<IFileUploader> uploader) = 0;
};

}  // namespace orvi
