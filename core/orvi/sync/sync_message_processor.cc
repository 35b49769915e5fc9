#include "orvi/sync/sync_message_processor.h"

#include <algorithm>
#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "orvi/utils/base64.h"
#include "orvi/utils/gzip.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/untrusted_json.h"

namespace orvi {
namespace {

// Keys keep the order of the record, which makes frames easy to read in logs.
using WireJson = nlohmann::ordered_json;

constexpr int32_t kEnvelopeVersion = 0;

const char* typeText(SyncInfoType type) {
  switch (type) {
    case SyncInfoType::Base: return "base";
    case SyncInfoType::Reply: return "reply";
    default: return "delta";
  }
}

SyncInfoType typeFromText(const std::string& text) {
  if (text == "base") return SyncInfoType::Base;
  if (text == "reply") return SyncInfoType::Reply;
  return SyncInfoType::Delta;
}

WireJson toJson(const idl::SyncInfo& record) {
  WireJson j;
  j["id"] = record.id;
  j["content"] = record.content;
  if (record.content_type) j["content_type"] = *record.content_type;
  j["type"] = record.type;
  j["index"] = record.index;
  if (record.compression) j["compression"] = *record.compression;
  if (record.extra) j["extra"] = *record.extra;
  if (record.fragment) {
    j["fragment"] = {{"total", record.fragment->total}, {"index", record.fragment->index}};
  }
  return j;
}

// Compact, UTF-8 left as it is. Plain content that is not valid UTF-8 cannot
// be JSON text; its bad bytes become U+FFFD instead of failing the send.
std::string dumpEnvelope(WireJson sync_infos) {
  WireJson envelope;
  envelope["version"] = kEnvelopeVersion;
  envelope["sync_infos"] = std::move(sync_infos);
  return envelope.dump(-1, ' ', false, WireJson::error_handler_t::replace);
}

// Byte length of the UTF-8 character led by `c`; a stray continuation byte
// stands for itself.
size_t charLength(unsigned char c) {
  if (c < 0x80) return 1;
  if ((c & 0xE0) == 0xC0) return 2;
  if ((c & 0xF0) == 0xE0) return 3;
  if ((c & 0xF8) == 0xF0) return 4;
  return 1;
}

// Byte offset of every character start, plus the end of the text.
std::vector<size_t> charOffsets(const std::string& text) {
  std::vector<size_t> offsets;
  offsets.reserve(text.size() + 1);
  for (size_t at = 0; at < text.size();) {
    offsets.push_back(at);
    at += std::min(charLength(static_cast<unsigned char>(text[at])), text.size() - at);
  }
  offsets.push_back(text.size());
  return offsets;
}

template <typename T>
std::optional<T> optionalMember(const nlohmann::json& j, const char* key) {
  const auto it = j.find(key);
  if (it == j.end() || it->is_null()) return std::nullopt;
  return it->get<T>();
}

}  // namespace

idl::SyncInfo SyncMessageProcessor::toWire(const SyncInfo& info,
                                           const std::string& compression_algo) {
  idl::SyncInfo record;
  record.id = info.id;
  record.content = info.content;
  record.content_type = info.content_type;
  record.type = typeText(info.type);
  record.index = info.index;
  if (!compression_algo.empty()) record.compression = compression_algo;
  record.extra = info.extra;
  return record;
}

SyncInfo SyncMessageProcessor::toUploadInfo(const idl::SyncInfo& record) {
  return SyncInfo(record.id, record.content, record.content_type, typeFromText(record.type),
                  record.index, record.compression);
}

bool SyncMessageProcessor::isUri(const idl::SyncInfo& record) {
  return record.content_type && *record.content_type == kUri;
}

void SyncMessageProcessor::tryCompress(idl::SyncInfo& record) {
  if (!record.compression || isUri(record)) return;
  if (*record.compression != kGzip) {
    record.compression.reset();
    return;
  }
  const size_t original = record.content.size();
  const int ret = utils::compressEx(record.content);
  if (ret < 1) {
    ORVI_LOGE("tryCompress gzip failed, will not compress, ret: %d", ret);
    record.compression.reset();
    return;
  }
  record.content = utils::base64Encode(record.content);
  const size_t final_size = record.content.size();
  const float rate = (static_cast<float>(original) - static_cast<float>(final_size)) /
                     static_cast<float>(original) * 100.0f;
  ORVI_LOGI(
      "tryCompress gzip and base64 encoded, original size: %zu, final size: %zu, compress rate: "
      "%.2f%%",
      original, final_size, static_cast<double>(rate));
}

int32_t SyncMessageProcessor::calcFragmentCount(size_t content_size, int32_t fragment_size_kb) {
  const int64_t fragment_bytes = static_cast<int64_t>(fragment_size_kb) * 1024;
  const int64_t size = static_cast<int64_t>(content_size);
  const auto count = static_cast<int32_t>((size + fragment_bytes - 1) / fragment_bytes);
  ORVI_LOGI("calcFragmentCount, size: %zu, count: %d, fragment_size byte: %lld", content_size,
            count, static_cast<long long>(fragment_bytes));
  return count;
}

std::vector<SyncMessage> SyncMessageProcessor::splitFragments(const idl::SyncInfo& record,
                                                              int32_t count) {
  const std::vector<size_t> offsets = charOffsets(record.content);
  const size_t chars = offsets.size() - 1;
  if (chars == 0) {
    ORVI_LOGW("Empty content for sync info id: %s", record.id.c_str());
    return {};
  }
  const auto n = static_cast<size_t>(std::max(count, 1));
  const size_t base = chars / n;
  ORVI_LOGI(
      "Fragmenting sync info id: %s, total chars: %zu, fragments: %d, base chars per fragment: "
      "%zu",
      record.id.c_str(), chars, static_cast<int32_t>(n), base);

  const SentResults results({SentResult(record.id, {record.index})});
  std::vector<SyncMessage> messages;
  messages.reserve(n);
  idl::SyncInfo piece = record;
  piece.content.clear();
  for (size_t i = 0; i < n; ++i) {
    // Every fragment but the last has `base` characters; the last takes the rest.
    const size_t first = i * base;
    const size_t last = (i + 1 == n) ? chars : first + base;
    WireJson one = toJson(piece);
    one["content"] = record.content.substr(offsets[first], offsets[last] - offsets[first]);
    one["fragment"] = {{"total", static_cast<int32_t>(n)}, {"index", static_cast<int32_t>(i)}};
    messages.push_back({dumpEnvelope(WireJson::array({std::move(one)})), results});
  }
  return messages;
}

SyncMessage SyncMessageProcessor::marshalBatch(const std::vector<idl::SyncInfo>& records) {
  WireJson sync_infos = WireJson::array();
  for (const auto& record : records) sync_infos.push_back(toJson(record));
  return {dumpEnvelope(std::move(sync_infos)), resultsOf(records)};
}

SentResults SyncMessageProcessor::resultsOf(const std::vector<idl::SyncInfo>& records) {
  SentResults out;
  for (const auto& record : records) {
    auto it = std::find_if(out.results.begin(), out.results.end(),
                           [&](const SentResult& r) { return r.id == record.id; });
    if (it == out.results.end()) {
      out.results.emplace_back(record.id, std::vector<int64_t>{record.index});
    } else {
      it->indexes.push_back(record.index);
    }
  }
  return out;
}

std::string SyncMessageProcessor::describe(const SentResults& results) {
  std::string out;
  for (const auto& result : results.results) {
    if (!out.empty()) out += ", ";
    out += "{id: \"" + result.id + "\", indexs: [";
    for (size_t i = 0; i < result.indexes.size(); ++i) {
      if (i > 0) out += ", ";
      out += std::to_string(result.indexes[i]);
    }
    out += "]}";
  }
  return out;
}

std::optional<SyncDownlinkMessage> SyncMessageProcessor::parseDownlink(const std::string& text) {
  try {
    const nlohmann::json j = parseUntrustedJson(text);
    if (!j.is_object()) throw std::invalid_argument("downlink message is not a JSON object");
    SyncDownlinkMessage message;
    message.id = optionalMember<std::string>(j, "id").value_or("");
    message.action = optionalMember<std::string>(j, "action").value_or("");
    message.index = optionalMember<int64_t>(j, "index");
    message.query = optionalMember<std::string>(j, "query");
    if (const auto fragment = optionalMember<nlohmann::json>(j, "fragment")) {
      message.fragment =
          SyncFragment(fragment->at("total").get<int32_t>(), fragment->at("index").get<int32_t>());
    }
    return message;
  } catch (const std::exception& e) {
    ORVI_LOGE("Failed to parse SyncDownloadlinkMessage: %s", e.what());
    return std::nullopt;
  }
}

}  // namespace orvi
