// The deflate step shared by the one-shot gzip (compressEx) and the sync
// channel's encoder, which keeps its stream from record to record.
#pragma once

#include <zlib.h>

#include <string>

namespace orvi {
namespace utils {

// Runs `stream` (set up for gzip, its header set) over all of `data` in one
// call. On success `data` holds the gzip bytes, the ratio is logged and the
// new length returned; when deflate does not finish, -4 and `data` is left
// as it was. The caller ends or resets the stream.
int deflateWhole(z_stream& stream, std::string& data);

}  // namespace utils
}  // namespace orvi
