#pragma once

#include "ravelin/url.h"

#include <optional>
#include <vector>

namespace ravelin::bramblekit {

/// A free name such as "movie (1).mkv" for "movie.mkv": no such file exists and it is not in the
/// list. Nothing after ten thousand attempts.
std::optional<URL> generate_non_conflicting_file_url(const URL& from,
                                                     const std::vector<URL>& not_allowed_urls);

} // namespace ravelin::bramblekit
