#include "app/name_question.h"

#include "app/content_disposition.h"
#include "app/event_lines.h"
#include "app/naming.h"
#include "app/output.h"
#include "bramblekit/background.h"
#include "ravelin/main_queue.h"

#include <fmt/core.h>

#include <utility>

namespace ravelin::app {

namespace {

CustomError sorted(const Error& error) {
  if (error.code() == URLError::timed_out)
    return {CustomError::timeout{}};
  if (error.code() == URLError::network_connection_lost)
    return {CustomError::network_connection_lost{}};
  return {CustomError::other{error}};
}

} // namespace

NameQuestion::NameQuestion(std::string link, const GetOptions& options, ProgressView& view)
    : link_(std::move(link)), options_(options), view_(view), retries_(options.retries) {}

void NameQuestion::start(std::function<void(std::optional<std::string>)> on_end) {
  on_end_ = std::move(on_end);
  attempt();
}

void NameQuestion::attempt() {
  request_ = std::make_shared<HeaderOpr>();
  request_->request(URL(link_),
                    [self = shared_from_this()](const auto& status) { self->on_status(status); });
}

void NameQuestion::on_status(const HeaderOpr::Status& status) {
  std::visit(match{[&](const HeaderOpr::Status::success& e) {
                     const auto* const field =
                         platform::find_field(e.result.header, "Content-Disposition");
                     auto name = field ? name_from_disposition(*field) : std::nullopt;
                     end(name ? std::move(name) : name_from_link(link_));
                   },
                   [&](const HeaderOpr::Status::error& e) { on_error(e.error); },
                   [&](const HeaderOpr::Status::cancelled&) { end(std::nullopt); }},
             status.value);
}

/// Another name would begin another file where the same command is to continue one.
void NameQuestion::on_error(const Error& error) {
  const auto why = sorted(error);
  const bool again = !cancelled_ && retries_.judge(why, 0, false) == Remedy::try_again;
  if (!cancelled_)
    view_.say(fmt::format("ravelin: {}: {}{}", printable(link_), printable(why.text()),
                          again ? "; " + retries_.words() : ""));
  if (options_.events && !cancelled_)
    print_line(event_line({Status::error{why}}, link_, "", !again));
  if (!again) {
    failed_ = !cancelled_;
    end(std::nullopt);
    return;
  }
  waiting_ = true;
  const std::chrono::duration<double> wait = retries_.wait();
  bramblekit::bg_async(wait.count(), [self = shared_from_this()] {
    MainQueue::async([self] {
      if (std::exchange(self->waiting_, false))
        self->attempt();
    });
  });
}

void NameQuestion::cancel() {
  cancelled_ = true;
  if (std::exchange(waiting_, false))
    end(std::nullopt);
  else if (on_end_)
    request_->cancel();
}

void NameQuestion::end(std::optional<std::string> name) {
  MainQueue::async(
      [call = std::exchange(on_end_, nullptr), name = std::move(name)] { call(name); });
}

} // namespace ravelin::app
