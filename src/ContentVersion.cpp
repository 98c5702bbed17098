#include "src/ContentVersion.h"

#include "bramblekit/collections.h"
#include "platform/network/http_date.h"
#include "src/HeaderValues.h"

namespace ravelin {

using bramblekit::case_insensitive;

ContentVersion ContentVersion::of_whole(const platform::HeaderFields& fields) {
  auto etag = case_insensitive(fields, "ETag");
  if (etag && etag->starts_with("W/"))
    etag.reset();
  auto total = announced_length(fields);
  if (total && *total < 0)
    total.reset();
  return {etag, case_insensitive(fields, "Last-Modified"), total};
}

ContentVersion ContentVersion::of(const platform::URLResponse& response) {
  auto version = of_whole(response.header_fields);
  if (response.status != 206)
    return version;
  const auto range = case_insensitive(response.header_fields, "Content-Range");
  const auto parsed = range ? platform::parse_content_range(*range) : std::nullopt;
  version.total = parsed ? parsed->total : std::nullopt;
  return version;
}

std::optional<std::string> describe_difference(const ContentVersion& first,
                                               const ContentVersion& later) {
  if (first.total && later.total && first.total != later.total)
    return "its length was " + std::to_string(*first.total) + " bytes and is now " +
           std::to_string(*later.total);
  if (first.strong_etag && later.strong_etag) {
    if (first.strong_etag == later.strong_etag)
      return std::nullopt;
    return "its ETag was " + *first.strong_etag + " and is now " + *later.strong_etag;
  }
  if (first.last_modified && later.last_modified && first.last_modified != later.last_modified)
    return "its Last-Modified was " + *first.last_modified + " and is now " + *later.last_modified;
  return std::nullopt;
}

bool is_shown_equal(const ContentVersion& first, const ContentVersion& later) {
  if (describe_difference(first, later))
    return false;
  if (first.strong_etag && later.strong_etag)
    return true;
  if (!first.last_modified || !later.last_modified || !first.total || !later.total)
    return false;
  const auto modified = platform::parse_http_date(*first.last_modified);
  const auto begun = platform::parse_http_date(first.begun);
  return modified && begun && *modified < *begun;
}

} // namespace ravelin
