#pragma once

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace test {

// A number from the command line.
inline long number_option(int argc, char** argv, std::string_view name, long otherwise) {
  for (int i = 1; i + 1 < argc; ++i)
    if (argv[i] == name)
      return std::atol(argv[i + 1]);
  return otherwise;
}

// The value below which that share of them lies; `values` must not be empty.
inline double quantile(std::vector<double> values, double share) {
  std::ranges::sort(values);
  return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1) + 0.5)];
}

} // namespace test
