// Records of the HTTP requests the library asks the host to perform, and of
// the sync channel.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "orvi/enums.h"

namespace orvi {

// A REST call the host performs. The library fixes only the scene and the
// JSON body; the endpoint, path and headers are the host's.
struct HttpRequest {
  HttpRequestScene scene = HttpRequestScene::RecoverSection;
  HttpMethod method = HttpMethod::Get;
  std::optional<std::string> body;

  HttpRequest() = default;
  HttpRequest(HttpRequestScene scene, HttpMethod method, std::optional<std::string> body)
      : scene(scene), method(method), body(std::move(body)) {}
};

struct HttpResponse {
  int32_t status_code = 0;
  std::optional<std::string> body;

  HttpResponse() = default;
  HttpResponse(int32_t status_code, std::optional<std::string> body)
      : status_code(status_code), body(std::move(body)) {}
};

// One record of the sync channel.
struct SyncInfo {
  std::string id;
  std::string content;
  std::optional<std::string> content_type;  // "uri": content is an uploaded file's address
  SyncInfoType type = SyncInfoType::Base;
  int64_t index = 0;
  std::optional<std::string> extra;

  SyncInfo() = default;
  SyncInfo(std::string id, std::string content, std::optional<std::string> content_type,
           SyncInfoType type, int64_t index, std::optional<std::string> extra)
      : id(std::move(id)),
        content(std::move(content)),
        content_type(std::move(content_type)),
        type(type),
        index(index),
        extra(std::move(extra)) {}
};

// Options of SyncChannel::create; empty fields take the defaults noted.
struct SyncChannelOptions {
  std::optional<int32_t> send_interval_ms;        // 1000; below 1: send at once, no thread
  std::optional<int32_t> max_stash_count;         // 10
  std::optional<std::string> compression_algo;    // empty; "gzip" compresses content
  std::optional<int32_t> failed_max_retry_count;  // 5
  std::optional<int32_t> fragment_size_kb;        // 200
  std::optional<bool> enable_file_upload;         // false

  SyncChannelOptions() = default;
  SyncChannelOptions(std::optional<int32_t> send_interval_ms,
                     std::optional<int32_t> max_stash_count,
                     std::optional<std::string> compression_algo,
                     std::optional<int32_t> failed_max_retry_count,
                     std::optional<int32_t> fragment_size_kb,
                     std::optional<bool> enable_file_upload)
      : send_interval_ms(send_interval_ms),
        max_stash_count(max_stash_count),
        compression_algo(std::move(compression_algo)),
        failed_max_retry_count(failed_max_retry_count),
        fragment_size_kb(fragment_size_kb),
        enable_file_upload(enable_file_upload) {}
};

// Which records (by id and index) one sync message carried.
struct SentResult {
  std::string id;
  std::vector<int64_t> indexes;

  SentResult() = default;
  SentResult(std::string id, std::vector<int64_t> indexes)
      : id(std::move(id)), indexes(std::move(indexes)) {}
};

struct SentResults {
  std::vector<SentResult> results;

  SentResults() = default;
  explicit SentResults(std::vector<SentResult> results) : results(std::move(results)) {}
};

// The position of one fragment of an oversize sync record.
struct SyncFragment {
  int32_t total = 0;
  int32_t index = 0;

  SyncFragment() = default;
  SyncFragment(int32_t total, int32_t index) : total(total), index(index) {}
};

// A downlink message of the sync channel ("ack", "nack", "collect", "query").
struct SyncDownlinkMessage {
  std::string id;
  std::string action;
  std::optional<int64_t> index;
  std::optional<std::string> query;
  std::optional<SyncFragment> fragment;

  SyncDownlinkMessage() = default;
  SyncDownlinkMessage(std::string id, std::string action, std::optional<int64_t> index,
                      std::optional<std::string> query, std::optional<SyncFragment> fragment)
      : id(std::move(id)),
        action(std::move(action)),
        index(index),
        query(std::move(query)),
        fragment(fragment) {}
};

}  // namespace orvi
