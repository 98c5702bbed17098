#include "src/ResponseChecks.h"

#include "bramblekit/collections.h"
#include "bramblekit/errors.h"
#include "platform/network/http_date.h"
#include "src/HeaderValues.h"

namespace ravelin {

using bramblekit::case_insensitive;
using bramblekit::to_error;
using platform::BytesRange;
using platform::URLResponse;
using Refusal = URLLoadingError::Refusal;

namespace {

Error refusal(Refusal kind, const std::string& text, const URLResponse& response,
              bool asked_for_range) {
  URLLoadingError error(URLError::bad_server_response, text);
  error.refusal = kind;
  error.asked_for_range = asked_for_range;
  error.http_status = response.status;
  if (const auto wait = case_insensitive(response.header_fields, "Retry-After"))
    error.retry_after = platform::parse_retry_after(*wait);
  return to_error(std::move(error));
}

/// Why its length does not tell where the content ends. In a chunked response it does not have to.
std::optional<std::string> describe_bad_length(const URLResponse& response) {
  const auto length = case_insensitive(response.header_fields, "Content-Length");
  if (!length || platform::is_chunked(response) ||
      announced_length(response.header_fields).value_or(-1) >= 0)
    return std::nullopt;
  if (length->find(',') != std::string::npos)
    return "the server sent several values of Content-Length: " + *length;
  return "the server sent a Content-Length that is not a number of bytes: '" + *length + "'";
}

/// Why `response` is not exactly the `asked` range; none if it is.
std::optional<std::string> describe_wrong_range(const BytesRange& asked,
                                                const URLResponse& response) {
  const auto request = "the server was asked for bytes " + asked.text();
  if (response.status != 206)
    return request + " and answered with status " + std::to_string(response.status) +
           " instead of 206";
  const auto field = case_insensitive(response.header_fields, "Content-Range");
  const auto got = field ? platform::parse_content_range(*field) : std::nullopt;
  if (!got || got->start != asked.start || got->end != asked.end)
    return request + " and sent " +
           (field ? "'" + *field + "'" : std::string("a part without Content-Range"));
  const auto length = case_insensitive(response.header_fields, "Content-Length");
  if (length && *length != std::to_string(asked.size()))
    return request + " and sent a Content-Length of " + *length;
  return std::nullopt;
}

/// Whether the content was modified after the download started, as a sentence; none if not or if it
/// cannot be known. `started` is a date by the server's clock.
std::optional<std::string> describe_change_since(const std::string& started,
                                                 const std::optional<std::string>& last_modified) {
  const auto start = platform::parse_http_date(started);
  const auto modified = last_modified ? platform::parse_http_date(*last_modified) : std::nullopt;
  if (!start || !modified || *modified <= *start)
    return std::nullopt;
  return "it was modified on " + *last_modified + ", after this download started on " + started;
}

} // namespace

Error changed_content(const std::string& what) {
  URLLoadingError error(URLError::bad_server_response,
                        "the content of the link has changed: " + what);
  error.refusal = Refusal::changed_content;
  return to_error(std::move(error));
}

Error lost_ranges(const std::string& what_it_does) {
  URLLoadingError error(URLError::bad_server_response,
                        "the unfinished file cannot be continued, because the server " +
                            what_it_does);
  error.refusal = Refusal::changed_content;
  return to_error(std::move(error));
}

std::optional<Error> ResponseChecks::refuse_status(const URLResponse& response,
                                                   bool asked_for_range) const {
  const bool has_no_content =
      response.status / 100 != 2 || response.status == 204 || response.status == 205;
  if (reject_http_errors_ && has_no_content)
    return refusal(Refusal::http_status,
                   "the server answered with status " + std::to_string(response.status), response,
                   asked_for_range);
  return std::nullopt;
}

std::optional<Error> ResponseChecks::refuse_header(const URLResponse& response) const {
  if (auto refused = refuse_status(response, false))
    return refused;
  if (!require_exact_ranges_)
    return std::nullopt;
  if (const auto bad = describe_bad_length(response))
    return to_error(URLLoadingError(URLError::bad_server_response, *bad));
  if (response.status == 206)
    return refusal(Refusal::range, "the server was asked for the whole content and sent a part",
                   response, false);
  return std::nullopt;
}

std::optional<Error>
ResponseChecks::refuse_response(const URLResponse& response, const std::optional<BytesRange>& asked,
                                const std::optional<ContentVersion>& expected) const {
  if (auto refused = asked ? refuse_status(response, true) : refuse_header(response))
    return refused;
  if (asked && require_exact_ranges_)
    if (const auto wrong = describe_wrong_range(*asked, response))
      return refusal(Refusal::range, *wrong, response, true);
  if (!expected || (!reject_changed_content_ && !require_exact_ranges_))
    return std::nullopt;
  auto known = *expected;
  if (!reject_changed_content_)
    known = {.strong_etag = {}, .last_modified = {}, .total = known.total};
  const auto current = ContentVersion::of(response);
  auto change = describe_difference(known, current);
  if (!change && asked) // the date tells where the first response had nothing to compare
    change = describe_change_since(known.begun, current.last_modified);
  return change ? std::optional(changed_content(*change)) : std::nullopt;
}

std::optional<std::int64_t>
ResponseChecks::required_length(const std::optional<BytesRange>& asked,
                                const std::optional<ContentVersion>& expected) const {
  if (!require_exact_ranges_)
    return std::nullopt;
  if (asked)
    return asked->size();
  return expected ? expected->total : std::nullopt;
}

std::optional<Error>
ResponseChecks::refuse_excess(std::int64_t received, const std::optional<BytesRange>& asked,
                              const std::optional<ContentVersion>& expected) const {
  const auto required = required_length(asked, expected);
  if (!required || received <= *required)
    return std::nullopt;
  URLLoadingError error(URLError::bad_server_response,
                        "the server sent more than the " + std::to_string(*required) + " bytes " +
                            (asked ? "it was asked for" : "it announced"));
  error.refusal = asked ? Refusal::range : Refusal::none;
  error.asked_for_range = asked.has_value();
  return to_error(std::move(error));
}

std::optional<Error>
ResponseChecks::refuse_length(std::int64_t received, const std::optional<BytesRange>& asked,
                              const std::optional<ContentVersion>& expected) const {
  if (auto excess = refuse_excess(received, asked, expected))
    return excess;
  const auto required = required_length(asked, expected);
  if (!required || received == *required)
    return std::nullopt;
  return to_error(URLLoadingError(URLError::network_connection_lost,
                                  "the server stopped after " + std::to_string(received) + " of " +
                                      std::to_string(*required) + " bytes"));
}

std::optional<Error> ResponseChecks::refuse_continuing(const ContentVersion& known,
                                                       const ContentVersion& current) const {
  if (!reject_changed_content_)
    return std::nullopt;
  auto change = describe_change_since(known.begun, current.last_modified);
  if (!change)
    change = describe_difference(known, current);
  return change ? std::optional(changed_content(*change)) : std::nullopt;
}

std::optional<Error> ResponseChecks::refuse_other_etag(const URLResponse& response,
                                                       const std::string& required) {
  const auto etag = ContentVersion::of(response).strong_etag;
  if (response.status / 100 != 2 || etag == required)
    return std::nullopt;
  return changed_content("its ETag was " + required + " and is now " + etag.value_or("missing"));
}

} // namespace ravelin
