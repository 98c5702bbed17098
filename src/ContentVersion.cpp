#include "src/ContentVersion.h"

#include "bramblekit/collections.h"
#include "bramblekit/errors.h"
#include "platform/network/http_date.h"
#include "src/HeaderValues.h"

namespace ravelin {

using bramblekit::case_insensitive;

ContentVersion ContentVersion::of_whole(const platform::HeaderFields& fields) {
  auto etag = case_insensitive(fields, "ETag");
  if (etag && etag->starts_with("W/"))
    etag.reset();
  return {etag, case_insensitive(fields, "Last-Modified"), announced_length(fields)};
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

std::optional<std::string> difference(const ContentVersion& first, const ContentVersion& later) {
  if (first.total && later.total && first.total != later.total)
    return "its length was " + std::to_string(*first.total) + " bytes and is now " +
           std::to_string(*later.total);
  if (first.strong_etag && later.strong_etag) {
    if (first.strong_etag == later.strong_etag)
      return std::nullopt;
    return "its ETag was " + *first.strong_etag + " and is now " + *later.strong_etag;
  }
  if (first.last_modified && later.last_modified && first.last_modified != later.last_modified)
    return "it was modified on " + *first.last_modified + " and now on " + *later.last_modified;
  return std::nullopt;
}

std::optional<std::string> change_since(const std::string& begun,
                                        const std::optional<std::string>& last_modified) {
  const auto then = platform::parse_http_date(begun);
  const auto modified = last_modified ? platform::parse_http_date(*last_modified) : std::nullopt;
  if (!then || !modified || *modified <= *then)
    return std::nullopt;
  return "it was modified on " + *last_modified + ", after this download began on " + begun;
}

Error changed_content_error(const std::string& what) {
  URLLoadingError error(URLError::bad_server_response,
                        "the content of the link has changed: " + what +
                            "; what was downloaded before does not fit it");
  error.refusal = URLLoadingError::Refusal::changed_content;
  return bramblekit::to_error(std::move(error));
}

} // namespace ravelin
