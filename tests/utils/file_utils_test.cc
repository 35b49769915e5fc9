#include "orvi/utils/file_utils.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "support/recording_log_handler.h"

namespace orvi {
namespace {

namespace fs = std::filesystem;

class FileUtilsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("orvi-files-" + std::to_string(std::random_device()()));
  }
  void TearDown() override { fs::remove_all(root_); }

  std::string at(const std::string& relative) const { return (root_ / relative).string(); }

  fs::path root_;
  test::ScopedLogCapture log_;
};

TEST_F(FileUtilsTest, MkdirCreatesParentsAndAcceptsExistingDirectories) {
  const std::string nested = at("a/b/c");
  EXPECT_TRUE(file_utils::mkdir(nested));
  EXPECT_TRUE(fs::is_directory(nested));
  EXPECT_TRUE(file_utils::mkdir(nested));
  EXPECT_EQ(log_->count("create dir success, path: " + nested), 2u);
}

TEST_F(FileUtilsTest, MkdirBelowARegularFileFails) {
  ASSERT_TRUE(file_utils::mkdir(at("")));
  std::ofstream(at("plain")) << "x";
  EXPECT_FALSE(file_utils::mkdir(at("plain/sub")));
  EXPECT_EQ(log_->countContaining("create dir failed, path: " + at("plain/sub") + ", error: "), 1u);
}

TEST_F(FileUtilsTest, ReadReturnsExactBytesAndRefusesMissingFilesAndDirectories) {
  ASSERT_TRUE(file_utils::mkdir(at("")));
  const std::string bytes("line\r\n\0\xff tail", 13);
  {
    std::ofstream out(at("data.bin"), std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  std::string content;
  ASSERT_TRUE(file_utils::read(at("data.bin"), content));
  EXPECT_EQ(content, bytes);

  std::ofstream(at("empty")).close();
  ASSERT_TRUE(file_utils::read(at("empty"), content));
  EXPECT_TRUE(content.empty());

  EXPECT_FALSE(file_utils::read(at("missing"), content));
  EXPECT_TRUE(log_->has("read file failed, path: " + at("missing")));
  EXPECT_FALSE(file_utils::read(at(""), content));
}

TEST_F(FileUtilsTest, RemoveDirRemovesTreesAndToleratesMissingOnes) {
  ASSERT_TRUE(file_utils::mkdir(at("x/y")));
  std::ofstream(at("x/y/file")) << "content";
  EXPECT_TRUE(file_utils::removeDir(at("x")));
  EXPECT_FALSE(fs::exists(at("x")));
  EXPECT_TRUE(log_->has("remove dir, path: " + at("x")));
  EXPECT_TRUE(file_utils::removeDir(at("never-existed")));
}

}  // namespace
}  // namespace orvi
