#include "bramblekit/errors.h"
#include "bramblekit/file_marks.h"
#include "bramblekit/main_thread.h"
#include "platform/files/file_manager.h"
#include "src/LinkIdentity.h"
#include "src/RavelinOperation_impl.h"

#include <filesystem>

// Whether the files at a destination may be continued, replaced or accepted.

namespace ravelin {

using bramblekit::main_sync;
using bramblekit::to_error;

namespace {

namespace fs = std::filesystem;

bool exists(const URL& file) {
  return platform::FileManager::default_manager().file_exists(file);
}

bool is_marked_incomplete(const URL& file) {
  return platform::extended_attribute(file, "lg_ignore").has_value();
}

/// The end of the last range that the record counts as received.
std::int64_t counted_end(const ResumeData& record) {
  std::int64_t end = 0;
  for (const auto& part : record.parts)
    if (part->curr_bytes > 0)
      end = std::max(end, part->begin_pos + part->curr_bytes);
  return end;
}

std::int64_t size_of(const URL& file) {
  std::error_code unknown;
  const auto size = fs::file_size(file.path(), unknown);
  return unknown ? -1 : static_cast<std::int64_t>(size);
}

} // namespace

/// Removes the marks of an incomplete file. False on the main thread if the file is still listed as
/// hidden.
bool RavelinOperation::Impl::remove_marks(const URL& file) {
  const bool is_shown = bramblekit::set_is_hidden(file, false);
  bramblekit::ext_attr(file)["lg_ignore"] = std::nullopt;
  note_version(file, {});
  return is_shown;
}

bool RavelinOperation::Impl::checks_destination() const {
  return settings->options.check_destination.value_or(false);
}

/// Where others may write, they may have put a file or a link in the place of ours.
void RavelinOperation::Impl::bg_refuse_foreign_files(Run& run) {
  const auto& fm = platform::FileManager::default_manager();
  if (!fm.is_shared_directory(run.destination))
    return;
  run.links = platform::Links::refused;
  for (const auto& file : {run.destination, get_resume_file(run.destination)})
    if (const auto foreign = fm.describe_foreign(file))
      throw TextError("'" + file.path().native() + "' " + *foreign +
                      ", and other users can write to its directory; delete it or choose another "
                      "directory");
}

/// Runs before any request.
void RavelinOperation::Impl::bg_lock_destination(Run& run) {
  if (!checks_destination())
    return;
  bg_refuse_foreign_files(run);
  destination_lock = std::make_unique<DestinationLock>(run.destination);
  if (destination_lock->is_held_by_another())
    throw TextError("another download is writing to this file; wait for it or choose another file");
  if (!destination_lock->other_owner().empty())
    throw TextError("the resume record is in use by the unfinished file '" +
                    destination_lock->other_owner() +
                    "'; finish or delete that one first, or choose another file");
  if (!run.is_complete)
    return;
  if (destination_lock->is_complete())
    remove_marks(run.destination);
  else if (destination_lock->is_unfinished() || is_marked_incomplete(run.destination))
    run.is_complete = false; // a process was killed while it was restarting the download
  else if (origin_of(run.destination, run.link) == Origin::same_link)
    bramblekit::set_is_hidden(run.destination, false); // the list may have been in use at the end
}

/// Whether there is nothing to download. Needs the header.
bool RavelinOperation::Impl::bg_is_complete(const Run& run) {
  if (!run.is_complete)
    return false;
  const auto length = main_sync([&]() MAIN_ONLY { return content_len; });
  const auto size = size_of(run.destination);
  const auto origin = origin_of(run.destination, run.link);
  if (origin == Origin::other_link)
    throw TextError("the file exists and was downloaded from another link; delete it or choose "
                    "another file");
  if (length != size)
    throw TextError("the file exists and has " + std::to_string(size) + " bytes, but the content " +
                    (length ? "has " + std::to_string(*length) : "is of unknown length") +
                    "; delete it or choose another file");
  return true;
}

/// Whether existing files must be replaced, for example because the file is shorter than recorded.
bool RavelinOperation::Impl::must_restart(const Run& run) const {
  if (run.must_restart)
    return true;
  if (!checks_destination() || !exists(run.destination))
    return false;
  const auto record = FileProcessor::read_resume_data(run.destination);
  return record && record->is_valid() && record->has_counts_within_parts() &&
         counted_end(*record) > size_of(run.destination);
}

/// Whether an unfinished file whose server has no ranges is kept, unless the application starts
/// again: the server may be one of several, or soon be itself again. One from another link is
/// refused for other reasons.
bool RavelinOperation::Impl::keeps_unfinished(const Run& run) const {
  if (!checks_destination() || !settings->options.reject_changed_content.value_or(false))
    return false;
  const auto origin = origin_of(run.destination, run.link);
  const bool compares = settings->options.compare_new_link.value_or(false);
  const bool may_be_own =
      origin == Origin::same_link || (!compares && origin != Origin::other_link);
  return may_be_own && !must_restart(run);
}

/// Whether the files belong to this run and may be deleted.
bool RavelinOperation::Impl::may_clear(const Run& run) const {
  if (run.claim_error)
    return false;
  if (!checks_destination())
    return true;
  const auto lock = destination_lock ? nullptr : std::make_unique<DestinationLock>(run.destination);
  const auto& held = destination_lock ? *destination_lock : *lock;
  const auto origin = origin_of(run.destination, run.link);
  return !held.is_held_by_another() && held.other_owner().empty() &&
         (origin == Origin::same_link || (held.is_unfinished() && origin != Origin::other_link));
}

void RavelinOperation::Impl::check_finished_file() const {
  if (!checks_destination())
    return;
  const auto& file = *file_proc->main_file_url;
  if (!exists(file))
    throw TextError("the file was removed while it was being downloaded");
  for (const auto& part : file_proc->resume_data->parts)
    if (part->total_bytes_expected >= 0 && part->curr_bytes != part->total_bytes_expected)
      throw TextError("a part of the file has " + std::to_string(part->curr_bytes) +
                      " bytes instead of " + std::to_string(part->total_bytes_expected));
  if (content_len && size_of(file) != *content_len)
    throw TextError("the file has " + std::to_string(size_of(file)) + " bytes instead of " +
                    std::to_string(*content_len));
}

URL RavelinOperation::get_resume_file(const URL& dest_file) {
  return FileProcessor::prepare_resume_file_url(dest_file);
}

RavelinOperation::FileState RavelinOperation::get_file_state(const URL& dest_file,
                                                             const URL& link) {
  FileState state;
  state.exists = exists(dest_file);
  state.progress = get_progress(dest_file);
  state.resume_file = get_resume_file(dest_file);
  const auto lock = DestinationLock::inspect(dest_file);
  state.is_in_use = lock.is_held;
  state.record_owner = lock.other_owner;
  state.origin = origin_of(dest_file, link);
  if (!lock.other_owner.empty()) {
    state.progress = {};
    return state;
  }
  const auto record = FileProcessor::read_resume_data(dest_file);
  state.can_continue = state.exists && record && record->is_splitted && record->is_valid() &&
                       record->has_counts_within_parts() &&
                       counted_end(*record) <= size_of(dest_file);
  state.is_unfinished = exists(state.resume_file) || lock.is_unfinished ||
                        (state.exists && is_marked_incomplete(dest_file));
  return state;
}

} // namespace ravelin
