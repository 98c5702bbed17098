#pragma once

#include "ravelin/error.h"
#include "ravelin/options.h"
#include "ravelin/url.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ravelin {

/// A server's response to a header request.
struct [[gnu::visibility("default")]] Response {
  URL url;        ///< after redirects
  int status = 0; ///< HTTP status
  /// Names and values. Names are as the server sent them; values of repeated fields are joined with
  /// ", ". A "Digest" that came with a redirect is included if the response has none.
  std::vector<std::pair<std::string, std::string>> header_fields;
  std::optional<std::int64_t> content_length; ///< bytes
  bool accepts_ranges = false;                ///< the server supports byte ranges
  /// The file name from "Content-Disposition", without directories, control characters or a leading
  /// dot or dash. None if the server suggests no usable name.
  std::optional<std::string> suggested_name;

  /// The value of a field; null if there is none. The case of `name` does not matter.
  const std::string* field(std::string_view name) const;
};

/// The file name in a link: the last part of its path, decoded and made safe. None if there is no
/// usable name.
[[gnu::visibility("default")]] std::optional<std::string> suggested_name(const URL& link);

/// Requests the header of a link without downloading the content. Retries if `Options::retry` is
/// set.
///
/// Threads: any; the answer is called on the main thread.
/// Ownership: the application's; if it is destroyed while a request is in progress, that goes on.
class [[gnu::visibility("default")]] HeaderRequest {
public:
  /// Options that are not set are taken from the default options of the process.
  explicit HeaderRequest(Options options = {});
  ~HeaderRequest();
  HeaderRequest(const HeaderRequest&) = delete;
  HeaderRequest& operator=(const HeaderRequest&) = delete;

  /// Called with the response or the error, or with neither if the request was cancelled. Must not
  /// throw.
  using Answer = std::function<void(const Response* response, const Error* error)>;
  /// Returns at once; `answer` is called once, later. One request at a time.
  void start(const URL& link, Answer answer);
  /// Cancels the request; its answer is still called.
  void cancel();

private:
  class Impl;
  const std::shared_ptr<Impl> impl_;
};

} // namespace ravelin
