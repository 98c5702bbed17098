#pragma once

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace test {

// Bytes that look random but depend only on the seed, so that a byte in a wrong place shows.
// A shorter pattern is the beginning of a longer one with the same seed.
inline std::string pattern(std::size_t n, unsigned seed = 1) {
  std::string bytes(n, '\0');
  std::mt19937_64 random(seed);
  for (std::size_t at = 0; at < n; at += 8) {
    const auto word = random();
    std::memcpy(bytes.data() + at, &word, std::min<std::size_t>(8, n - at));
  }
  return bytes;
}

// Each case is "given -> expected".
template <class Function> void expect(Function&& function, const std::vector<std::string>& cases) {
  for (const auto& text : cases)
    EXPECT_EQ(function(text.substr(0, text.find(" -> "))), text.substr(text.find(" -> ") + 4));
}

} // namespace test
