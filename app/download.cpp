#include "app/download.h"

#include "app/event_lines.h"
#include "app/naming.h"
#include "app/output.h"
#include "app/sha256.h"

#include <fmt/core.h>

#include <thread>
#include <utility>

namespace ravelin::app {

namespace fs = std::filesystem;

namespace {

std::string describe_reason(const CustomError& error) {
  const auto* const other = error.get_if<CustomError::other>();
  const auto* const loading = other ? other->error.get_if<URLLoadingError>() : nullptr;
  auto text = error.text();
  if (const auto line_feed = text.find('\n'); line_feed != std::string::npos) {
    const bool is_record_invalid = text.find("resume data") != std::string::npos;
    text.erase(line_feed, 1); // some texts of the library have one in the middle
    if (is_record_invalid)
      text += "; use --on-conflict replace to download it again";
  }
  if (loading && loading->refusal == URLLoadingError::Refusal::changed_content)
    text += "; use --on-conflict replace to download it again";
  if (other && (other->error.code() == std::errc::no_space_on_device ||
                other->error.code() == std::errc::file_too_large))
    text += "; free up space, then run the same command to resume";
  return text;
}

} // namespace

Download::Download(std::string link, fs::path file, const GetOptions& options, ProgressView& view)
    : link_(std::move(link)), file_(std::move(file)), options_(options), view_(view),
      row_(view.add(file_.filename().native(), [this] { return speed(); })) {}

void Download::start(std::function<void(End)> on_end) {
  on_end_ = std::move(on_end);
  std::error_code ignored;
  if (link_.starts_with("file:"))
    return fail("only http and https links are supported");
  if (fs::is_directory(file_, ignored))
    return fail("the destination is a directory; name a file with --output, or use --dir");
  if (fs::exists(file_, ignored) && !fs::is_regular_file(file_, ignored))
    return fail("the destination is a pipe or a device; name a file with --output");
  if (cancelled_)
    return stop();
  started_ = true;
  auto options = options_.download;
  options.on_retry = [self = shared_from_this()](const RetryNotice& notice) {
    self->on_retry(notice);
  };
  operation_ = std::make_shared<RavelinOperation>(std::move(options));
  operation_->resume(URL(link_), URL::file(file_), options_.split, options_.on_conflict,
                     [self = shared_from_this()](const Status& status) {
                       if (MainQueue::is_main_thread())
                         self->on_status(status);
                       else // `files_are_created` is sent on a background thread
                         MainQueue::async([self, status] { self->on_status(status); });
                     });
}

void Download::on_status(const Status& status) {
  if (!status.is_final() && !status.holds<Status::downloading>())
    print_event(status);
  status.visit(match{
      [&](const Status::renamed& e) {
        file_ = e.new_file_url.path();
        renamed_ = true;
        view_.rename(row_, file_.filename().native());
      },
      [](const Status::files_are_created&) {},
      [&](const Status::started&) { is_downloaded_ = true; },
      [&](const Status::downloading& e) { show_progress(e.progress); },
      [&](const Status::cancelled&) { stop(); },
      [&](const Status::error& e) { fail(e.custom_error); },
      [&](const Status::pending&) { view_.show_state(row_, "waiting for a free slot"); },
      [&](const Status::connecting&) { view_.show_state(row_, "connecting"); },
      [&](const Status::success&) { on_success(); },
      [&](const Status::cancelling&) { view_.show_state(row_, "stopping"); },
  });
}

RavelinOperation::Speed Download::speed() const {
  return operation_ ? operation_->speed() : RavelinOperation::Speed();
}

void Download::show_progress(const Progress& progress) {
  view_.show_progress(row_, progress);
  const auto now = std::chrono::steady_clock::now();
  const bool is_complete = progress.content_length == progress.received_bytes;
  if (!is_complete && now - last_progress_event_ < options_.events_interval)
    return;
  last_progress_event_ = now;
  print_event({Status::downloading{progress}});
}

void Download::on_retry(const RetryNotice& notice) {
  view_.print_message(fmt::format("ravelin: {}: {}; {}", shown_link(link_),
                                  printable(describe_reason(notice.error)), notice.text));
  view_.show_state(row_, "waiting to retry");
  print_event({Status::error{notice.error}}, false);
}

void Download::cancel() {
  cancelled_ = true;
  if (operation_)
    operation_->cancel();
}

void Download::on_success() {
  if (options_.sha256)
    verify_checksum();
  else
    succeed(describe_success());
}

void Download::verify_checksum() {
  view_.show_state(row_, "checking the checksum");
  std::thread([self = shared_from_this()]() mutable {
    std::string sha256;
    std::string error;
    try {
      sha256 = sha256_of(self->file_);
    } catch (const std::exception& e) {
      error = e.what();
    }
    MainQueue::async([self = std::move(self), sha256, error] {
      if (!error.empty())
        self->fail(error);
      else if (sha256 == *self->options_.sha256)
        self->succeed(self->describe_success() + ", checksum OK");
      else
        self->fail_checksum(sha256);
    });
  }).detach();
}

void Download::fail_checksum(const std::string& sha256) {
  auto kept_as = file_;
  if (is_downloaded_) { // a file that existed before is not ours to rename
    std::error_code error;
    kept_as += ".sha256-mismatch";
    fs::rename(file_, kept_as, error);
    if (error)
      kept_as = file_;
  }
  fail("SHA-256 mismatch: got " + sha256 + "; the file was kept as '" + kept_as.native() + "'");
}

std::string Download::describe_success() const {
  if (!is_downloaded_)
    return "already complete";
  std::error_code error;
  const auto size = fs::file_size(file_, error);
  return error ? "done" : "done, " + human_size(static_cast<std::int64_t>(size));
}

std::string Download::describe_interruption() const {
  if (!started_)
    return "interrupted before it started";
  const auto state = RavelinOperation::get_file_state(URL::file(file_));
  if (state.is_unfinished && !state.can_continue)
    return "interrupted; the same command restarts it";
  if (options_.on_conflict == OnConflict::resume)
    return "interrupted; run the same command to resume";
  return renamed_ ? "interrupted; to resume, use this name and --on-conflict resume"
                  : "interrupted; to resume, use --on-conflict resume";
}

void Download::print_event(const Status& status, bool is_final) {
  if (options_.events)
    print_line(event_line(status, {link_, file_.native(), is_final, speed()}));
}

void Download::succeed(const std::string& summary) {
  print_event({Status::success{}});
  end(End::success, summary);
}

void Download::stop() {
  print_event({Status::cancelled{false, RavelinOperation::get_progress(URL::file(file_))}});
  end(End::cancelled, describe_interruption());
}

void Download::fail(const CustomError& error) {
  if (cancelled_)
    return stop();
  print_event({Status::error{error}});
  show_failure(describe_reason(error));
}

void Download::fail(const std::string& reason) {
  print_event(
      {Status::error{{CustomError::other{Error(std::make_exception_ptr(TextError(reason)))}}}});
  show_failure(reason);
}

void Download::show_failure(const std::string& reason) {
  view_.print_message(fmt::format("ravelin: {} -> {}: {}", shown_link(link_),
                                  printable(file_.native()), printable(reason)));
  end(End::failure, "failed");
}

void Download::end(End how, const std::string& summary) {
  view_.finish(row_, summary);
  MainQueue::async([call = std::exchange(on_end_, nullptr), how] { call(how); });
}

} // namespace ravelin::app
