#include "app/download.h"

#include "app/event_lines.h"
#include "app/finished_file.h"
#include "app/naming.h"
#include "app/output.h"

#include <fmt/core.h>

#include <algorithm>
#include <climits>
#include <thread>
#include <utility>

namespace ravelin::app {

namespace fs = std::filesystem;

namespace {

const URLLoadingError* loading_error(const CustomError& error) {
  const auto* const other = error.get_if<CustomError::other>();
  return other ? other->error.get_if<URLLoadingError>() : nullptr;
}

std::string describe_reason(const CustomError& error) {
  const auto* const other = error.get_if<CustomError::other>();
  const auto* const loading = loading_error(error);
  auto text = error.text();
  if (const auto line_feed = text.find('\n'); line_feed != std::string::npos) {
    const bool is_record_invalid = text.find("resume data") != std::string::npos;
    text.erase(line_feed, 1); // some texts of the library have one in the middle
    if (is_record_invalid)
      text += "; use --on-conflict replace to download it again";
  }
  if (loading && loading->refusal == URLLoadingError::Refusal::unknown_content)
    text += "; use --same-file to check that and continue, or choose another file";
  if (other && other->error.code() == std::errc::no_space_on_device)
    text += "; free up space, then run the same command to resume";
  if (other && other->error.code() == std::errc::file_too_large) // as on FAT
    text += "; the file system or a limit of the process does not allow files of this size";
  return text;
}

} // namespace

Download::Download(Link link, fs::path file, const GetOptions& options, ProgressView& view)
    : link_(std::move(link.url)), checksum_(std::move(link.checksum)), file_(std::move(file)),
      options_(options), view_(view),
      row_(view.add(file_.filename().native(), [this] { return speed(); })) {}

void Download::start(std::function<void(End)> on_end) {
  on_end_ = std::move(on_end);
  if (options_.checksum_list && !checksum_)
    checksum_ = find_checksum(options_.checksum_list_text, file_.filename().native());
  if (options_.checksum_list && !checksum_)
    checksum_ =
        find_checksum(options_.checksum_list_text, suggested_name(URL(link_)).value_or(no_name));
  if (const auto reason = refusal())
    return fail(*reason);
  if (cancelled_)
    return stop();
  if (const auto reason = make_directory())
    return fail(*reason);
  started_ = true;
  began_at_ = std::chrono::steady_clock::now();
  begin(options_.on_conflict);
}

/// Why the download cannot start.
std::optional<std::string> Download::refusal() const {
  std::error_code ignored;
  if (link_.starts_with("file:"))
    return "only http and https links are supported";
  if (fs::is_directory(file_, ignored))
    return "the destination is a directory; name a file with --output, or use --dir";
  if (fs::exists(file_, ignored) && !fs::is_regular_file(file_, ignored))
    return "the destination is a pipe or a device; name a file with --output";
  if (options_.on_conflict == OnConflict::stop && fs::exists(file_, ignored))
    return RavelinOperation::get_file_state(URL::file(file_)).is_unfinished
               ? "the file already exists and is unfinished; to continue it, use --on-conflict "
                 "resume"
               : "the file already exists";
  const auto lock = RavelinOperation::get_resume_file(URL::file(file_)).path() += ".lock";
  for (const auto& needed : {file_, lock})
    if (needed.filename().native().size() > NAME_MAX)
      return "the name of the file is too long; give a shorter one with --output";
  if (options_.checksum_list && !checksum_)
    return "'" + shown_link(*options_.checksum_list) + "' has no checksum of this file";
  return std::nullopt;
}

/// Why the file has no directory.
std::optional<std::string> Download::make_directory() const {
  std::error_code error;
  if (!options_.directory.empty())
    fs::create_directories(options_.directory, error);
  if (error)
    return "could not create the directory '" + options_.directory.native() +
           "': " + error.message();
  const auto directory = file_.has_parent_path() ? file_.parent_path() : ".";
  if (fs::status(directory, error).type() == fs::file_type::not_found)
    return "the directory '" + directory.native() + "' does not exist; create it, or use --dir";
  return std::nullopt;
}

void Download::begin(OnConflict on_conflict) {
  auto options = options_.download;
  options.on_retry = [self = shared_from_this()](const RetryNotice& notice) {
    self->on_retry(notice);
  };
  operation_ = std::make_shared<RavelinOperation>(std::move(options));
  operation_->resume(URL(link_), URL::file(file_), options_.split, on_conflict,
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
      [&](const Status::files_are_created&) { is_new_ = true; },
      [&](const Status::started&) {
        is_downloaded_ = true;
        if (!is_new_)
          resumed_at_ = RavelinOperation::get_progress(URL::file(file_)).received_bytes;
      },
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
  received_ = std::max<std::int64_t>(progress.received_bytes - resumed_at_, received_);
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

/// Content that has changed since the download was begun is downloaded from its beginning, once.
bool Download::restarts_after(const CustomError& error) {
  const auto* const loading = loading_error(error);
  if (!loading || loading->refusal != URLLoadingError::Refusal::changed_content ||
      !options_.restart_changed || std::exchange(restarted_, true))
    return false;
  view_.print_message(fmt::format("ravelin: {}: {}; downloading it again", shown_link(link_),
                                  printable(error.text())));
  print_event({Status::error{error}}, false);
  resumed_at_ = 0;
  is_new_ = true;
  begin(OnConflict::replace);
  return true;
}

void Download::on_success() {
  const auto response = operation_->response();
  if (!checksum_ && is_downloaded_ && options_.check_digests && response)
    checksum_ = digest_of(*response);
  if (checksum_)
    verify_checksum();
  else
    succeed(describe_success(""));
}

void Download::verify_checksum() {
  view_.show_state(row_, "checking the checksum");
  auto verify = [self = shared_from_this()]() mutable {
    Checksum found;
    std::string error;
    try {
      found = checksum_of(self->file_, self->checksum_->algorithm);
    } catch (const std::exception& e) {
      error = e.what();
    }
    MainQueue::async([self = std::move(self), found, error] {
      if (!error.empty())
        self->fail(error);
      else if (found.digits == self->checksum_->digits)
        self->succeed(self->describe_success(", checksum OK"));
      else
        self->fail_checksum(found);
    });
  };
  try {
    std::thread(verify).detach();
  } catch (const std::system_error&) { // no thread is left
    verify();
  }
}

void Download::fail_checksum(const Checksum& found) {
  auto kept_as = file_;
  if (is_downloaded_) { // a file that existed before is not ours to rename
    std::error_code error;
    kept_as += found.algorithm == Checksum::sha256 ? ".sha256-mismatch" : ".sha512-mismatch";
    fs::rename(file_, kept_as, error);
    if (error)
      kept_as = file_;
  }
  fail(found.name() + " mismatch: got " + found.digits + "; the file was kept as '" +
       kept_as.native() + "'");
}

std::string Download::describe_success(const std::string& verdict) const {
  if (!is_downloaded_)
    return "already complete" + verdict;
  std::error_code error;
  const auto size = fs::file_size(file_, error);
  if (error)
    return "done" + verdict;
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - began_at_;
  return "done" + verdict + ", " + human_size(static_cast<std::int64_t>(size)) +
         describe_average(received_, time);
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
  if (is_downloaded_ && options_.remote_time)
    if (const auto response = operation_->response())
      set_remote_time(file_, *response);
  if (is_downloaded_ && options_.note_origin)
    note_origin_link(file_, link_);
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
  if (restarts_after(error))
    return;
  print_event({Status::error{error}});
  show_failure(describe_reason(error) + describe_expiry(error) + describe_change(error));
}

/// What to do about content that has changed.
std::string Download::describe_change(const CustomError& error) const {
  const auto* const loading = loading_error(error);
  if (!loading || loading->refusal != URLLoadingError::Refusal::changed_content)
    return "";
  const bool was_replaced = restarted_ || options_.on_conflict == OnConflict::replace;
  if (was_replaced)
    return options_.split
               ? "; try again, with --no-split if the server sends another ETag each time"
               : "; try again";
  return options_.on_conflict == OnConflict::keep_both
             ? "; delete '" + file_.native() + "' to download it again"
             : "; use --on-conflict replace to download it again";
}

/// What to do about a link that may have expired in the middle of a download.
std::string Download::describe_expiry(const CustomError& error) const {
  const auto* const loading = loading_error(error);
  const auto status = loading ? loading->http_status.value_or(0) : 0;
  const bool may_have_expired = status == 401 || status == 403 || status == 410;
  if (!may_have_expired || !RavelinOperation::get_file_state(URL::file(file_)).can_continue)
    return "";
  return "; if the link has expired, get a new one and resume with ravelin get -o '" +
         file_.native() + "' LINK";
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
