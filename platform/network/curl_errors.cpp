#include "platform/network/curl_errors.h"

#include "platform/network/network_interfaces.h"

namespace ravelin::platform {
namespace {

URLError code_for(CURLcode code) {
  switch (code) {
  case CURLE_URL_MALFORMAT:
    return URLError::bad_url;
  case CURLE_UNSUPPORTED_PROTOCOL: // also reported for a response that is not HTTP
    return URLError::bad_server_response;
  case CURLE_COULDNT_RESOLVE_HOST:
  case CURLE_COULDNT_RESOLVE_PROXY:
    return URLError::cannot_find_host;
  case CURLE_COULDNT_CONNECT:
  case CURLE_INTERFACE_FAILED:
  case CURLE_PROXY:
    return URLError::cannot_connect_to_host;
  case CURLE_OPERATION_TIMEDOUT:
    return URLError::timed_out;
  case CURLE_PARTIAL_FILE:
  case CURLE_GOT_NOTHING:
  case CURLE_SEND_ERROR:
  case CURLE_RECV_ERROR:
    return URLError::network_connection_lost;
  case CURLE_TOO_MANY_REDIRECTS:
    return URLError::too_many_redirects;
  case CURLE_WEIRD_SERVER_REPLY:
  case CURLE_HTTP_RETURNED_ERROR:
  case CURLE_RANGE_ERROR:
  case CURLE_WRITE_ERROR:
    return URLError::bad_server_response;
  case CURLE_BAD_CONTENT_ENCODING:
    return URLError::cannot_decode_content;
  case CURLE_LOGIN_DENIED:
  case CURLE_AUTH_ERROR:
    return URLError::user_authentication_required;
  case CURLE_FILE_COULDNT_READ_FILE:
  case CURLE_REMOTE_FILE_NOT_FOUND:
    return URLError::file_does_not_exist;
  case CURLE_PEER_FAILED_VERIFICATION:
  case CURLE_SSL_ISSUER_ERROR:
  case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    return URLError::server_certificate_untrusted;
  case CURLE_SSL_CERTPROBLEM:
  case CURLE_SSL_CLIENTCERT:
    return URLError::client_certificate_rejected;
  case CURLE_SSL_CONNECT_ERROR:
  case CURLE_SSL_ENGINE_NOTFOUND:
  case CURLE_SSL_ENGINE_SETFAILED:
  case CURLE_SSL_ENGINE_INITFAILED:
  case CURLE_SSL_CIPHER:
  case CURLE_USE_SSL_FAILED:
  case CURLE_SSL_CACERT_BADFILE:
  case CURLE_SSL_CRL_BADFILE:
  case CURLE_SSL_SHUTDOWN_FAILED:
  case CURLE_SSL_INVALIDCERTSTATUS:
    return URLError::secure_connection_failed;
  case CURLE_NO_CONNECTION_AVAILABLE:
    return URLError::resource_unavailable;
  default: // out of memory, invalid options and protocols that are not used
    return URLError::unknown;
  }
}

bool is_loopback(const std::string& host) {
  return host == "localhost" || host.ends_with(".localhost") || host.starts_with("127.") ||
         host == "[::1]";
}

} // namespace

Error url_error(URLError code, std::string text) {
  return Error(std::make_exception_ptr(URLLoadingError(code, std::move(text))));
}

Error url_error_for(const FailedTransfer& failed) {
  auto code = code_for(failed.code);
  auto error_text = failed.error_text.empty() ? curl_easy_strerror(failed.code) : failed.error_text;
  const bool is_unreachable =
      code == URLError::cannot_find_host || code == URLError::cannot_connect_to_host;
  if (is_unreachable && !is_loopback(failed.host) && !any_network_is_up()) {
    code = URLError::not_connected_to_internet;
    error_text += " (no network is up)";
  }
  return url_error(code, std::move(error_text));
}

} // namespace ravelin::platform
