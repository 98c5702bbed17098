#pragma once

#include "ravelin/ravelin_operation.h"
#include "ravelin/url.h"

#include <optional>
#include <string>

namespace ravelin {

/// Which link a file came from, kept in an extended attribute of the file. Only digests are kept,
/// since links may contain secrets: one of the link without credentials and fragment, and one that
/// also omits the query, since queries may contain tokens that change. Unknown if the file system
/// has no extended attributes.
using Origin = RavelinOperation::Origin;
Origin origin_of(const URL& file, const URL& link);
/// Failures are not reported.
void note_origin(const URL& file, const URL& link);

/// The strong ETag of the content of an unfinished file, kept in the same way.
std::optional<std::string> noted_etag(const URL& file);
/// No value removes the attribute. Failures are not reported.
void note_etag(const URL& file, const std::optional<std::string>& etag);

} // namespace ravelin
