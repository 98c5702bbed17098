#include "support/file_naming.h"

#include "platform/file_manager.h"

#include <algorithm>
#include <string>

namespace bramblekit {

std::optional<URL> generate_non_conflicting_file_url(const URL& from,
                                                     const std::vector<URL>& not_allowed_urls) {
  constexpr int most_attempts = 10'000;
  const auto path = from.path();
  const auto base = path.stem().native();
  const auto extension = path.extension().native();
  for (int number = 1; number <= most_attempts; ++number) {
    const auto name = base + " (" + std::to_string(number) + ")" + extension;
    auto candidate = URL::file(path.parent_path() / name);
    const bool taken = platform::FileManager::default_manager().file_exists(candidate) ||
                       std::ranges::find(not_allowed_urls, candidate) != not_allowed_urls.end();
    if (!taken)
      return candidate;
  }
  return std::nullopt;
}

} // namespace bramblekit
