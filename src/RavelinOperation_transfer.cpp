#include "ravelin/ravelin_operation.h"

#include "bramblekit/errors.h"
#include "bramblekit/file_marks.h"
#include "bramblekit/main_thread.h"
#include "bramblekit/stop_watch.h"
#include "platform/fatal.h"
#include "platform/files/extended_attributes.h"
#include "platform/threads/semaphore.h"
#include "src/LinkIdentity.h"
#include "src/RavelinOperation_impl.h"

#include <algorithm>
#include <utility>

// One attempt: header, files, transfer, and finishing the files.

namespace ravelin {

using bramblekit::error_msg;
using bramblekit::Exception;
using bramblekit::main_sync;
using platform::Semaphore;

namespace {

constexpr auto check_interval = std::chrono::milliseconds(50); // for late saves and parts
constexpr auto short_check_interval = std::chrono::milliseconds(10);
constexpr std::int64_t large_burst = 1024 * 1024; // bytes
constexpr const char* source_file = "src/RavelinOperation";
constexpr const char* header_function = "bg_request_http_header(for:)";

} // namespace

bool can_split(bool split_allowed, bool ranges_accepted, std::optional<std::int64_t> length,
               const Options& options) {
  const auto min_size = std::max<std::int64_t>(options.min_split_size.value_or(1), 1);
  return split_allowed && ranges_accepted && length.value_or(0) >= min_size;
}

/// From which responses to the header request the content may be taken. Where the first part has
/// begun, requests for the others come next, and a server that allows one connection must not see
/// two.
HeaderOpr::HoldsResponse RavelinOperation::Impl::responses_to_hold(const Run& run,
                                                                   bool split_allowed) const {
  if (!settings->options.reuse_header_response.value_or(false))
    return nullptr;
  const bool has_begun = split_allowed &&
                         RavelinOperation::get_progress(run.destination).received_bytes > 0 &&
                         !must_restart(run);
  return [has_begun, split_allowed, options = settings](const HeaderOpr::Result& header) {
    if (!can_split(split_allowed, header.ranges_accepted, header.content_length, options->options))
      return true;
    return !has_begun && (header.response_time >= far_response_time ||
                          header.content_length.value_or(0) <= max_one_response);
  };
}

/// Returns the response if the content may be taken from it.
RavelinOperation::Impl::HeldResponse
RavelinOperation::Impl::bg_request_http_header(const Run& run, bool split_allowed) {
  std::optional<HeaderOpr::Status> result;
  HeldResponse held_response;
  bool has_header = false;
  bramblekit::wait_signal_main([&](Semaphore& sema) MAIN_ONLY {
    is_header_received = false;
    ranges_accepted = false;
    content_len.reset();
    server_side_date.clear();
    probed_version = {};
    if (opr.is_cancelled())
      throw Exception();
    report({State::connecting{}}, {Status::connecting{}});
    if (opr.is_cancelled())
      throw Exception(); // by the callback, before there was a request to cancel
    header_opr = std::make_shared<HeaderOpr>();
    header_opr->settings = settings;
    header_opr->holds_response = responses_to_hold(run, split_allowed);
    // Last: if anything threw after it, the request would outlive the locals that it refers to.
    header_opr->request(run.link, [&](const HeaderOpr::Status& status) MAIN_ONLY {
      result = status;
      const auto request = std::exchange(header_opr, nullptr);
      if (const auto* const success = std::get_if<HeaderOpr::Status::success>(&status.value)) {
        is_header_received = true;
        ranges_accepted = success->result.ranges_accepted;
        if (success->result.content_length >= 0) // a negative length counts as unknown
          content_len = success->result.content_length;
        server_side_date = success->result.server_side_date;
        response = make_response(request->response, success->result);
        held_response = std::move(request->held_response);
        probed_version = ContentVersion::of_whole(success->result.header);
      }
      has_header = is_header_received;
      sema.signal();
    });
  });
  if (!result)
    platform::fatal("the header request ended without a status");
  if (const auto* const failed = std::get_if<HeaderOpr::Status::error>(&result->value))
    failed->error.rethrow();
  const auto* const success = std::get_if<HeaderOpr::Status::success>(&result->value);
  if (!success)
    throw Exception();
  if (success->result.content_length == 0 &&
      !settings->options.accept_empty_content.value_or(false))
    throw error_msg("File content has zero length.", source_file, header_function, 259);
  if (!has_header)
    throw error_msg("Couldn't receive http header.", source_file, header_function, 271);
  return held_response;
}

void RavelinOperation::Impl::bg_start_connections(Run& run, bool split_allowed,
                                                  HeldResponse held_response) {
  bg_check_unfinished(run, split_allowed, held_response);
  const bool should_split = bg_prepare_files(run, split_allowed);
  std::optional<Error> error;
  try {
    const auto running = main_sync([&]() MAIN_ONLY {
      data_opr_sema = nullptr;
      last_progress_snap_point = 0.0F;
      watch.reset();
      unsaved_bytes = 0;
      if (opr.is_cancelled())
        throw Exception();
      check_content(run);
      start_parts(run.link, should_split, std::move(held_response));
      return data_opr_sema;
    });
    auto interval = short_check_interval;
    while (running && !running->wait_for(interval))
      interval = main_sync([&]() MAIN_ONLY {
        save_if_behind();
        start_late_parts(run.link);
        const bool is_urgent =
            unsaved_bytes >= large_burst || (parts.has_waiting() && whole_ends_soon());
        return is_urgent ? short_check_interval : check_interval;
      });
    file_proc->bg_wait_for_writes(); // so that the record counts every byte
    if (!main_sync([&]() MAIN_ONLY { return finish_files(); }))
      bramblekit::set_is_hidden(run.destination, false); // waits, other than on the main thread
  } catch (...) {
    error = Error::current();
  }
  file_proc->bg_wait_for_writes();
  if (!file_proc->main_file_handle)
    platform::fatal("the destination was not open");
  file_proc->main_file_handle->close_file();
  if (error)
    error->rethrow();
}

/// Returns whether the download is split.
bool RavelinOperation::Impl::bg_prepare_files(Run& run, bool split_allowed) {
  const bool restart = must_restart(run);
  const bool should_split = main_sync([&]() MAIN_ONLY {
    download_exception.reset();
    download_started = false;
    speed_meter.reset();
    const bool split = can_split(split_allowed, ranges_accepted, content_len, settings->options);
    file_proc = nullptr; // its thread may be the last one
    file_proc = std::make_shared<FileProcessor>(opr);
    if (split)
      file_proc->split_count = split_count;
    file_proc->content_len = content_len;
    file_proc->server_side_date = server_side_date;
    file_proc->main_file_url = run.destination;
    file_proc->must_restart = restart;
    file_proc->links = run.links;
    file_proc->bounds_counts = settings->options.require_exact_ranges.value_or(false);
    file_proc->removes_traces = checks_destination(); // or the record may be another file's
    file_proc->keeps_write_errors = settings->options.report_write_errors.value_or(false);
    return split;
  });
  if (destination_lock)
    destination_lock->start();
  file_proc->setup();
  run.must_restart = false; // the files are this run's own now
  run.has_content = true;
  const auto received =
      main_sync([&]() MAIN_ONLY { return file_proc->resume_data->received_bytes(); });
  run.is_begun_here = run.is_begun_here || received == 0;
  return should_split;
}

/// A resumed download must have the same content. A new one notes its link, ETag and date, so that
/// later runs can check that; the server's date does not show that an older file took its place.
void RavelinOperation::Impl::check_content(Run& run) {
  auto& record = *file_proc->resume_data;
  const auto& file = *file_proc->main_file_url;
  const ResponseChecks safeguards(settings->options);
  const bool is_first = record.received_bytes() == 0;
  if (is_first || std::exchange(run.is_compared, false)) { // so far it is content of this version
    if (safeguards.reject_changed_content() || checks_destination())
      record.server_side_date = server_side_date;
    if (checks_destination())
      note_origin(file, run.link);
    // Only split downloads are ever resumed.
    if (file_proc->split_count && (safeguards.reject_changed_content() || checks_destination()))
      note_version(file, probed_version);
    return;
  }
  if (const auto refused =
          safeguards.refuse_continuing(noted_version(file, record), probed_version))
    refused->rethrow();
  const auto origin = origin_of(file, run.link);
  if (checks_destination() && (origin == Origin::same_path || origin == Origin::other_link))
    note_origin(file, run.link); // the same content from a new link
}

/// Saves the record of the last chunks, since no further chunk may arrive to cause a save.
void RavelinOperation::Impl::save_if_behind() {
  if (unsaved_bytes == 0 || watch.elapsed_time() <= save_interval)
    return;
  unsaved_bytes = 0;
  file_proc->async_update_resume_file();
  watch.reset();
}

/// Otherwise the next attempt would download again what arrived since the last save, and with a
/// server that closes every connection early there would be no progress.
void RavelinOperation::Impl::save_received() noexcept {
  try {
    file_proc->update_resume_file();
  } catch (...) {
    // The older record is valid, too.
  }
}

/// False if a complete file is still listed as hidden.
bool RavelinOperation::Impl::finish_files() {
  if (file_proc->keeps_write_errors)
    if (const auto failed = file_proc->exception.get()) {
      save_received();
      failed->rethrow();
    }
  if (!download_exception) {
    check_finished_file();
    if (destination_lock)
      destination_lock->note_complete();
    file_proc->delete_resume_file();
    return remove_marks(*file_proc->main_file_url);
  }
  if (download_exception->is<Exception>()) {
    if (file_proc->bounds_counts && !opr.is_cancelled()) { // a part has none to request its rest
      file_proc->update_resume_file(); // if that failed before, this is the reason
      throw std::system_error(make_error_code(URLError::network_connection_lost));
    }
    if (!should_clear_files)
      file_proc->update_resume_file();
  } else {
    save_received();
    download_exception->rethrow();
  }
  return true;
}

} // namespace ravelin
