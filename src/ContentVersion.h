#pragma once

#include "platform/network/http_response.h"
#include "ravelin/error.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ravelin {

/// What tells one version of a link's content from another.
struct ContentVersion {
  std::optional<std::string> strong_etag;
  std::optional<std::string> last_modified;
  std::optional<std::int64_t> total; // bytes of the whole content

  /// Of the answer to a request for the whole.
  static ContentVersion of_whole(const platform::HeaderFields& fields);
  /// Of any answer: a part says the total in its "Content-Range".
  static ContentVersion of(const platform::URLResponse& response);
};

/// What differs, in words; nothing where all that both sides tell is the same. A strong ETag
/// decides alone, since a modification date is too coarse for changes within a second.
std::optional<std::string> difference(const ContentVersion& first, const ContentVersion& later);

/// Why content that the server modified at `last_modified` is not what was begun when the server's
/// clock said `begun`; nothing where the dates do not tell or agree.
std::optional<std::string> change_since(const std::string& begun,
                                        const std::optional<std::string>& last_modified);

Error changed_content_error(const std::string& what);

} // namespace ravelin
