#include "orvi/utils/gzip.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <random>
#include <string>

#include "orvi/utils/file_utils.h"
#include "support/recording_log_handler.h"
#include "support/temp_dir.h"

namespace orvi {
namespace utils {
namespace {

std::string randomBytes(size_t size, uint32_t seed) {
  std::mt19937 engine(seed);
  std::string out(size, '\0');
  for (auto& c : out) c = static_cast<char>(engine() & 0xff);
  return out;
}

TEST(GzipTest, RoundTripsBehindAFixedLevelNineHeader) {
  const std::string inputs[] = {
      "a",
      std::string("\0\x01\xff\0", 4),
      std::string(200000, 'z'),  // inflates over several 32 KiB chunks
      randomBytes(100000, 7),    // incompressible: output grows
      "multi-byte: \xe4\xbd\xa0\xe5\xa5\xbd \xf0\x9f\x98\x80",
  };
  for (const auto& input : inputs) {
    std::string data = input;
    const int compressed = compressEx(data);
    ASSERT_GT(compressed, 0);
    EXPECT_EQ(static_cast<size_t>(compressed), data.size());
    // No name, time 0, maximum compression, OS 0.
    EXPECT_EQ(data.substr(0, 10), std::string("\x1f\x8b\x08\0\0\0\0\0\x02\0", 10));
    const int restored = decompressEx(data);
    ASSERT_EQ(restored, static_cast<int>(input.size()));
    EXPECT_EQ(data, input);
  }
}

TEST(GzipTest, DecompressesZlibFramingToo) {
  const std::string input(5000, 'q');
  uLongf size = compressBound(static_cast<uLong>(input.size()));
  std::string data(size, '\0');
  ASSERT_EQ(compress(reinterpret_cast<Bytef*>(&data[0]), &size,
                     reinterpret_cast<const Bytef*>(input.data()), input.size()),
            Z_OK);
  data.resize(size);
  EXPECT_EQ(decompressEx(data), 5000);
  EXPECT_EQ(data, input);
}

TEST(GzipTest, FailuresReturnCodesAndLeaveInputAlone) {
  test::ScopedLogCapture capture;
  std::string empty;
  EXPECT_EQ(compressEx(empty), -1);
  EXPECT_EQ(decompressEx(empty), -1);
  EXPECT_TRUE(empty.empty());
  EXPECT_TRUE(capture->lines().empty());

  std::string garbage = "this is not compressed at all";
  EXPECT_EQ(decompressEx(garbage), -3);
  EXPECT_EQ(garbage, "this is not compressed at all");
  EXPECT_EQ(capture->countContaining("inflate failed, ret: "), 1u);

  // A stream cut short runs out of input without reaching its end.
  std::string truncated(20000, 'k');
  ASSERT_GT(compressEx(truncated), 0);
  truncated.resize(truncated.size() / 2);
  const std::string before = truncated;
  EXPECT_EQ(decompressEx(truncated), -3);
  EXPECT_EQ(truncated, before);
}

// A small stream that inflates far past the limit is stopped as soon as the
// output passes it: the size reported is within one 32 KiB step of the
// limit, never the whole inflated size, and the input is left as it was.
TEST(GzipTest, InflatingStopsAtTheLimit) {
  test::ScopedLogCapture capture;
  const struct {
    size_t content;  // bytes of 'z' compressed
    size_t limit;
    int expected;
  } cases[] = {
      {100000, 100000, 100000},  // exactly the limit is accepted
      {100000, 99999, -5},       {100000, 0, -5}, {1, 1, 1},
      {64u << 20, 1u << 20, -5},  // 64 MiB from about 64 KiB
  };
  for (const auto& c : cases) {
    std::string packed(c.content, 'z');
    ASSERT_GT(compressEx(packed), 0);
    std::string data = packed;
    capture->clear();
    EXPECT_EQ(decompressEx(data, c.limit), c.expected) << c.content << " " << c.limit;
    if (c.expected < 0) {
      EXPECT_EQ(data, packed);
      const auto lines = capture->lines();
      ASSERT_EQ(lines.size(), 1u);
      const std::string prefix = "inflate failed: output too large: ";
      const std::string message = test::RecordingLogHandler::messageOf(lines[0]);
      ASSERT_EQ(message.compare(0, prefix.size(), prefix), 0) << message;
      const size_t reported = std::stoul(message.substr(prefix.size()));
      EXPECT_GT(reported, c.limit);
      EXPECT_LE(reported, c.limit + 32768);
    } else {
      EXPECT_EQ(data, std::string(c.content, 'z'));
    }
  }
}

TEST(GzipTest, InteroperatesWithSystemGzip) {
  test::TempDir dir("orvi-gzip");
  const std::string input = randomBytes(3000, 11) + std::string(50000, 'r');
  std::string ours = input;
  ASSERT_GT(compressEx(ours), 0);
  dir.write("ours.gz", ours);
  const std::string to_plain =
      "gzip -dc '" + dir.file("ours.gz") + "' > '" + dir.file("ours") + "'";
  ASSERT_EQ(std::system(to_plain.c_str()), 0);
  std::string plain;
  ASSERT_TRUE(file_utils::read(dir.file("ours"), plain));
  EXPECT_EQ(plain, input);

  dir.write("theirs", input);
  const std::string to_gzip =
      "gzip -9 -c '" + dir.file("theirs") + "' > '" + dir.file("theirs.gz") + "'";
  ASSERT_EQ(std::system(to_gzip.c_str()), 0);
  std::string theirs;
  ASSERT_TRUE(file_utils::read(dir.file("theirs.gz"), theirs));
  ASSERT_EQ(decompressEx(theirs), static_cast<int>(input.size()));
  EXPECT_EQ(theirs, input);
}

}  // namespace
}  // namespace utils
}  // namespace orvi
