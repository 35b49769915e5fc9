// A scratch directory under the system's temporary directory, removed with
// everything in it when the object goes.
#pragma once

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace orvi {
namespace test {

class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "orvi-test")
      : path_(std::filesystem::temp_directory_path() /
              (prefix + "-" + std::to_string(std::random_device()()))) {
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path() const { return path_.string(); }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

  void write(const std::string& name, const std::string& bytes) const {
    std::ofstream out(path_ / name, std::ios::binary);
    out << bytes;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace test
}  // namespace orvi
