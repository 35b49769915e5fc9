// StreamingDocument: the JSON document of one streaming assistant payload,
// kept parsed beside the payload text, so that a delta costs about what it
// changes instead of the size of the answer so far.
//
// After the first delta the payload is always the compact dump of the
// document (no indentation, non-ASCII kept as UTF-8). A delta made only of
// "append" operations to strings that exist extends each string in the
// document and splices its escaped text into the payload where the string
// ends; the JSON library's own serializer escapes it, so the splice and a
// full dump cannot disagree. Where a string ends is found once by a scan of
// the text and then carried along as the text grows. Any other delta patches
// a copy of the document and dumps it whole.
//
// Owned by its AssistantMessageWrapper, which starts a new document when its
// record is replaced; the payload text is written only through apply. Not
// thread-safe: the message engine calls it under the lock that guards
// patching.
#pragma once

#include <cstddef>
#include <exception>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvi {

// A delta refused for its shape before its operations ran. The engine logs
// each fault with a line of its own.
class MalformedDelta : public std::exception {
 public:
  enum class Fault { NotArray, OpNotString, PathNotString, AppendValueNotString };

  MalformedDelta(Fault fault, std::string element) : fault_(fault), element_(std::move(element)) {}

  Fault fault() const { return fault_; }
  // The offending operation exactly as the delta text has it; empty for
  // NotArray.
  const std::string& element() const { return element_; }
  const char* what() const noexcept override { return "malformed delta"; }

 private:
  Fault fault_;
  std::string element_;
};

class StreamingDocument {
 public:
  // Applies the delta `patch_text` to the document whose text is `payload`.
  // On success `payload` is the compact dump of the patched document. On
  // failure it throws (MalformedDelta, PatchRefused, JsonTooDeep or the JSON
  // library's exceptions) and the payload and the document stay exactly as
  // they were.
  void apply(const std::string& patch_text, std::string& payload);

  // Forgets the document: the next delta parses the payload again.
  void reset();

 private:
  // Where a string that deltas append to ends in the payload: the offset of
  // its closing quote.
  struct StringEnd {
    std::string path;
    std::size_t offset;
  };

  bool appendInPlace(const nlohmann::json& operations, std::string& payload);
  void patchCopy(const nlohmann::json& operations, const std::string& patch_text,
                 std::string& payload);
  // The index in string_ends_ of the string at `path`; npos when the text
  // does not hold a string there.
  std::size_t stringEnd(const std::string& path, const std::vector<std::string>& tokens,
                        const std::string& payload);

  bool loaded_ = false;   // document_ holds the parsed payload
  bool compact_ = false;  // the payload is document_'s compact dump
  nlohmann::json document_;
  std::vector<StringEnd> string_ends_;  // valid while compact_, a few at most
};

}  // namespace orvi
