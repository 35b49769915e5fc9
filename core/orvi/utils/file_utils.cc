#include "orvi/utils/file_utils.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "orvi/utils/logger.h"

namespace fs = std::filesystem;

namespace orvi {
namespace file_utils {

bool mkdir(const std::string& path) {
  std::error_code ec;
  fs::create_directories(fs::u8path(path), ec);
  if (ec) {
    ORVI_LOGE("create dir failed, path: %s, error: %s", path.c_str(), ec.message().c_str());
    return false;
  }
  ORVI_LOGI("create dir success, path: %s", path.c_str());
  return true;
}

bool read(const std::string& path, std::string& out) {
  const fs::path native = fs::u8path(path);
  std::error_code ec;
  std::ifstream file;
  // A directory opens as a stream on some platforms and then reads as empty.
  if (!fs::is_directory(native, ec)) file.open(native, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    ORVI_LOGE("read file failed, path: %s", path.c_str());
    return false;
  }
  out.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  file.close();
  if (file.fail()) {
    ORVI_LOGE("read file succ but close failed, path: %s", path.c_str());
    return false;
  }
  return true;
}

bool removeDir(const std::string& path) {
  ORVI_LOGI("remove dir, path: %s", path.c_str());
  std::error_code ec;
  const auto removed = fs::remove_all(fs::u8path(path), ec);
  if (ec) {
    ORVI_LOGE("remove dir failed, path: %s, ret: %d, error: %s", path.c_str(),
              static_cast<int>(removed), ec.message().c_str());
    return false;
  }
  return true;
}

}  // namespace file_utils
}  // namespace orvi
