// Runs a fuzz target over every file of the given corpus directories, for
// builds without libFuzzer (the regression test of the normal build).
// Files whose name starts with "pending-" reproduce faults that are not
// fixed yet; they are kept beside the corpus but not replayed.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  size_t replayed = 0;
  size_t pending = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      if (entry.path().filename().string().rfind("pending-", 0) == 0) {
        ++pending;
        continue;
      }
      // Named before it runs: a failing input is the last name printed.
      std::printf("%s\n", entry.path().filename().string().c_str());
      std::fflush(stdout);
      std::ifstream in(entry.path(), std::ios::binary);
      const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++replayed;
    }
  }
  std::printf("replayed %zu inputs (%zu pending reproducers skipped)\n", replayed, pending);
  return replayed > 0 ? 0 : 1;
}
