#include "bramblekit/errors.h"
#include "bramblekit/main_thread.h"
#include "platform/fatal.h"
#include "ravelin/text.h"
#include "src/RavelinOperation_impl.h"
#include "src/RetryPolicy.h"
#include "src/SnapRule.h"

#include <algorithm>
#include <utility>

// The parts of a transfer: starting them, what they receive, and how they end.

namespace ravelin {

using bramblekit::Exception;
using bramblekit::main_sync;
using bramblekit::to_error;
using platform::checked_add;
using platform::checked_subtract;
using platform::Semaphore;

namespace {

// Seconds after which the rate of a response is estimated, and at most relied on.
constexpr double first_look = 0.01;
constexpr double last_look = 0.2;

} // namespace

ResumeData::Part& RavelinOperation::Impl::record_of_part(std::int64_t index) const {
  if (!file_proc || !file_proc->resume_data || index < 0 ||
      index >= static_cast<std::int64_t>(file_proc->resume_data->parts.size()))
    platform::fatal("the resume record has no part " + std::to_string(index));
  return *file_proc->resume_data->parts[static_cast<std::size_t>(index)];
}

bool RavelinOperation::Impl::lacks_bytes(std::int64_t part_index) const {
  const auto& part = record_of_part(part_index);
  return part.curr_bytes < part.total_bytes_expected;
}

void RavelinOperation::Impl::start_parts(const URL& link, bool should_split,
                                         HeldResponse held_response) {
  parts = PartSchedule(settings->options);
  if (one_at_a_time)
    parts.limit_connections(1);
  holding_error.reset();
  whole_request = nullptr;
  if (!should_split) {
    start_download(link, 0, false, std::move(held_response));
    return;
  }
  std::int64_t first_to_request = 0;
  if (held_response && record_of_part(0).curr_bytes == 0) {
    start_download(link, 0, false, std::move(held_response));
    first_to_request = 1;
  }
  held_response = nullptr; // closes its connection
  for (auto i = first_to_request; i < split_count; ++i)
    parts.wait_for_connection(i);
  start_waiting_parts(link);
}

/// Whether the whole content is about to come before requests for the parts would be answered.
/// Their connections would be closed for nothing.
bool RavelinOperation::Impl::whole_ends_soon() const {
  const auto& record = *file_proc->resume_data;
  if (!whole_request || !record.content_length)
    return false;
  const auto elapsed = whole_watch.elapsed_time();
  if (elapsed < first_look)
    return *record.content_length <= max_one_response;
  if (elapsed > last_look)
    return false; // it may have stalled
  const auto missing = static_cast<double>(*record.content_length - record.received_bytes());
  const auto rate = static_cast<double>(whole_received) / elapsed;
  return missing < rate * std::chrono::duration<double>(far_response_time).count();
}

void RavelinOperation::Impl::start_waiting_parts(const URL& link) {
  while (!opr.is_cancelled() && !whole_ends_soon() && parts.may_open(partial_data_oprs.size())) {
    const auto next = parts.take_waiting();
    if (!next)
      return;
    start_download(link, *next, true);
  }
}

/// A request that the end of the run waits for.
std::shared_ptr<PartialDataOpr> RavelinOperation::Impl::new_request() {
  auto request = std::make_shared<PartialDataOpr>();
  request->settings = settings;
  request->expected_version = probed_version;
  request->expected_version->begun = file_proc->resume_data->server_side_date;
  partial_data_oprs.insert(request);
  if (!data_opr_sema)
    data_opr_sema = std::make_shared<Semaphore>(0U);
  return request;
}

void RavelinOperation::Impl::start_download(const URL& link, std::int64_t part_index,
                                            bool use_range, HeldResponse held_response) {
  bramblekit::assert_main_thread("start_download(for:part_index:use_range:)");
  std::optional<PartialDataOpr::BytesRange> range;
  if (use_range) {
    const auto& part = record_of_part(part_index);
    if (!lacks_bytes(part_index))
      return;
    const auto end = checked_add(part.begin_pos, part.total_bytes_expected);
    range = {checked_add(part.begin_pos, part.curr_bytes), checked_subtract(end, 1)};
  }
  const auto request = new_request();
  request->held_response = std::move(held_response);
  parts.has_started(part_index, request);
  using Event = PartialDataOpr::Status;
  if (!use_range && file_proc->split_count) {
    whole_request = request;
    whole_watch.reset();
    whole_received = 0;
    reached_part = part_index;
  }
  const PartialDataOpr::StatusClosure on_main =
      [this, keep = self(), link, request, part_index](const Event& event)
          MAIN_ONLY { handle_part_event(link, part_index, request, event); };
  request->request(link, range, [this, request, on_main](const Event& event) {
    if (std::holds_alternative<Event::bg_after_receive_data>(event.value))
      bg_after_receive_data(*request);
    else
      on_main(event);
  });
}

void RavelinOperation::Impl::handle_part_event(const URL& link, std::int64_t part_index,
                                               const std::shared_ptr<PartialDataOpr>& request,
                                               const PartialDataOpr::Status& event) {
  using Event = PartialDataOpr::Status;
  const auto part = request == whole_request ? reached_part : part_index;
  std::visit(match{
                 [&](const Event::started& started) MAIN_ONLY {
                   bramblekit::suppress_warns_for(started.content_length);
                   parts.has_response(part, request);
                   if (!std::exchange(download_started, true))
                     send(stat_closure, {Status::started{content_len}});
                 },
                 [](const Event::connecting&) {},
                 [&](const Event::did_receive_data& received) MAIN_ONLY {
                   if (request == whole_request)
                     did_receive_whole(received.progress.data, request);
                   else
                     did_receive_data(part, received.progress.data);
                   replace_slow_part();
                 },
                 [](const Event::bg_after_receive_data&) {},
                 [&](const Event::error& failed) MAIN_ONLY {
                   if (parts.is_served_by(part, request) &&
                       !requeue_part(link, part, request, failed.error))
                     download_exception = failed.error;
                   end_part(link, part, request);
                 },
                 [&](const Event::success&) MAIN_ONLY {
                   if (request == whole_request && lacks_bytes(part))
                     parts.wait_for_connection(part); // its end could not be told
                   end_part(link, part, request);
                 },
                 [&](const Event::cancelled&) MAIN_ONLY {
                   const bool is_intended =
                       parts.is_given_up(part) || !parts.is_served_by(part, request);
                   if (!is_intended || opr.is_cancelled())
                     download_exception = to_error(Exception());
                   end_part(link, part, request);
                 },
             },
             event.value);
}

void RavelinOperation::Impl::did_receive_data(std::int64_t part_index, const platform::Data& data) {
  auto& part = record_of_part(part_index);
  file_proc->async_write_bytes(checked_add(part.begin_pos, part.curr_bytes), data);
  part.curr_bytes = checked_add(part.curr_bytes, static_cast<std::int64_t>(data.size()));
  parts.has_received(part_index, static_cast<std::int64_t>(data.size()));
  unsaved_bytes += static_cast<std::int64_t>(data.size());
  if (watch.elapsed_time() > save_interval) {
    unsaved_bytes = 0;
    file_proc->async_update_resume_file();
    watch.reset();
  }
  const auto progress = advance_progress();
  speed_meter.note(progress.received_bytes);
  report({State::downloading{progress}}, {Status::downloading{progress}});
}

/// The whole content comes in order and goes on with the next part until one has an accepted
/// response of its own. Until then it is faster, as it often is while the server is far away, or
/// the server may refuse all ranges.
void RavelinOperation::Impl::did_receive_whole(const platform::Data& data,
                                               const std::shared_ptr<PartialDataOpr>& request) {
  whole_received += static_cast<std::int64_t>(data.size());
  std::size_t done = 0;
  while (done < data.size() && !opr.is_cancelled()) {
    const auto& part = record_of_part(reached_part);
    const auto room = checked_subtract(part.total_bytes_expected, part.curr_bytes);
    const bool is_last = reached_part == split_count - 1;
    const auto size =
        is_last ? data.size() - done : std::min(data.size() - done, static_cast<std::size_t>(room));
    if (size > 0) // the first parts of less than five bytes are empty
      did_receive_data(reached_part, data.part(done, size));
    done += size;
    if (!is_last && static_cast<std::int64_t>(size) == room && !go_on_with_next_part(request))
      return;
  }
}

bool RavelinOperation::Impl::go_on_with_next_part(const std::shared_ptr<PartialDataOpr>& request) {
  const bool goes_on = !request->is_cancelled() && !download_exception &&
                       record_of_part(reached_part + 1).curr_bytes == 0 &&
                       !parts.has_response(reached_part + 1);
  parts.take_over(reached_part);
  if (!goes_on) {
    request->cancel();
    return false;
  }
  ++reached_part;
  if (const auto slower = parts.take_over(reached_part))
    slower->cancel();
  parts.has_started(reached_part, request);
  return true;
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
  if (const auto failed = file_proc->exception.get())
    main_sync([&]() MAIN_ONLY {
      download_exception = failed;
      request.cancel();
    });
}

/// Whether the failed part is requested again, at once or when a connection is free, instead of
/// ending the run.
bool RavelinOperation::Impl::requeue_part(const URL& link, std::int64_t part_index,
                                          const std::shared_ptr<PartialDataOpr>& request,
                                          const Error& error) {
  const bool is_split = file_proc->split_count.has_value();
  if (!is_split || opr.is_cancelled() || download_exception || file_proc->exception.get())
    return false;
  if (request == whole_request) { // without it, the part would have had a request of its own
    parts.wait_for_connection(part_index);
    return true;
  }
  const auto* const loading = error.get_if<URLLoadingError>();
  const bool whole_may_bring_it =
      whole_request && part_index > reached_part && record_of_part(part_index).curr_bytes == 0;
  const bool may_retry = settings->options.retry && settings->options.retry->max_attempts > 0;
  if (may_retry && (is_refused_for_now(error) || lacks_resources(error)) &&
      parts.another_is_open(part_index)) {
    parts.limit_connections(partial_data_oprs.size() - 1);
    parts.wait_for_connection(part_index);
    if (lacks_resources(error))
      parts.start_later();
    if (loading && loading->retry_after) {
      parts.hold_until(PartSchedule::Clock::now() + *loading->retry_after);
      holding_error = error;
    }
    log("'" + without_password(link.text()) + "': using fewer connections: " + error.text());
    return true;
  }
  if (is_lost_connection(error) && parts.may_replace(part_index)) {
    parts.wait_for_connection(part_index);
    log("'" + without_password(link.text()) + "': retrying the rest of part " +
        std::to_string(part_index + 1) + " of " + std::to_string(split_count) + ": " +
        error.text());
    return true;
  }
  const bool has_changed = loading && loading->refusal == URLLoadingError::Refusal::changed_content;
  if (!whole_may_bring_it || has_changed)
    return false;
  parts.limit_connections(partial_data_oprs.size() - 1); // until another one has ended
  parts.wait_for_connection(part_index);
  return true;
}

/// One of several connections may be on a bad path or to a bad server.
void RavelinOperation::Impl::replace_slow_part() {
  if (opr.is_cancelled() || download_exception)
    return;
  if (const auto slow = parts.take_slow()) {
    log("replacing a slow connection");
    slow->cancel();
  }
}

void RavelinOperation::Impl::end_part(const URL& link, std::int64_t part_index,
                                      const std::shared_ptr<PartialDataOpr>& request) {
  partial_data_oprs.erase(request);
  if (request == whole_request)
    whole_request = nullptr;
  if (parts.is_served_by(part_index, request) && parts.has_ended(part_index) &&
      !download_exception && !opr.is_cancelled())
    parts.wait_for_connection(part_index); // its request was slow
  if (!download_exception && !parts.starts_later())
    start_waiting_parts(link);
  if (whole_request && partial_data_oprs.size() == 1 && !parts.has_waiting() &&
      !opr.is_cancelled() && whole_received == 0) {
    parts.give_up(reached_part); // all others have ended, and it has sent nothing
    whole_request->cancel();
  }
  const bool goes_on = parts.starts_later() && parts.has_waiting() && parts.may_open(0) &&
                       !download_exception && !opr.is_cancelled();
  if (!goes_on)
    end_transfer_without_requests();
}

/// Starts parts that could not be started when another ended: the server wanted to be left alone,
/// or there was no thread.
void RavelinOperation::Impl::start_late_parts(const URL& link) {
  if (download_exception || !parts.has_waiting())
    return;
  start_waiting_parts(link);
  end_transfer_without_requests(); // if it was cancelled meanwhile
}

void RavelinOperation::Impl::end_transfer_without_requests() {
  if (!partial_data_oprs.empty())
    return;
  if (parts.has_waiting() && !download_exception) // cancelled, or the server wants to be left alone
    download_exception =
        opr.is_cancelled() ? to_error(Exception()) : holding_error.value_or(to_error(Exception()));
  if (!data_opr_sema)
    platform::fatal("nothing waits for the parts of this download");
  data_opr_sema->signal();
}

} // namespace ravelin
