#include "orvi/sync/sync_message_processor.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <unordered_map>

#include "orvi/sync/sync_gzip_encoder.h"
#include "orvi/sync/sync_wire_text.h"
#include "orvi/utils/base64.h"
#include "orvi/utils/logger.h"
#include "orvi/utils/untrusted_json.h"

namespace orvi {
namespace {

constexpr int32_t kEnvelopeVersion = 0;
constexpr const char* kEnvelopeHead = "{\"version\":0,\"sync_infos\":[";
constexpr const char* kEnvelopeTail = "]}";
static_assert(kEnvelopeVersion == 0, "the envelope head spells the version out");

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

// One record as a JSON object, keys in the record's order; `content` stands
// in for the record's own (a fragment's slice).
void appendRecord(std::string& out, const idl::SyncInfo& record, std::string_view content,
                  const std::optional<SyncFragment>& fragment) {
  using namespace sync_wire;
  out += '{';
  appendKey(out, "id");
  appendString(out, record.id);
  out += ',';
  appendKey(out, "content");
  appendString(out, content);
  if (record.content_type) {
    out += ',';
    appendKey(out, "content_type");
    appendString(out, *record.content_type);
  }
  out += ',';
  appendKey(out, "type");
  appendString(out, record.type);
  out += ',';
  appendKey(out, "index");
  appendInt(out, record.index);
  if (record.compression) {
    out += ',';
    appendKey(out, "compression");
    appendString(out, *record.compression);
  }
  if (record.extra) {
    out += ',';
    appendKey(out, "extra");
    appendString(out, *record.extra);
  }
  if (fragment) {
    out += ',';
    appendKey(out, "fragment");
    out += '{';
    appendKey(out, "total");
    appendInt(out, fragment->total);
    out += ',';
    appendKey(out, "index");
    appendInt(out, fragment->index);
    out += '}';
  }
  out += '}';
}

// Room for a record's frame text: its content and a generous allowance for
// the other members and escapes.
size_t roughSize(size_t content_size) {
  return content_size + content_size / 8 + 256;
}

// Byte length of the character led by `c`: by its lead bits alone; a stray
// continuation byte counts as a character of its own.
size_t leadLength(unsigned char c) {
  if (c < 0x80) return 1;
  if ((c & 0xE0) == 0xC0) return 2;
  if ((c & 0xF0) == 0xE0) return 3;
  if ((c & 0xF8) == 0xF0) return 4;
  return 1;
}

// Walks a text character by character, eight ASCII bytes at a time where it can.
class CharCursor {
 public:
  explicit CharCursor(const std::string& text) : text_(text) {}

  size_t offset() const { return at_; }
  bool done() const { return at_ >= text_.size(); }

  // Moves over up to `chars` characters; returns how many it passed.
  size_t advance(size_t chars) {
    size_t passed = 0;
    while (passed < chars && at_ < text_.size()) {
      if (chars - passed >= 8 && text_.size() - at_ >= 8 && asciiWord()) {
        at_ += 8;
        passed += 8;
        continue;
      }
      at_ += std::min(leadLength(static_cast<unsigned char>(text_[at_])), text_.size() - at_);
      ++passed;
    }
    return passed;
  }

 private:
  bool asciiWord() const {
    uint64_t word;
    std::memcpy(&word, text_.data() + at_, sizeof word);
    return (word & 0x8080808080808080ULL) == 0;
  }

  const std::string& text_;
  size_t at_ = 0;
};

template <typename T>
std::optional<T> optionalMember(const nlohmann::json& j, const char* key) {
  const auto it = j.find(key);
  if (it == j.end() || it->is_null()) return std::nullopt;
  if constexpr (std::is_integral<T>::value) return checkedInteger<T>(*it);
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

bool SyncMessageProcessor::wantsGzip(const idl::SyncInfo& record) {
  return record.compression && *record.compression == kGzip && !isUri(record);
}

void SyncMessageProcessor::dropUnusedCompression(idl::SyncInfo& record) {
  if (record.compression && !isUri(record) && *record.compression != kGzip) {
    record.compression.reset();
  }
}

void SyncMessageProcessor::tryCompress(idl::SyncInfo& record, SyncGzipEncoder& encoder) {
  if (!wantsGzip(record)) {
    dropUnusedCompression(record);
    return;
  }
  const size_t original = record.content.size();
  const int ret = encoder.compress(record.content);
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

const char* SyncMessageProcessor::invalidField(const idl::SyncInfo& record, bool with_content) {
  using sync_wire::isValidUtf8;
  if (!isValidUtf8(record.id)) return "id";
  if (with_content && !isValidUtf8(record.content)) return "content";
  if (record.content_type && !isValidUtf8(*record.content_type)) return "content_type";
  if (record.extra && !isValidUtf8(*record.extra)) return "extra";
  return nullptr;
}

int32_t SyncMessageProcessor::calcFragmentCount(size_t content_size, int32_t fragment_size_kb) {
  const int64_t fragment_bytes = static_cast<int64_t>(fragment_size_kb) * 1024;
  const int64_t size = static_cast<int64_t>(content_size);
  const auto count = static_cast<int32_t>((size + fragment_bytes - 1) / fragment_bytes);
  ORVI_LOGI("calcFragmentCount, size: %zu, count: %d, fragment_size byte: %lld", content_size,
            count, static_cast<long long>(fragment_bytes));
  return count;
}

std::vector<FragmentSlice> SyncMessageProcessor::planFragments(const idl::SyncInfo& record,
                                                               int32_t count) {
  const size_t chars = CharCursor(record.content).advance(record.content.size());
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

  std::vector<FragmentSlice> slices(n);
  CharCursor cursor(record.content);
  for (size_t i = 0; i < n; ++i) {
    FragmentSlice& slice = slices[i];
    slice.begin = cursor.offset();
    // Every fragment but the last has `base` characters; the last takes the rest.
    cursor.advance(i + 1 == n ? chars : base);
    slice.end = cursor.offset();
    slice.total = static_cast<int32_t>(n);
    slice.index = static_cast<int32_t>(i);
  }
  return slices;
}

std::string SyncMessageProcessor::marshalFragment(const idl::SyncInfo& record,
                                                  const FragmentSlice& slice) {
  const std::string_view content =
      std::string_view(record.content).substr(slice.begin, slice.end - slice.begin);
  std::string out;
  out.reserve(roughSize(content.size()));
  out += kEnvelopeHead;
  appendRecord(out, record, content, SyncFragment(slice.total, slice.index));
  out += kEnvelopeTail;
  return out;
}

SyncMessage SyncMessageProcessor::marshalBatch(const std::vector<idl::SyncInfo>& records) {
  size_t size = 0;
  for (const auto& record : records) size += roughSize(record.content.size());
  SyncMessage message;
  message.text.reserve(size + 32);
  message.text += kEnvelopeHead;
  for (size_t i = 0; i < records.size(); ++i) {
    if (i > 0) message.text += ',';
    appendRecord(message.text, records[i], records[i].content, records[i].fragment);
  }
  message.text += kEnvelopeTail;
  message.results = resultsOf(records);
  return message;
}

void SentResultsBuilder::add(const std::string& id, int64_t index) {
  const auto [it, added] = position_.emplace(id, results_.results.size());
  if (added) {
    results_.results.emplace_back(id, std::vector<int64_t>{index});
  } else {
    results_.results[it->second].indexes.push_back(index);
  }
}

SentResults SyncMessageProcessor::resultsOf(const std::vector<idl::SyncInfo>& records) {
  SentResultsBuilder builder;
  for (const auto& record : records) builder.add(record.id, record.index);
  return builder.take();
}

SentResults SyncMessageProcessor::resultsOf(const idl::SyncInfo& record) {
  return SentResults({SentResult(record.id, {record.index})});
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
      message.fragment = SyncFragment(checkedInteger<int32_t>(fragment->at("total")),
                                      checkedInteger<int32_t>(fragment->at("index")));
    }
    return message;
  } catch (const std::exception& e) {
    ORVI_LOGE("Failed to parse SyncDownloadlinkMessage: %s", e.what());
    return std::nullopt;
  }
}

}  // namespace orvi
