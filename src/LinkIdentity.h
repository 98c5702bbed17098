#pragma once

#include "ravelin/ravelin_operation.h"
#include "ravelin/url.h"
#include "src/ContentVersion.h"
#include "src/ResumeData.h"

namespace ravelin {

/// Which link a file came from, kept in an extended attribute of the file. Only digests are kept,
/// since links may contain secrets: one of the link without credentials and fragment, and one that
/// also omits the query, since queries may contain tokens that change. Unknown if the file system
/// has no extended attributes.
using Origin = RavelinOperation::Origin;
Origin origin_of(const URL& file, const URL& link);
/// Failures are not reported.
void note_origin(const URL& file, const URL& link);

/// The version of the content of an unfinished file when its download started: what is in its
/// record, and its ETag and date, which are kept in the same way as the link.
ContentVersion noted_version(const URL& file, const ResumeData& record);
/// Notes the ETag and the date, or removes what is not set. Failures are not reported.
void note_version(const URL& file, const ContentVersion& version);

} // namespace ravelin
