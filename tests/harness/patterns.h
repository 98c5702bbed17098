#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace test {

// Bytes that look random but depend only on the seed, so that a byte in a wrong place shows.
// A shorter pattern is the beginning of a longer one with the same seed.
inline std::string pattern(std::size_t n, unsigned seed = 1) {
  std::string bytes(n, '\0');
  // The odd constants keep the state away from zero, where xorshift would stay for ever.
  std::uint64_t state = (std::uint64_t{seed} + 1) * 0x9e3779b97f4a7c15u;
  for (std::size_t at = 0; at < n; at += sizeof state) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    const std::uint64_t word = state * 0x2545f4914f6cdd1du;
    std::memcpy(bytes.data() + at, &word, std::min(sizeof word, n - at));
  }
  return bytes;
}

} // namespace test
