#pragma once

#include "platform/network/http_response.h"
#include "ravelin/error.h"

#include <string>

namespace ravelin::platform {

/// A link parsed by libcurl.
///
/// Errors: throws `URLLoadingError` (`bad_url` or `unsupported_url`) for a link that cannot be
/// requested.
class WebLink {
public:
  /// Whether "file:" links are accepted besides http and https.
  enum class Files { refused, accepted };
  static WebLink parse(const std::string& link, Files files);
  /// Resolves the "Location" of a redirect. Credentials are kept for the same origin only.
  WebLink follow(const std::string& location) const;

  const std::string& text() const { return text_; }
  const std::string& host() const { return host_; }
  bool is_file() const { return scheme_ == "file"; }
  bool is_secure() const { return scheme_ == "https"; }
  /// The same scheme, host and port.
  bool has_same_origin_as(const WebLink& other) const {
    return scheme_ == other.scheme_ && equal_ignoring_case(host_, other.host_) &&
           port_ == other.port_;
  }

private:
  std::string text_;
  std::string scheme_;
  std::string host_;
  std::string port_;
  std::string user_;
  std::string password_;
};

} // namespace ravelin::platform
