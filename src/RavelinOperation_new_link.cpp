#include "bramblekit/errors.h"
#include "bramblekit/main_thread.h"
#include "platform/files/file_manager.h"
#include "src/LinkIdentity.h"
#include "src/RavelinOperation_impl.h"
#include "src/ResponseChecks.h"

#include <algorithm>

// Whether an unfinished file may be continued, from its own link or another one.

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
void RavelinOperation::Impl::bg_check_unfinished(Run& run, bool split_allowed,
                                                 HeldResponse& held_response) {
  run.is_compared = false;
  const auto& file = run.destination;
  const bool checks = checks_destination();
  const auto origin = checks ? origin_of(file, run.link) : Origin::unknown;
  const bool compares = checks && settings->options.compare_new_link.value_or(false);
  const bool rejects_changes = settings->options.reject_changed_content.value_or(false);
  if ((!checks && !rejects_changes) || run.must_restart ||
      !platform::FileManager::default_manager().file_exists(file))
    return;
  const auto found = FileProcessor::read_resume_data(file);
  const auto record = found ? *found : ResumeData();
  const auto noted = noted_version(file, record);
  const auto [current, has_ranges, splits] = main_sync([&]() MAIN_ONLY {
    return std::tuple(probed_version, ranges_accepted,
                      can_split(split_allowed, ranges_accepted, content_len, settings->options));
  });
  const bool is_short = must_restart(run);
  // Where attributes cannot be set, the origin is unknown even of what this run has received.
  const bool is_own =
      origin == Origin::same_link || (origin == Origin::unknown && (!compares || run.has_content));
  const bool must_compare = compares && !is_own; // and nothing else may happen to the file
  if (split_allowed && checks && rejects_changes && origin != Origin::other_link && !must_compare) {
    refuse_other_length(record, current.total);
    if (!has_ranges && record.is_splitted && record.received_bytes() > 0 && keeps_unfinished(run))
      lost_ranges("no longer offers byte ranges").rethrow();
  }
  const bool has_same_length = noted.total && noted.total == current.total;
  const bool is_continued = record.is_splitted && splits && has_same_length;
  if (is_own) {
    if (rejects_changes && is_continued && record.is_valid() && record.has_counts_within_parts())
      bg_compare_with_own_link(run, record, held_response);
    return;
  }
  const auto difference = describe_difference(noted, current);
  if (origin != Origin::other_link &&
      (record.received_bytes() == 0 || (!compares && (!is_continued || difference))))
    return; // it starts again, or is refused as changed
  if (is_shown_equal(noted, current) && !compares)
    return;
  if (noted.total && current.total && !has_same_length)
    refuse_link(", and " + *difference);
  if (!compares && origin == Origin::other_link)
    refuse_unknown(difference);
  if (!is_continued)
    refuse_link(", and it cannot be compared and continued without byte ranges");
  if (compares && (is_short || record.received_bytes() < min_received))
    refuse_link(is_short ? ", and is shorter than its record says"
                         : ", and has too few bytes for a comparison");
  const auto different = bg_compare(run, record, held_response);
  if (different && compares)
    refuse_link(", and bytes " + *different + " are different at the new one");
  if (different)
    changed_content("bytes " + *different + " are different").rethrow();
}

/// Where no ETag or date shows that the content of a link is still the same, what an earlier run
/// received is compared. What this run receives is not: it would cost as many requests at each
/// retry.
void RavelinOperation::Impl::bg_compare_with_own_link(Run& run, const ResumeData& record,
                                                      HeldResponse& held_response) {
  const auto noted = noted_version(run.destination, record);
  const auto current = main_sync([&]() MAIN_ONLY { return probed_version; });
  if (run.has_content || record.received_bytes() == 0 || is_shown_equal(noted, current) ||
      ResponseChecks(settings->options).refuse_continuing(noted, current))
    return; // if it is refused, then with its files open
  if (const auto different = bg_compare(run, record, held_response))
    changed_content("bytes " + *different + " are different").rethrow();
}

/// The first range that is different. Bytes that are not on record are not looked at: they will be
/// written again. If there are too few for a comparison, or some of them are lost, the download
/// restarts.
std::optional<std::string> RavelinOperation::Impl::bg_compare(Run& run, const ResumeData& record,
                                                              HeldResponse& held_response) {
  if (must_restart(run) || record.received_bytes() < min_received) {
    run.must_restart = true;
    return std::nullopt;
  }
  held_response = nullptr; // the server may allow only one connection
  for (const auto& part : record.parts) {
    const auto range = sample_of(*part);
    if (part->curr_bytes <= 0)
      continue;
    const auto ours = platform::read_range(run.destination, range.start,
                                           static_cast<std::size_t>(range.size()), run.links);
    if (static_cast<std::int64_t>(ours.size()) < range.size()) {
      run.must_restart = true;
      return std::nullopt;
    }
    if (ours != bg_request_bytes(run.link, range))
      return range.text();
  }
  run.is_compared = true;
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
