// The one generator of every id the library makes: local conversation ids,
// local section ids and local message ids.
#pragma once

#include <string>

namespace orvi {

// A version-4 UUID text ("xxxxxxxx-xxxx-4xxx-[89ab]xxx-xxxxxxxxxxxx") drawn
// from a per-thread 64-bit Mersenne Twister seeded once from the system's
// random device. Safe to call from any thread.
std::string generateUniqueId();

}  // namespace orvi
