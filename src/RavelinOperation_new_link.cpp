#include "bramblekit/errors.h"
#include "bramblekit/main_thread.h"
#include "platform/files/file_manager.h"
#include "src/LinkIdentity.h"
#include "src/RavelinOperation_impl.h"
#include "src/ResponseChecks.h"

#include <algorithm>

// Whether an unfinished file may be continued from another link.

namespace ravelin {

using bramblekit::Exception;
using bramblekit::main_sync;
using bramblekit::to_error;
using platform::BytesRange;
using platform::Semaphore;

namespace {

constexpr std::int64_t max_sample = 64 * 1024; // bytes of each part
constexpr std::int64_t min_received = 1024;    // less says little, and is soon downloaded again
constexpr const char* from_another = "the unfinished file is from another link";
constexpr const char* advice = "; delete it or choose another file";

[[noreturn]] void refuse_unknown(const std::optional<std::string>& difference) {
  URLLoadingError error(URLError::bad_server_response,
                        std::string(from_another) +
                            ", and it is unknown whether the content is the same" +
                            (difference ? " (" + *difference + ")" : ""));
  error.refusal = URLLoadingError::Refusal::unknown_content;
  throw error;
}

[[noreturn]] void refuse_link(const std::string& reason) {
  throw TextError(from_another + reason + advice);
}

/// Otherwise what has arrived would be thrown away, for example for the page that a link leads to
/// after it has expired.
void refuse_other_length(const ResumeData& record, std::optional<std::int64_t> length) {
  const auto before = record.content_length;
  if (!record.is_splitted || record.received_bytes() == 0 || !before || before == length)
    return;
  const auto& last = *record.parts.back();
  if (last.begin_pos > *before || last.total_bytes_expected != *before - last.begin_pos)
    return; // a damaged record, which is another error
  changed_content("its length was " + std::to_string(*before) + " and is now " +
                  (length ? std::to_string(*length) : "unknown"))
      .rethrow();
}

/// The last bytes of a part that have arrived.
BytesRange sample_of(const ResumeData::Part& part) {
  const auto end = part.begin_pos + part.curr_bytes;
  return {end - std::min(part.curr_bytes, max_sample), end - 1};
}

} // namespace

/// An unfinished file from another link might be continued with the wrong content. The same length
/// shows nothing. Links that differ only in the query are taken for one whose content may have
/// changed, since queries may contain tokens; without validators, what is there is compared.
void RavelinOperation::Impl::bg_check_unfinished(Run& run, bool split_allowed) {
  run.is_compared = false;
  const auto& file = run.destination;
  const auto origin = origin_of(file, run.link);
  const bool compares = settings->options.compare_new_link.value_or(false);
  if (!checks_destination() || run.must_restart ||
      !platform::FileManager::default_manager().file_exists(file))
    return;
  const auto found = FileProcessor::read_resume_data(file);
  const auto record = found ? *found : ResumeData();
  const auto noted = noted_version(file, record);
  const auto [current, splits] = main_sync([&]() MAIN_ONLY {
    return std::pair(probed_version,
                     can_split(split_allowed, ranges_accepted, content_len, settings->options));
  });
  if (split_allowed && origin != Origin::other_link &&
      settings->options.reject_changed_content.value_or(false))
    refuse_other_length(record, current.total);
  if (origin == Origin::same_link || (origin == Origin::unknown && !compares))
    return;
  const bool has_same_length = noted.total && noted.total == current.total;
  const bool is_continued = record.is_splitted && splits && has_same_length;
  const auto difference = describe_difference(noted, current);
  if (origin != Origin::other_link &&
      (!is_continued || record.received_bytes() == 0 || (difference && !compares)))
    return; // it starts again, or is refused as changed
  if (is_shown_equal(noted, current) && !compares)
    return;
  if (noted.total && current.total && !has_same_length)
    refuse_link(", and " + *difference);
  if (!compares && origin == Origin::other_link)
    refuse_unknown(difference);
  if (!is_continued)
    refuse_link(", and it cannot be compared and continued without byte ranges");
  if (record.received_bytes() < min_received) {
    if (compares)
      refuse_link(", and has too few bytes for a comparison");
    run.must_restart = true;
    return;
  }
  if (const auto different = bg_compare(run, record)) {
    if (compares)
      refuse_link(", and bytes " + *different + " are different at the new one");
    changed_content("bytes " + *different + " are different").rethrow();
  }
  run.is_compared = true;
}

/// The first range that is different. Bytes that are not on record are not looked at: they will be
/// written again.
std::optional<std::string> RavelinOperation::Impl::bg_compare(const Run& run,
                                                              const ResumeData& record) {
  for (const auto& part : record.parts) {
    const auto range = sample_of(*part);
    if (part->curr_bytes <= 0)
      continue;
    const auto ours = platform::read_range(run.destination, range.start,
                                           static_cast<std::size_t>(range.size()), run.links);
    if (ours != bg_request_bytes(run.link, range))
      return range.text();
  }
  return std::nullopt;
}

std::string RavelinOperation::Impl::bg_request_bytes(const URL& link, const BytesRange& range) {
  std::string bytes;
  std::optional<Error> error;
  // Anything but the range would be compared in vain, and might have any size.
  const auto exact = std::make_shared<platform::RequestSettings>(*settings);
  exact->options.require_exact_ranges = true;
  bramblekit::wait_signal_main([&](Semaphore& sema) MAIN_ONLY {
    if (opr.is_cancelled())
      throw Exception();
    const auto request = std::make_shared<PartialDataOpr>();
    request->settings = exact;
    request->expected_version = probed_version;
    partial_data_oprs.insert(request);
    const auto end = [&, request](std::optional<Error> how) MAIN_ONLY {
      error = std::move(how);
      partial_data_oprs.erase(request);
      sema.signal();
    };
    using Event = PartialDataOpr::Status;
    request->request(link, range, [&, end](const Event& event) MAIN_ONLY {
      if (const auto* const received = std::get_if<Event::did_receive_data>(&event.value))
        bytes += received->progress.data.text();
      else if (const auto* const failed = std::get_if<Event::error>(&event.value))
        end(failed->error);
      else if (std::holds_alternative<Event::cancelled>(event.value))
        end(to_error(Exception()));
      else if (std::holds_alternative<Event::success>(event.value))
        end(std::nullopt);
    });
  });
  if (error)
    error->rethrow();
  return bytes;
}

} // namespace ravelin
