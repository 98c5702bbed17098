#pragma once

#include "ravelin/status.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ravelin {

/// How a download retries after errors that may be temporary.
struct Retry {
  /// Maximum retries after a lost connection, a timeout or, with `reject_http_errors`, a busy
  /// server (408, 429 and 5xx); once bytes have arrived, also after other errors that may pass,
  /// such as a host that is not found. The count is reset on progress. 0 turns retries off.
  int max_attempts = 0;
  /// Once bytes have arrived, how long to keep retrying beyond `max_attempts` while the server is
  /// silent or unreachable, or there is no network. Retries at once when a network comes up.
  std::chrono::milliseconds patience{0};
  /// How often a range is requested again without ending the run, if its connection is lost while
  /// the download makes progress, or is below a quarter of the median speed for ten seconds.
  int max_range_restarts = 2;
};

/// Why and when a run is retried.
struct RetryNotice {
  CustomError error;              ///< of the attempt that failed
  std::chrono::milliseconds wait; ///< until the next one; ends early when a network comes up
  std::string text;               ///< such as "retrying in 1.5 s (2 of 5)"
};

/// Options of a download. An option that is not set is taken from the default options of the
/// process. If it is not set there either, it has the value named in its comment.
///
/// A run copies the options when it starts; later changes do not affect it.
struct [[gnu::visibility("default")]] Options {
  /// "http://host:port" or "socks5://host:port"; empty for no proxy. Unset: the proxy environment
  /// variables, such as `https_proxy`.
  std::optional<std::string> proxy;
  /// A file of PEM certificates to trust instead of the system's.
  std::optional<std::string> ca_bundle;
  /// Names and values of header fields to send with every request. Redirects take them along only
  /// within the origin of the link.
  std::vector<std::pair<std::string, std::string>> headers;
  /// Unset: the library's name and version.
  std::optional<std::string> user_agent;
  /// Maximum bytes per second, above 0. In the options of an operation it limits that download; in
  /// the default options, all downloads together. Both may be set.
  std::optional<std::int64_t> rate_limit;
  /// How long to wait for a server that sends nothing, above 0, at most a day. Unset: 60 seconds.
  /// A header that is not complete after ten times as long is a timeout as well.
  std::optional<std::chrono::milliseconds> idle_timeout;

  // Safeguards. Unset: off. `careful()` turns all of them on.

  /// A final status without content, such as 404, 204 or a redirect without a target, is an error,
  /// and its body is not saved as the file.
  std::optional<bool> reject_http_errors;
  /// The response to a range request must have exactly that range, and the response to any other
  /// request the whole content.
  std::optional<bool> require_exact_ranges;
  /// All responses of a download must have the same version of the content, and a download is
  /// resumed only if the content has not changed. If neither ETag nor date shows that, the last
  /// 64 KiB of each part that an earlier run has received are requested and compared.
  std::optional<bool> reject_changed_content;

  /// A redirect from https to http is not followed.
  std::optional<bool> refuse_tls_downgrade;
  /// Content of zero bytes makes an empty file; otherwise it is an error if the server sends its
  /// length.
  std::optional<bool> accept_empty_content;
  /// A failed write, for example on a full disk, ends the run with an error, and what was saved
  /// before can be resumed. Otherwise it terminates the process.
  std::optional<bool> report_write_errors;
  /// The destination is locked for one process and one download, and a download only continues or
  /// accepts files that came from its own link:
  /// - a second process, or a download whose resume record has the same name, is refused;
  /// - an unfinished file without a record, or shorter than its record says, is downloaded again;
  /// - a file from another link is refused, unless it is unfinished and the new link has the same
  ///   strong ETag or, where one of them has none, the same Last-Modified and length. If only the
  ///   query differs and neither is known, the last 64 KiB of each part are compared, and any
  ///   difference counts as changed content;
  /// - a complete file that is not known to be from exactly this link is accepted only if it has
  ///   the length of the content;
  /// - in a directory that other users may write to, a file or record that is a symbolic link or
  ///   belongs to another user is refused;
  /// - with `OnConflict::replace` the old file is deleted once the server has answered.
  std::optional<bool> check_destination;
  /// With `check_destination`, an unfinished file from another link, or one whose link is not
  /// known, is continued if the last 64 KiB of each part that has arrived are the same at the new
  /// link, whatever its ETag. They are requested first. Unset: off, also in `careful()`.
  std::optional<bool> compare_new_link;

  /// Unset: nothing is retried.
  std::optional<Retry> retry;
  /// Maximum connections of one download, 1 to 5; other values mean the nearest of these. Unset: 5.
  std::optional<int> max_connections;
  /// Content of fewer bytes is not split; a short download costs more round trips than it saves
  /// time, and is soon repeated. Unset: all content is split if the server supports ranges.
  std::optional<std::int64_t> min_split_size;
  /// Content that is not split is taken from the response that told its length, instead of being
  /// requested again. One request less, and links that work only once can be downloaded. If nothing
  /// has arrived yet, split content is taken from it as well if it is at most 8 MiB, or if the
  /// server takes 50 ms or more to answer, up to the first part of which the server has accepted a
  /// request; the parts are requested only if that response is not about to end. Unset: off.
  std::optional<bool> reuse_header_response;

  /// Called on the main thread before a run waits to retry. It may cancel the operation, and must
  /// not throw.
  std::function<void(const RetryNotice& notice)> on_retry;
  /// Called on the main thread with lines for a log, such as why a part is requested again. Must
  /// not throw.
  std::function<void(const std::string& line)> log;

  /// Options with all safeguards on and nothing else set.
  static Options careful();
  /// These options, with unset ones taken from `defaults`. The header fields of both are
  /// sent; if a name is in both, only those of these options. The rate limit is not taken over.
  Options completed_from(const Options& defaults) const;
};

/// The default options of the process. Any thread.
[[gnu::visibility("default")]] Options default_options();
/// Replaces them, for runs that start later. Any thread.
[[gnu::visibility("default")]] void set_default_options(Options options);

} // namespace ravelin
