// The parsed form of a streamed assistant payload, kept beside the payload
// text so that a delta costs one small parse and one dump instead of a full
// re-parse. The cache belongs to one payload text: when the text no longer
// matches (replaced elsewhere), the document is parsed again.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace orvi {

struct PatchedDocument {
  nlohmann::json document;
  std::string text;  // the payload `document` was parsed from or dumped to
  bool valid = false;
};

}  // namespace orvi
