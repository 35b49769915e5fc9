#include "orvi/utils/gzip.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "orvi/utils/base64.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace utils {
namespace {

std::string randomBytes(size_t size, uint32_t seed) {
  std::mt19937 engine(seed);
  std::string out(size, '\0');
  for (auto& c : out) c = static_cast<char>(engine() & 0xff);
  return out;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

class TempDir {
 public:
  TempDir() {
    path_ = std::filesystem::temp_directory_path() /
            ("orvi-gzip-" + std::to_string(std::random_device()()));
    std::filesystem::create_directories(path_);
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

TEST(GzipTest, HeaderIsFixedGzipFramingAtLevelNine) {
  std::string data = "hello hello hello";
  ASSERT_GT(compressEx(data), 0);
  ASSERT_GE(data.size(), 10u);
  const unsigned char expected[10] = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 2, 0};
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(static_cast<unsigned char>(data[i]), expected[i]) << "header byte " << i;
  }
}

TEST(GzipTest, RoundTripsTextBinaryAndMultiChunkOutput) {
  const std::string inputs[] = {
      "a",
      std::string("\0\x01\xff\0", 4),
      std::string(200000, 'z'),   // inflates over several 32 KiB chunks
      randomBytes(100000, 7),     // incompressible: output grows
      "multi-byte: \xe4\xbd\xa0\xe5\xa5\xbd \xf0\x9f\x98\x80",
  };
  for (const auto& input : inputs) {
    std::string data = input;
    const int compressed = compressEx(data);
    ASSERT_GT(compressed, 0);
    EXPECT_EQ(static_cast<size_t>(compressed), data.size());
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

TEST(GzipTest, InteroperatesWithSystemGzip) {
  TempDir dir;
  const std::string input = randomBytes(3000, 11) + std::string(50000, 'r');

  std::string ours = input;
  ASSERT_GT(compressEx(ours), 0);
  writeFile(dir.path() / "ours.gz", ours);
  const std::string to_plain = "gzip -dc '" + (dir.path() / "ours.gz").string() + "' > '" +
                               (dir.path() / "ours.out").string() + "'";
  ASSERT_EQ(std::system(to_plain.c_str()), 0);
  EXPECT_EQ(readFile(dir.path() / "ours.out"), input);

  writeFile(dir.path() / "theirs", input);
  const std::string to_gzip = "gzip -9 -c '" + (dir.path() / "theirs").string() + "' > '" +
                              (dir.path() / "theirs.gz").string() + "'";
  ASSERT_EQ(std::system(to_gzip.c_str()), 0);
  std::string theirs = readFile(dir.path() / "theirs.gz");
  ASSERT_EQ(decompressEx(theirs), static_cast<int>(input.size()));
  EXPECT_EQ(theirs, input);
}

TEST(GzipTest, CompressedBase64TextSurvivesTheWireForm) {
  const std::string input = R"({"message_id":"m1","json_patch":"[]"})";
  std::string data = input;
  ASSERT_GT(compressEx(data), 0);
  std::string decoded = base64Decode(base64Encode(data));
  ASSERT_GT(decompressEx(decoded), 0);
  EXPECT_EQ(decoded, input);
}

}  // namespace
}  // namespace utils
}  // namespace orvi
