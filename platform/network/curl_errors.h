#pragma once

#include "ravelin/error.h"

#include <curl/curl.h>
#include <string>

namespace ravelin::platform {

struct FailedTransfer {
  CURLcode code;
  std::string error_text; // from libcurl, may be empty
  std::string host;
};

/// Maps libcurl's code to a `URLError`.
Error url_error_for(const FailedTransfer& failed);
Error url_error(URLError code, std::string text);

} // namespace ravelin::platform
