#include "orvi/sync/file_upload_callback.h"

#include "orvi/sync/sync_qos.h"
#include "orvi/utils/logger.h"

namespace orvi {
namespace {

const idl::SyncInfo& placeholder() {
  static const idl::SyncInfo empty;
  return empty;
}

// Indexes are int64 on the wire but reported as int in these lines.
int shortIndex(const idl::SyncInfo& info) {
  return static_cast<int>(info.index);
}

}  // namespace

FileUploadCallback::FileUploadCallback(std::weak_ptr<SyncQos> qos,
                                       std::shared_ptr<idl::SyncInfo> sync_info)
    : qos_(std::move(qos)), sync_info_(std::move(sync_info)) {
  if (!sync_info_) ORVI_LOGE("FileUploadCallback::FileUploadCallback sync_info is null");
}

const idl::SyncInfo& FileUploadCallback::info() const {
  return sync_info_ ? *sync_info_ : placeholder();
}

std::shared_ptr<SyncQos> FileUploadCallback::qos() const {
  return sync_info_ ? qos_.lock() : nullptr;
}

void FileUploadCallback::onUploadProgress(int32_t percent) {
  ORVI_LOGI(
      "FileUploadCallback::onUploadProgress upload file in progress, id: {%s}, index: {%d}, "
      "progress: %d%%",
      info().id.c_str(), shortIndex(info()), percent);
}

void FileUploadCallback::onUploadSuccess(int32_t code, const std::string& message,
                                         const std::string& uri) {
  ORVI_LOGI(
      "FileUploadCallback::onUploadSuccess upload file success, id: {%s}, index: {%d}, code: "
      "{%d}, msg: {%s}, uri: {%s}",
      info().id.c_str(), shortIndex(info()), code, message.c_str(), uri.c_str());
  auto qos = this->qos();
  if (!qos) {
    ORVI_LOGE("FileUploadCallback::onUploadSuccess qos_ is null");
    return;
  }
  qos->onUploadSucceeded(sync_info_, uri);
}

void FileUploadCallback::onUploadFailed(int32_t code, const std::string& message) {
  ORVI_LOGE(
      "FileUploadCallback::onUploadFailed upload file failed, id: {%s}, index: {%d}, err_code: "
      "{%d}, err_msg: {%s}",
      info().id.c_str(), shortIndex(info()), code, message.c_str());
  auto qos = this->qos();
  if (!qos) {
    ORVI_LOGE("FileUploadCallback::onUploadFailed qos_ is null");
    return;
  }
  qos->onUploadFailed(sync_info_);
}

void FileUploadCallback::onUploadCanceled() {
  ORVI_LOGI("FileUploadCallback::onUploadCanceled upload file canceled, id: {%s}, index: {%d}",
            info().id.c_str(), shortIndex(info()));
  if (auto qos = this->qos()) qos->onUploadCanceled(sync_info_);
}

}  // namespace orvi
