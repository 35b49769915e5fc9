#include "orvi/utils/unique_id.h"

#include <cinttypes>
#include <cstdio>
#include <random>

namespace orvi {

std::string generateUniqueId() {
  thread_local std::mt19937_64 engine = [] {
    std::random_device device;
    const uint64_t seed = (static_cast<uint64_t>(device()) << 32) | device();
    return std::mt19937_64(seed);
  }();
  std::uniform_int_distribution<uint64_t> draw;
  const uint64_t a = draw(engine);
  const uint64_t b = draw(engine);

  char text[37];
  std::snprintf(text, sizeof text, "%08" PRIx64 "-%04" PRIx64 "-%04" PRIx64 "-%04" PRIx64
                "-%012" PRIx64,
                a >> 32, (a >> 16) & 0xffff, (a & 0xfff) | 0x4000,
                ((b >> 48) & 0x3fff) | 0x8000, b & uint64_t{0xffffffffffff});
  return text;
}

}  // namespace orvi
