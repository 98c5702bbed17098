#pragma once

#include "ravelin/error.h"

#include <curl/curl.h>
#include <string>

namespace ravelin::platform {

/// What is known about a failed transfer besides libcurl's code.
struct FailedTransfer {
  CURLcode code;
  std::string words;        // libcurl's own, may be empty
  std::string host;         // of the link
  bool in_redirect = false; // the failure came with following a redirect
};

/// The one table from libcurl's codes to ours.
Error url_error_for(const FailedTransfer& failed);
Error url_error(URLError code, std::string text);

} // namespace ravelin::platform
