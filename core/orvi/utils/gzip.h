// In-place gzip compression and decompression of a byte string over zlib.
//
// Both return the new length on success and a negative code on failure, in
// which case `data` keeps its input unchanged:
//   compressEx:   -1 empty input, -2 deflate set-up, -3 gzip header,
//                 -4 deflate did not finish
//   decompressEx: -1 empty input, -2 inflate set-up, -3 inflate error or no
//                 progress, -4 input of 4 GiB or more, -5 output past the limit
//                 (2 GiB or more without one)
#pragma once

#include <cstddef>
#include <string>

namespace orvi {
namespace utils {

// One-shot gzip at level 9 with an all-zero header (no name, time 0, OS 0).
int compressEx(std::string& data);

// The largest output decompressEx accepts when the caller names no limit.
constexpr size_t kMaxInflatedBytes = 2147483647;

// Inflates gzip- or zlib-framed data (the framing is detected). Inflating
// stops as soon as the output would pass `max_output` bytes, so a small
// bomb costs at most `max_output` bytes of memory: -5, and `data` is left
// as it was.
int decompressEx(std::string& data, size_t max_output = kMaxInflatedBytes);

}  // namespace utils
}  // namespace orvi
