// In-place gzip compression and decompression of a byte string over zlib.
//
// Both return the new length on success and a negative code on failure, in
// which case `data` keeps its input unchanged:
//   compressEx:   -1 empty input, -2 deflate set-up, -3 gzip header,
//                 -4 deflate did not finish
//   decompressEx: -1 empty input, -2 inflate set-up, -3 inflate error or no
//                 progress, -4 input of 4 GiB or more, -5 output of 2 GiB or more
#pragma once

#include <string>

namespace orvi {
namespace utils {

// One-shot gzip at level 9 with an all-zero header (no name, time 0, OS 0).
int compressEx(std::string& data);

// Inflates gzip- or zlib-framed data (the framing is detected).
int decompressEx(std::string& data);

}  // namespace utils
}  // namespace orvi
