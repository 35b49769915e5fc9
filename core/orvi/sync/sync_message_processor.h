// The sync channel's wire format: the record `idl::SyncInfo` and its JSON,
// content compression, fragment count and splitting of oversize records,
// and parsing of downlink messages.
//
// Stateless: every function works on the values it is given, so it can be
// called from any thread. None throws; outside input that does not parse is
// logged and yields nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "orvi/transport_types.h"

namespace orvi {
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

  // Compresses the content in place when the record asks for "gzip" and is
  // not an address; drops a "compression" the library cannot apply.
  static void tryCompress(idl::SyncInfo& record);

  // How many fragments an oversize record needs: ceil(content bytes / budget).
  static int32_t calcFragmentCount(size_t content_size, int32_t fragment_size_kb);

  // Splits the content into `count` pieces of (nearly) equal numbers of UTF-8
  // characters, never inside a character; each piece travels in its own
  // envelope. An empty content gives no fragments.
  static std::vector<SyncMessage> splitFragments(const idl::SyncInfo& record, int32_t count);

  // One envelope with every record of the batch.
  static SyncMessage marshalBatch(const std::vector<idl::SyncInfo>& records);

  // Records grouped by id in first-seen order, each with its indexes.
  static SentResults resultsOf(const std::vector<idl::SyncInfo>& records);

  // `{id: "a", indexs: [1, 2]}` per entry, for log lines.
  static std::string describe(const SentResults& results);

  // A downlink text as a message; empty (with an error line) when the text
  // is not a JSON object of the expected member types.
  static std::optional<SyncDownlinkMessage> parseDownlink(const std::string& text);
};

}  // namespace orvi
