#pragma once

#include "platform/network/http_response.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ravelin {

/// Identifies one version of a link's content.
struct ContentVersion {
  std::optional<std::string> strong_etag;
  std::optional<std::string> last_modified;
  std::optional<std::int64_t> total; // length of the whole content in bytes
  std::string begun{};               // the server's date when the download started; may be empty

  /// From the header of a response with the whole content.
  static ContentVersion of_whole(const platform::HeaderFields& fields);
  /// From any response: that of a range has the total in "Content-Range".
  static ContentVersion of(const platform::URLResponse& response);
};

/// Whether equal validators show that two links have the same content. An equal date does not, if
/// the content may have been modified again within that second.
bool is_shown_equal(const ContentVersion& first, const ContentVersion& later);

/// What differs, as a sentence; none if everything known of both is equal. If both have a strong
/// ETag, the dates are ignored: they are too coarse for changes within a second.
std::optional<std::string> describe_difference(const ContentVersion& first,
                                               const ContentVersion& later);

} // namespace ravelin
