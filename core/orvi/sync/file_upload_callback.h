// FileUploadCallback is what the host's IFileUploader reports one upload
// through. The library makes one per upload attempt and hands it to the
// uploader, which owns it from then on.
//
// It shares the record being uploaded with the SyncQos failed queue and holds
// the SyncQos weakly: an answer that arrives after the channel is gone is
// logged and dropped. Callbacks may come on any thread, once or more; each
// goes to SyncQos operations that lock for themselves.
#pragma once

#include <memory>
#include <string>

#include "orvi/sync/sync_message_processor.h"
#include "orvi/sync_channel.h"

namespace orvi {

class SyncQos;

class FileUploadCallback : public FileUploadStatusCallback {
 public:
  FileUploadCallback(std::weak_ptr<SyncQos> qos, std::shared_ptr<idl::SyncInfo> sync_info);

  void onUploadProgress(int32_t percent) override;
  // The record is sent again with the file's address as its content.
  void onUploadSuccess(int32_t code, const std::string& message, const std::string& uri) override;
  // The record is retried later, with back-off, a bounded number of times.
  void onUploadFailed(int32_t code, const std::string& message) override;
  // The record is neither retried nor sent.
  void onUploadCanceled() override;

 private:
  // The record for log lines (an empty one when constructed without).
  const idl::SyncInfo& info() const;
  // Empty when the SyncQos is gone or there is no record to report on.
  std::shared_ptr<SyncQos> qos() const;

  const std::weak_ptr<SyncQos> qos_;
  // Its id and index never change; content and content type are guarded by
  // the SyncQos mutex.
  const std::shared_ptr<idl::SyncInfo> sync_info_;
};

}  // namespace orvi
