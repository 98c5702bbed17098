#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ravelin {

/// What every download of the process uses. Each field is off, or the environment's choice, unless
/// set.
struct [[gnu::visibility("default")]] Defaults {
  /// "http://host:port", "socks5://…"; empty for none at all. Unset: the environment's variables.
  std::optional<std::string> proxy;
  /// A file of PEM certificates to trust instead of the system's.
  std::optional<std::string> ca_bundle;
  /// Header fields to send with every request: name and value.
  std::vector<std::pair<std::string, std::string>> headers;
  /// Unset: the library's own.
  std::optional<std::string> user_agent;
  /// Bytes per second for all downloads of the process together; above 0. A new value holds for all
  /// that have a limit as soon as another request begins; who began without one keeps none.
  std::optional<std::int64_t> rate_limit;
  /// How long a server may be silent. Unset: each request's own, 60 seconds. Above 0.
  std::optional<std::chrono::milliseconds> idle_timeout;

  /// A final status that brings no content, such as 404, 204 or a redirect to nowhere, is an error
  /// and its body not a file.
  bool reject_http_errors = false;
  /// A request for a range must be answered with exactly that range, of the same total, and one for
  /// the whole with the whole.
  bool require_exact_ranges = false;
  /// All answers of one download must be of the same version of the content, and a download that
  /// continues must find it unchanged since its record was made.
  bool reject_changed_content = false;
};

/// The values in use. Any thread.
[[gnu::visibility("default")]] Defaults defaults();
/// Any thread; requests that are under way keep what they began with. Before the first download
/// is the time for it.
[[gnu::visibility("default")]] void set_defaults(Defaults values);

} // namespace ravelin
