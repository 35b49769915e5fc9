// The sync channel's wire format: the record `idl::SyncInfo` and its JSON,
// content compression, the fragment plan of oversize records, and parsing
// of downlink messages.
//
// Stateless: every function works on the values it is given (the gzip
// encoder is the caller's), so it can be called from any thread. None
// throws on content; outside input that does not parse is logged and yields
// nothing. Frames are compact JSON with UTF-8 left as it is, so every string
// of a record must be valid UTF-8 (see invalidField).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "orvi/transport_types.h"

namespace orvi {

class SyncGzipEncoder;

namespace idl {

// One sync record as it travels. Built from the host's SyncInfo when it is
// sent; `type` keeps the wire text ("base", "delta" or "reply").
struct SyncInfo {
  std::string id;
  std::string content;
  std::optional<std::string> content_type;  // "uri": content is an uploaded file's address
  std::string type;
  int64_t index = 0;
  std::optional<std::string> compression;  // "gzip": content is Base64 of the gzip bytes
  std::optional<std::string> extra;
  std::optional<orvi::SyncFragment> fragment;
};

}  // namespace idl

// One text frame ready for the transport and the records it carries.
struct SyncMessage {
  std::string text;
  SentResults results;
};

// Where one fragment lies in its record's content: a byte range that never
// cuts a UTF-8 character, and its place among the record's fragments.
struct FragmentSlice {
  size_t begin = 0;
  size_t end = 0;
  int32_t total = 0;
  int32_t index = 0;
};

// Builds the SentResults of many records: grouped by id in first-seen
// order, each id with its indexes in the order added. Linear in the records.
class SentResultsBuilder {
 public:
  void add(const std::string& id, int64_t index);
  bool empty() const { return results_.results.empty(); }
  SentResults take() { return std::move(results_); }

 private:
  SentResults results_;
  std::unordered_map<std::string, size_t> position_;  // id -> its entry
};

class SyncMessageProcessor {
 public:
  static constexpr const char* kGzip = "gzip";
  static constexpr const char* kUri = "uri";

  // The wire record of a host record; "compression" is the channel's
  // algorithm, and tryCompress decides later whether it is applied.
  static idl::SyncInfo toWire(const SyncInfo& info, const std::string& compression_algo);

  // The host record handed to the file uploader. `extra` carries the
  // record's compression name, not its own extra: the uploader needs to
  // know how the content it stores is encoded.
  static SyncInfo toUploadInfo(const idl::SyncInfo& record);

  static bool isUri(const idl::SyncInfo& record);

  // True when tryCompress will gzip the content: the record asks for "gzip"
  // and is not an address.
  static bool wantsGzip(const idl::SyncInfo& record);

  // Compresses the content in place when the record asks for "gzip" and is
  // not an address (gzip, then Base64); drops a "compression" the library
  // cannot apply, or one whose compression failed.
  static void tryCompress(idl::SyncInfo& record, SyncGzipEncoder& encoder);
  // The part of tryCompress for records that do not want gzip: drops a
  // "compression" other than "gzip" (an address keeps its own).
  static void dropUnusedCompression(idl::SyncInfo& record);

  // The name of the first string of the record that is not valid UTF-8, or
  // null when all are. The content is checked only when `with_content`.
  static const char* invalidField(const idl::SyncInfo& record, bool with_content);

  // How many fragments an oversize record needs: ceil(content bytes / budget).
  static int32_t calcFragmentCount(size_t content_size, int32_t fragment_size_kb);

  // Cuts the content into `count` pieces of (nearly) equal numbers of UTF-8
  // characters, never inside a character: every piece but the last has
  // chars / count characters, the last takes the rest. Two passes over the
  // content, nothing copied. An empty content gives no fragments.
  static std::vector<FragmentSlice> planFragments(const idl::SyncInfo& record, int32_t count);

  // The frame of one fragment: the record with the slice as content.
  static std::string marshalFragment(const idl::SyncInfo& record, const FragmentSlice& slice);

  // One envelope with every record of the batch.
  static SyncMessage marshalBatch(const std::vector<idl::SyncInfo>& records);

  // Records grouped by id in first-seen order, each with its indexes.
  static SentResults resultsOf(const std::vector<idl::SyncInfo>& records);
  static SentResults resultsOf(const idl::SyncInfo& record);

  // `{id: "a", indexs: [1, 2]}` per entry, for log lines.
  static std::string describe(const SentResults& results);

  // A downlink text as a message; empty (with an error line) when the text
  // is not a JSON object of the expected member types.
  static std::optional<SyncDownlinkMessage> parseDownlink(const std::string& text);
};

}  // namespace orvi
