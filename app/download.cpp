#include "app/download.h"

#include "app/event_lines.h"
#include "app/leftovers.h"
#include "app/link_mark.h"
#include "app/naming.h"
#include "app/output.h"
#include "app/sha256.h"
#include "bramblekit/background.h"
#include "bramblekit/errors.h"
#include "platform/files/file_marks.h"
#include "ravelin/main_queue.h"
#include "ravelin/text_error.h"

#include <fmt/core.h>

#include <utility>

namespace ravelin::app {

namespace fs = std::filesystem;

namespace {

std::string reason_of(const CustomError& error) {
  const auto* const other = error.get_if<CustomError::other>();
  const auto* const loading = other ? other->error.get_if<URLLoadingError>() : nullptr;
  const bool changed = loading && loading->refusal == URLLoadingError::Refusal::changed_content;
  auto text = error.text();
  if (const auto line_feed = text.find('\n'); line_feed != std::string::npos)
    text.erase(line_feed, 1); // the library's own texts have one between their halves
  return text + (changed ? "; begin anew with --on-conflict replace" : "");
}

} // namespace

Download::Download(std::string link, fs::path file, const GetOptions& options, ProgressView& view)
    : link_(std::move(link)), file_(std::move(file)), options_(options), view_(view),
      row_(view.add(file_.filename().native())), retries_(options.retries), split_(options.split),
      operation_(std::make_shared<RavelinOperation>()) {}

void Download::start(std::function<void(End)> on_end) {
  on_end_ = std::move(on_end);
  if (link_.starts_with("file:")) {
    fail("only http and https links work");
    return;
  }
  std::error_code ignored;
  if (fs::is_directory(file_, ignored)) {
    fail("it is a directory; name a file with --output, or use --dir");
    return;
  }
  if (fs::exists(file_, ignored) && !fs::is_regular_file(file_, ignored)) {
    fail("it is a pipe or a device; name a file with --output");
    return;
  }
  if (cancelled_) {
    stop();
    return;
  }
  if (const auto reason = take_lock(); !reason.empty())
    fail(reason);
  else
    attempt();
}

std::string Download::take_lock() {
  lock_.emplace(file_);
  if (lock_->held_by_another())
    return "another process is downloading to it; wait for that one or choose another --output";
  std::error_code ignored;
  const bool renames = options_.on_conflict == OnConflict::keep_both && fs::exists(file_, ignored);
  if (!lock_->other_owner().empty() && !renames)
    return "its resume record is in use for the unfinished '" + lock_->other_owner() +
           "'; finish or clear that one first, or choose another --output";
  return {};
}

/// Incomplete, but its record is gone: a process was killed while it began anew.
bool Download::lost_its_record() const {
  std::error_code ignored;
  return fs::is_regular_file(file_, ignored) && !fs::exists(record_of(file_), ignored) &&
         (lock_->unfinished() ||
          platform::extended_attribute(URL::file(file_), "lg_ignore").has_value());
}

OnConflict Download::policy() const {
  const auto asked_for = first_attempt_ ? options_.on_conflict : OnConflict::resume;
  const bool unusable =
      asked_for == OnConflict::resume && (lost_its_record() || !record_fits(file_));
  return unusable ? OnConflict::replace : asked_for; // after the first attempt the file is ours
}

/// In this order a killed process never leaves an unfinished file without its record.
void Download::prepare(OnConflict on_conflict) {
  std::error_code ignored;
  if (on_conflict == OnConflict::replace)
    RavelinOperation::clear_files(URL::file(file_));
  if (!fs::exists(file_, ignored) || fs::exists(record_of(file_), ignored))
    lock_->begin();
}

void Download::attempt() {
  waiting_ = false;
  const auto on_conflict = policy();
  first_attempt_ = false;
  prepare(on_conflict);
  operation_->resume(URL(link_), URL::file(file_), split_, on_conflict,
                     [self = shared_from_this()](const Status& status) {
                       if (MainQueue::is_main_thread())
                         self->on_status(status);
                       else // the creation of the files is told where it happens
                         MainQueue::async([self, status] { self->on_status(status); });
                     });
}

/// A save of the record that fails in mid-transfer stops the parts, and the run then ends as a
/// success all the same; only the record tells.
Status Download::checked(const Status& status) const {
  std::error_code ignored;
  if (!status.holds<Status::success>() || !fs::exists(record_of(file_), ignored))
    return status;
  return {Status::error{{CustomError::other{bramblekit::to_error(
      TextError("its resume record could not be saved in the middle; make room or mend "
                "the disk, then run the same command to continue"))}}}};
}

void Download::on_status(const Status& told) {
  const auto status = checked(told);
  const bool is_last = status.holds<Status::success>() || status.holds<Status::error>() ||
                       status.holds<Status::cancelled>();
  if (!is_last) // what ends a run need not end the download
    print_event(status);
  status.visit(match{
      [&](const Status::renamed& e) {
        file_ = e.new_file_url.path();
        renamed_ = true;
        view_.rename(row_, file_.filename().native());
        stop_reason_ = take_lock();
        if (stop_reason_.empty())
          lock_->begin();
        else
          operation_->cancel();
      },
      [&](const Status::files_are_created&) { mark_in_list(); },
      [&](const Status::started& e) { length_ = e.content_length; },
      [&](const Status::downloading& e) { view_.show_progress(row_, e.progress); },
      [&](const Status::cancelled&) {
        if (stop_reason_.empty())
          stop();
        else
          fail(stop_reason_);
      },
      [&](const Status::error& e) { on_error(e.custom_error); },
      [&](const Status::pending&) { view_.show_state(row_, "waiting for its turn"); },
      [&](const Status::connecting&) {
        connected_ = true;
        view_.show_state(row_, "connecting");
      },
      [&](const Status::success&) { on_success(); },
      [&](const Status::cancelling&) { view_.show_state(row_, "stopping"); },
  });
}

/// A single link asks for no distinction, and its file bears no trace.
void Download::mark_in_list() {
  if (options_.links.size() > 1)
    mark(file_, link_);
}

void Download::on_error(const CustomError& error) {
  if (cancelled_) {
    stop();
    return;
  }
  const auto received = RavelinOperation::get_progress(URL::file(file_)).received_bytes;
  switch (retries_.judge(error, received, split_)) {
  case Remedy::give_up:
    print_event({Status::error{error}});
    show_failure(reason_of(error));
    return;
  case Remedy::try_in_one_piece:
    split_ = false;
    view_.say(fmt::format("ravelin: {}: {}; fetching it in one piece", printable(link_),
                          printable(reason_of(error))));
    break;
  case Remedy::try_again:
    view_.say(fmt::format("ravelin: {}: {}; {}", printable(link_), printable(reason_of(error)),
                          retries_.words()));
    break;
  }
  print_event({Status::error{error}}, false);
  retry_later();
}

void Download::retry_later() {
  waiting_ = true;
  view_.show_state(row_, "waiting to try again");
  const std::chrono::duration<double> wait = retries_.wait();
  bramblekit::bg_async(wait.count(), [self = shared_from_this()] {
    MainQueue::async([self] {
      if (std::exchange(self->waiting_, false))
        self->attempt();
    });
  });
}

void Download::cancel() {
  cancelled_ = true;
  if (std::exchange(waiting_, false))
    stop();
  else
    operation_->cancel();
}

std::string Download::finished_words() const {
  if (!connected_)
    return "already complete";
  std::error_code unknown;
  const auto size = fs::file_size(file_, unknown);
  return unknown ? "done" : "done, " + human_size(static_cast<std::int64_t>(size));
}

std::string Download::flaw() const {
  if (!connected_)
    return {};
  std::error_code missing;
  const auto size = fs::file_size(file_, missing);
  if (missing)
    return "the file went away while it was being downloaded; run the same command again";
  if (options_.defaults.require_exact_ranges && length_ &&
      size != static_cast<std::uintmax_t>(*length_))
    return "it has " + std::to_string(size) + " bytes and not " + std::to_string(*length_) +
           "; run the same command with --on-conflict replace";
  return {};
}

void Download::on_success() {
  if (const auto what = flaw(); !what.empty()) {
    fail(what);
    return;
  }
  lock_->finish();
  if (!options_.sha256) {
    succeed(finished_words());
    return;
  }
  view_.show_state(row_, "comparing the checksum");
  bramblekit::bg_async(0, [self = shared_from_this()] {
    std::string found;
    try {
      found = sha256_of(self->file_);
    } catch (const std::exception& error) {
      found = error.what();
    }
    MainQueue::async([self, found] {
      if (found == *self->options_.sha256) {
        self->succeed(self->finished_words() + ", checksum right");
        return;
      }
      auto wrong = self->file_;
      std::error_code failed;
      if (self->connected_) {
        wrong += ".sha256-mismatch";
        fs::rename(self->file_, wrong, failed);
      }
      self->fail("its SHA-256 is " + found + ", not the one asked for; it is kept as '" +
                 (failed ? self->file_ : wrong).native() + "'");
    });
  });
}

void Download::print_event(const Status& status, bool is_final) {
  if (options_.events)
    print_line(event_line(status, link_, file_.native(), is_final));
}

void Download::succeed(const std::string& words) {
  print_event({Status::success{}});
  end(End::success, words);
}

void Download::stop() {
  print_event({Status::cancelled{false, RavelinOperation::get_progress(URL::file(file_))}});
  end(End::cancelled, interrupted_words());
}

std::string Download::interrupted_words() const {
  if (first_attempt_)
    return "interrupted before it began";
  std::error_code ignored;
  if (fs::exists(record_of(file_), ignored) && !can_continue(file_))
    return "interrupted; the same command starts anew";
  if (options_.on_conflict == OnConflict::resume)
    return "interrupted; the same command continues";
  return renamed_ ? "interrupted; continues with this name and --on-conflict resume"
                  : "interrupted; continues with --on-conflict resume";
}

void Download::fail(const std::string& why) {
  print_event({Status::error{{CustomError::other{bramblekit::to_error(TextError(why))}}}});
  show_failure(why);
}

void Download::show_failure(const std::string& why) {
  view_.say(fmt::format("ravelin: {} -> {}: {}", printable(link_), printable(file_.native()),
                        printable(why)));
  end(End::failure, "failed");
}

void Download::end(End how, const std::string& word) {
  lock_.reset();
  view_.finish(row_, word);
  MainQueue::async([call = std::exchange(on_end_, nullptr), how] { call(how); });
}

} // namespace ravelin::app
