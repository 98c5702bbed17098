#include "ravelin/ravelin_operation.h"

#include "bramblekit/errors.h"
#include "bramblekit/file_marks.h"
#include "bramblekit/main_thread.h"
#include "bramblekit/stop_watch.h"
#include "platform/fatal.h"
#include "platform/files/file_marks.h"
#include "platform/threads/semaphore.h"
#include "src/RavelinOperation_impl.h"
#include "src/SnapRule.h"

#include <utility>

// The download proper: header, files, parts, chunks, and the end of them.

namespace ravelin {

using bramblekit::error_msg;
using bramblekit::Exception;
using bramblekit::main_sync;
using bramblekit::to_error;
using platform::checked_add;
using platform::checked_subtract;
using platform::Semaphore;

namespace {

constexpr const char* source_file = "src/RavelinOperation";
constexpr const char* header_function = "bg_request_http_header(for:)";
constexpr double save_interval = 0.1; // seconds between two saves of the record
constexpr const char* etag_mark = "ravelin_etag";

/// Only what is split is ever continued.
bool bears_etag(const FileProcessor& file_proc) {
  return file_proc.split_count && defaults().reject_changed_content;
}

ResumeData::Part& required_part(const FileProcessor* file_proc, const ResumeData* record,
                                std::int64_t index) {
  if (!file_proc || !record || index < 0 ||
      index >= static_cast<std::int64_t>(record->parts.size()))
    platform::fatal("the resume record has no part " + std::to_string(index));
  return *record->parts[static_cast<std::size_t>(index)];
}

} // namespace

void RavelinOperation::Impl::bg_request_http_header(const URL& link) {
  std::optional<HeaderOpr::Status> answer;
  bool has_header = false;
  bramblekit::OwnWork probe;
  bramblekit::wait_signal_main(
      [&](Semaphore& sema) MAIN_ONLY {
        is_header_received = false;
        ranges_accepted = false;
        content_len.reset();
        server_side_date.clear();
        probed_version = {};
        if (opr.is_cancelled())
          throw Exception();
        report({State::connecting{}}, {Status::connecting{}});
        if (opr.is_cancelled())
          throw Exception(); // by the callback just now, before there was a request to cancel
        header_opr = std::make_shared<HeaderOpr>();
        header_opr->own_work = &probe;
        // Last: should anything throw after it, the request would outlive what it refers to.
        header_opr->request(link, [&](const HeaderOpr::Status& status) MAIN_ONLY {
          answer = status;
          header_opr = nullptr;
          if (const auto* const came = std::get_if<HeaderOpr::Status::success>(&status.value)) {
            is_header_received = true;
            ranges_accepted = came->result.ranges_accepted;
            content_len = came->result.content_length;
            server_side_date = came->result.server_side_date;
            probed_version = ContentVersion::of_whole(came->result.header);
          }
          has_header = is_header_received;
          sema.signal();
        });
      },
      [&] { probe.work(); });
  if (!answer)
    platform::fatal("the header request ended without an answer");
  if (const auto* const failed = std::get_if<HeaderOpr::Status::error>(&answer->value))
    failed->error.rethrow();
  const auto* const success = std::get_if<HeaderOpr::Status::success>(&answer->value);
  if (!success)
    throw Exception();
  if (success->result.content_length == 0)
    throw error_msg("File content has zero length.", source_file, header_function, 259);
  if (!has_header)
    throw error_msg("Couldn't receive http header.", source_file, header_function, 271);
}

void RavelinOperation::Impl::bg_start_connections(const URL& link, const URL& dest_file,
                                                  bool split_allowed) {
  const bool should_split = bg_prepare_files(dest_file, split_allowed);
  std::optional<Error> error;
  try {
    bramblekit::OwnWork own_part; // one of the parts needs no other thread
    const auto running = main_sync([&]() MAIN_ONLY {
      data_opr_sema = nullptr;
      last_progress_snap_point = 0.0F;
      watch.reset();
      if (opr.is_cancelled())
        throw Exception();
      reject_changed_content();
      start_parts(link, should_split, own_part);
      return data_opr_sema;
    });
    own_part.work();
    if (running)
      running->wait();
    file_proc->bg_wait_for_writes(); // what is saved or closed below is on storage
    main_sync([&]() MAIN_ONLY { finish_files(); });
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

/// Tells whether the download is split.
bool RavelinOperation::Impl::bg_prepare_files(const URL& dest_file, bool split_allowed) {
  const bool should_split = main_sync([&]() MAIN_ONLY {
    download_exception.reset();
    download_started = false;
    const bool split = split_allowed && ranges_accepted && content_len.has_value();
    file_proc = std::make_shared<FileProcessor>(opr);
    if (split)
      file_proc->split_count = split_count;
    file_proc->content_len = content_len;
    file_proc->server_side_date = server_side_date;
    file_proc->main_file_url = dest_file;
    return split;
  });
  file_proc->setup();
  return should_split;
}

/// A record of content that has been replaced meanwhile must not be continued. The date alone does
/// not tell of a file that was put in place later than it was made.
void RavelinOperation::Impl::reject_changed_content() {
  if (!bears_etag(*file_proc))
    return;
  const auto& record = *file_proc->resume_data;
  const auto& file = *file_proc->main_file_url;
  if (record.received_bytes() == 0) {
    const auto& etag = probed_version.strong_etag;
    bramblekit::ext_attr(file)[etag_mark] = etag ? bramblekit::to_data(*etag) : std::nullopt;
    return;
  }
  auto changed = change_since(record.server_side_date, probed_version.last_modified);
  if (!changed)
    changed = difference({platform::extended_attribute(file, etag_mark), {}, {}},
                         {probed_version.strong_etag, {}, {}});
  if (changed)
    changed_content_error(*changed).rethrow();
}

void RavelinOperation::Impl::start_parts(const URL& link, bool should_split,
                                         bramblekit::OwnWork& own_part) {
  if (!should_split) {
    start_download(link, 0, false, own_part);
    return;
  }
  for (std::int64_t i = 0; i < split_count; ++i)
    start_download(link, i, true, own_part);
}

void RavelinOperation::Impl::start_download(const URL& link, std::int64_t part_index,
                                            bool use_range, bramblekit::OwnWork& own_part) {
  bramblekit::assert_main_thread("start_download(for:part_index:use_range:)");
  std::optional<PartialDataOpr::BytesRange> range;
  if (use_range) {
    const auto& part = required_part(file_proc.get(), file_proc->resume_data.get(), part_index);
    if (part.curr_bytes >= part.total_bytes_expected)
      return;
    const auto end = checked_add(part.begin_pos, part.total_bytes_expected);
    range = {checked_add(part.begin_pos, part.curr_bytes), checked_subtract(end, 1)};
  }
  const auto request = std::make_shared<PartialDataOpr>();
  request->expected_version = probed_version;
  request->own_work = &own_part;
  partial_data_oprs.insert(request);
  if (!data_opr_sema)
    data_opr_sema = std::make_shared<Semaphore>(0U);
  using Event = PartialDataOpr::Status;
  const auto handler = [this, keep = self(), part_index, request](const Event& event) MAIN_ONLY {
    std::visit(match{
                   [&](const Event::started& started) MAIN_ONLY {
                     bramblekit::suppress_warns_for(started.content_length);
                     if (!std::exchange(download_started, true))
                       send(stat_closure, {Status::started{content_len}});
                   },
                   [](const Event::connecting&) {},
                   [&](const Event::did_receive_data& received)
                       MAIN_ONLY { did_receive_data(part_index, received.progress.data); },
                   [&](const Event::bg_after_receive_data&) { bg_after_receive_data(*request); },
                   [&](const Event::error& failed) MAIN_ONLY {
                     download_exception = failed.error;
                     end_part(request);
                   },
                   [&](const Event::success&) MAIN_ONLY { end_part(request); },
                   [&](const Event::cancelled&) MAIN_ONLY {
                     download_exception = to_error(Exception());
                     file_proc->start_writes(); // of a last chunk after which nobody waited
                     end_part(request);
                   },
               },
               event.value);
  };
  request->request(link, range, handler);
}

void RavelinOperation::Impl::did_receive_data(std::int64_t part_index, const platform::Data& data) {
  auto& part = required_part(file_proc.get(), file_proc->resume_data.get(), part_index);
  file_proc->async_write_bytes(checked_add(part.begin_pos, part.curr_bytes), data);
  part.curr_bytes = checked_add(part.curr_bytes, static_cast<std::int64_t>(data.size()));
  if (watch.elapsed_time() > save_interval) {
    file_proc->async_update_resume_file();
    watch.reset();
  }
  const auto progress = advance_progress();
  report({State::downloading{progress}}, {Status::downloading{progress}});
}

Progress RavelinOperation::Impl::advance_progress() {
  const auto& record = *file_proc->resume_data;
  const auto received = record.received_bytes();
  std::optional<float> value;
  if (record.content_length)
    value = static_cast<float>(received) / static_cast<float>(*record.content_length);
  const auto snap = snap_rule(value, last_progress_snap_point, progress_snap_interval);
  last_progress_snap_point = snap.next;
  return {value, received, snap.is_at_snap_point, record.content_length};
}

void RavelinOperation::Impl::bg_after_receive_data(PartialDataOpr& request) {
  file_proc->bg_wait_for_writes();
  if (const auto failed_save = file_proc->exception.get())
    main_sync([&]() MAIN_ONLY {
      download_exception = failed_save;
      request.cancel();
    });
}

void RavelinOperation::Impl::end_part(const std::shared_ptr<PartialDataOpr>& request) {
  partial_data_oprs.erase(request);
  if (!partial_data_oprs.empty())
    return;
  if (!data_opr_sema)
    platform::fatal("nobody waits for the parts of this download");
  data_opr_sema->signal();
}

/// What came since the last save would be fetched again; against a server that cuts every
/// connection soon, nothing would ever add up.
void RavelinOperation::Impl::save_what_came() noexcept {
  try {
    file_proc->update_resume_file();
  } catch (...) {
    // The older record is right, too.
  }
}

void RavelinOperation::Impl::finish_files() {
  if (!download_exception) {
    file_proc->delete_resume_file();
    bramblekit::set_is_hidden(*file_proc->main_file_url, false);
    bramblekit::ext_attr(*file_proc->main_file_url)["lg_ignore"] = std::nullopt;
    if (bears_etag(*file_proc))
      bramblekit::ext_attr(*file_proc->main_file_url)[etag_mark] = std::nullopt;
  } else if (download_exception->is<Exception>()) {
    if (!should_clear_files)
      file_proc->update_resume_file();
  } else {
    save_what_came();
    download_exception->rethrow();
  }
}

} // namespace ravelin
