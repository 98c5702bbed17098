#pragma once

#include "ravelin/url.h"

#include <optional>
#include <vector>

namespace ravelin::bramblekit {

/// Another name for the same file, "movie (1).mkv" for "movie.mkv", whose file does not exist and
/// which is not in the list. None when ten thousand names are taken.
std::optional<URL> generate_non_conflicting_file_url(const URL& from,
                                                     const std::vector<URL>& not_allowed_urls);

} // namespace ravelin::bramblekit
