#include "bramblekit/file_naming.h"

#include <algorithm>
#include <filesystem>
#include <string>

namespace ravelin::bramblekit {

namespace fs = std::filesystem;

std::optional<URL> generate_non_conflicting_file_url(const URL& from,
                                                     const std::vector<URL>& not_allowed_urls) {
  constexpr int max_attempts = 10'000;
  const auto path = from.path();
  const auto base = path.stem().native();
  const auto extension = path.extension().native();
  for (int number = 1; number <= max_attempts; ++number) {
    const auto name = base + " (" + std::to_string(number) + ")" + extension;
    auto candidate = URL::file(path.parent_path() / name);
    std::error_code ignored; // dangling links and unreadable names count as taken
    const auto type = fs::symlink_status(candidate.path(), ignored).type();
    const bool taken = type != fs::file_type::not_found ||
                       std::ranges::find(not_allowed_urls, candidate) != not_allowed_urls.end();
    if (!taken)
      return candidate;
  }
  return std::nullopt;
}

} // namespace ravelin::bramblekit
