#pragma once

#include "platform/network/url_session.h"
#include "ravelin/error.h"
#include "ravelin/options.h"
#include "src/ContentVersion.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ravelin {

/// Decides whether a response is accepted as the content of a download. Without options everything
/// is accepted.
///
/// Threads: a plain value. Errors: returned, not thrown.
class ResponseChecks {
public:
  ResponseChecks() = default;
  explicit ResponseChecks(const Options& options)
      : reject_http_errors_(options.reject_http_errors.value_or(false)),
        require_exact_ranges_(options.require_exact_ranges.value_or(false)),
        reject_changed_content_(options.reject_changed_content.value_or(false)) {}

  bool reject_changed_content() const { return reject_changed_content_; }

  /// The response to the header request.
  std::optional<Error> refuse_header(const platform::URLResponse& response) const;
  /// The response to a request for the range `asked`, or for the whole content, of `expected`.
  std::optional<Error> refuse_response(const platform::URLResponse& response,
                                       const std::optional<platform::BytesRange>& asked,
                                       const std::optional<ContentVersion>& expected) const;
  /// A body of which `received` bytes have arrived so far.
  std::optional<Error> refuse_excess(std::int64_t received,
                                     const std::optional<platform::BytesRange>& asked,
                                     const std::optional<ContentVersion>& expected) const;
  /// A body that ended without an error after `received` bytes.
  std::optional<Error> refuse_length(std::int64_t received,
                                     const std::optional<platform::BytesRange>& asked,
                                     const std::optional<ContentVersion>& expected) const;
  /// Resuming a download of what was `known` when it was started.
  std::optional<Error> refuse_continuing(const ContentVersion& known,
                                         const ContentVersion& current) const;
  /// The response to a request for the rest of content with the strong ETag `required`.
  static std::optional<Error> refuse_other_etag(const platform::URLResponse& response,
                                                const std::string& required);

private:
  std::optional<Error> refuse_status(const platform::URLResponse& response,
                                     bool asked_for_range) const;
  /// How many bytes the body must have; none if not known or not checked.
  std::optional<std::int64_t> required_length(const std::optional<platform::BytesRange>& asked,
                                              const std::optional<ContentVersion>& expected) const;

  bool reject_http_errors_ = false;
  bool require_exact_ranges_ = false;
  bool reject_changed_content_ = false;
};

/// The error for content that is no longer that of the download.
Error changed_content(const std::string& what);
/// The error for an unfinished file that the server does not let continue.
Error lost_ranges(const std::string& what_it_does);

} // namespace ravelin
