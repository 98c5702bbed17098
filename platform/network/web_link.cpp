#include "platform/network/web_link.h"

#include "ravelin/text.h"

#include <curl/curl.h>
#include <memory>

namespace ravelin::platform {
namespace {

using Parsed = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

std::string get_part(const Parsed& parsed, CURLUPart which, unsigned flags = 0) {
  char* text = nullptr;
  curl_url_get(parsed.get(), which, &text, flags);
  const std::unique_ptr<char, decltype(&curl_free)> owned(text, curl_free);
  return text ? text : "";
}

void set(const Parsed& parsed, CURLUPart which, const std::string& text, unsigned flags = 0) {
  const auto result_code = curl_url_set(parsed.get(), which, text.c_str(), flags);
  if (result_code == CURLUE_OK)
    return;
  const bool scheme = result_code == CURLUE_UNSUPPORTED_SCHEME;
  throw URLLoadingError(scheme ? URLError::unsupported_url : URLError::bad_url,
                        "'" + without_password(text) + "': " + curl_url_strerror(result_code));
}

} // namespace

WebLink WebLink::parse(const std::string& link, Files files) {
  const Parsed parsed(curl_url(), curl_url_cleanup);
  set(parsed, CURLUPART_URL, link);
  WebLink result;
  result.text_ = link;
  result.scheme_ = get_part(parsed, CURLUPART_SCHEME);
  result.host_ = get_part(parsed, CURLUPART_HOST);
  result.port_ = get_part(parsed, CURLUPART_PORT, CURLU_DEFAULT_PORT);
  result.user_ = get_part(parsed, CURLUPART_USER);
  result.password_ = get_part(parsed, CURLUPART_PASSWORD);
  const bool is_web = result.scheme_ == "http" || result.scheme_ == "https";
  if (!is_web && !(result.is_file() && files == Files::accepted))
    throw URLLoadingError(URLError::unsupported_url,
                          "'" + without_password(link) + "': only http and https links work");
  return result;
}

WebLink WebLink::follow(const std::string& location) const {
  const Parsed parsed(curl_url(), curl_url_cleanup);
  set(parsed, CURLUPART_URL, text_);
  set(parsed, CURLUPART_URL, location, CURLU_URLENCODE);
  auto next = parse(get_part(parsed, CURLUPART_URL), Files::refused);
  if (next.user_.empty() && !user_.empty() && next.has_same_origin_as(*this)) {
    set(parsed, CURLUPART_USER, user_);
    set(parsed, CURLUPART_PASSWORD, password_);
    next = parse(get_part(parsed, CURLUPART_URL), Files::refused);
  }
  return next;
}

} // namespace ravelin::platform
