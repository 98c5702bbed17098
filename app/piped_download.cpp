#include "app/piped_download.h"

#include "app/naming.h"
#include "app/output.h"
#include "bramblekit/background.h"
#include "bramblekit/main_thread.h"
#include "platform/network/retry_wait.h"

#include <fmt/core.h>

#include <csignal>
#include <unistd.h>
#include <utility>

namespace ravelin::app {
namespace {

bool is_binary(std::string_view bytes) {
  return bytes.find('\0') != std::string_view::npos;
}

/// The options of a request for the rest of what has been written in part.
Options exact(Options options) {
  options.require_exact_ranges = true;
  options.reject_changed_content = true;
  return options;
}

std::string name_of(const Link& link) {
  return suggested_name(URL(link.url)).value_or(no_name);
}

} // namespace

PipedDownload::PipedDownload(GetOptions options)
    : options_(std::move(options)), link_(options_.links.front()),
      settings_(platform::RequestSettings::snapshot(options_.download)),
      settings_for_rest_(platform::RequestSettings::snapshot(exact(options_.download))),
      policy_(settings_->options.retry.value_or(Retry{})),
      view_(options_.quiet || !isatty(STDERR_FILENO) || isatty(STDOUT_FILENO)),
      row_(view_.add(name_of(link_),
                     [this] {
                       RavelinOperation::Speed speed;
                       speed.bytes_per_second = speed_meter_.rate();
                       if (version_.total)
                         speed.left = speed_meter_.time_left(*version_.total - received_);
                       return speed;
                     })),
      given_checksum_(link_.checksum) {}

void PipedDownload::start() {
  if (options_.checksum_list && !given_checksum_) {
    given_checksum_ = find_checksum(options_.checksum_list_text, name_of(link_));
    if (!given_checksum_)
      return fail("'" + shown_link(*options_.checksum_list) + "' has no checksum of this file");
  }
  if (link_.url.starts_with("file:"))
    return fail("only http and https links are supported");
  request_header();
}

void PipedDownload::request_header() {
  view_.show_state(row_, "connecting");
  header_request_ = std::make_shared<HeaderOpr>();
  header_request_->settings = settings_;
  header_request_->holds_response = [](const HeaderOpr::Result&) { return true; };
  header_request_->request(URL(link_.url), [this](const HeaderOpr::Status& status) {
    const auto request = std::exchange(header_request_, nullptr);
    if (has_ended_)
      return;
    if (const auto* const found = std::get_if<HeaderOpr::Status::success>(&status.value))
      on_header(*request, found->result), request_content(std::move(request->held_response));
    else if (const auto* const failed = std::get_if<HeaderOpr::Status::error>(&status.value))
      on_error(failed->error);
  });
}

void PipedDownload::on_header(const HeaderOpr& request, const HeaderOpr::Result& result) {
  version_ = ContentVersion::of_whole(result.header);
  accepts_ranges_ = result.ranges_accepted;
  checksum_ = given_checksum_;
  if (!checksum_ && options_.check_digests)
    checksum_ = digest_of(make_response(request.response, result));
  if (checksum_)
    hasher_.emplace(checksum_->algorithm);
}

/// Without a response, requests what has not arrived yet.
void PipedDownload::request_content(std::unique_ptr<platform::HeldResponse> held_response) {
  request_ = std::make_shared<PartialDataOpr>();
  request_->settings = held_response ? settings_ : settings_for_rest_;
  request_->expected_version = version_;
  std::optional<platform::BytesRange> range;
  if (!held_response) {
    request_->required_etag = version_.strong_etag;
    range = {received_, version_.total.value() - 1};
  }
  request_->held_response = std::move(held_response);
  request_->request(URL(link_.url), range,
                    [this](const PartialDataOpr::Status& event) { on_event(event); });
}

void PipedDownload::on_event(const PartialDataOpr::Status& event) {
  using Event = PartialDataOpr::Status;
  std::visit(match{
                 [](const Event::started&) {},
                 [](const Event::connecting&) {},
                 [&](const Event::did_receive_data& e) { on_data(e.progress.data); },
                 [&](const Event::bg_after_receive_data&) { bg_write_chunk(); },
                 [&](const Event::error& e) { on_error(e.error); },
                 [&](const Event::success&) { on_success(); },
                 [&](const Event::cancelled&) { fail(failure_.value_or("interrupted")); },
             },
             event.value);
}

void PipedDownload::on_data(const platform::Data& data) {
  if (received_ == 0 && isatty(STDOUT_FILENO) && is_binary(data.text())) {
    failure_ = "the content is binary and would garble the terminal; redirect standard output, or "
               "name a file with --output";
    request_->cancel();
    return;
  }
  if (hasher_)
    hasher_->add(data.text());
  received_ += static_cast<std::int64_t>(data.size());
  chunk_ = data;
  speed_meter_.note(received_);
  std::optional<float> share;
  if (version_.total)
    share = static_cast<float>(received_) / static_cast<float>(*version_.total);
  view_.show_progress(row_, {share, received_, false, version_.total});
}

void PipedDownload::bg_write_chunk() {
  const auto chunk = std::exchange(chunk_, {});
  if (const auto error = write_to_stdout(chunk.text()))
    bramblekit::main_sync([&] {
      failure_ = "could not write to standard output: " + error.message();
      request_->cancel();
    });
}

void PipedDownload::on_success() {
  if (checksum_)
    if (const auto found = hasher_->finish(); found.digits != checksum_->digits)
      return fail(found.name() + " mismatch: got " + found.digits);
  end(success, "done, " + human_size(received_) +
                   describe_average(received_, std::chrono::steady_clock::now() - began_at_) +
                   (checksum_ ? ", checksum OK" : ""));
}

/// Bytes that are written cannot be taken back, so the rest must be of the same content.
bool PipedDownload::can_request_rest() const {
  return accepts_ranges_ && version_.strong_etag && version_.total && received_ < *version_.total;
}

void PipedDownload::on_error(const Error& error) {
  if (has_ended_)
    return;
  const auto custom_error = make_custom_error(error);
  const auto reason = custom_error.text();
  if (policy_.judge(custom_error, received_, false) != Remedy::try_again)
    return fail(reason);
  if (received_ > 0 && !can_request_rest())
    return fail(reason + "; the rest cannot be requested, because the server offers no " +
                (accepts_ranges_ && version_.total ? "strong ETag" : "byte ranges"));
  view_.print_message(fmt::format("ravelin: {}: {}; {}", shown_link(link_.url), printable(reason),
                                  policy_.describe_retry()));
  view_.show_state(row_, "waiting to retry");
  wait_to_retry();
}

void PipedDownload::wait_to_retry() try {
  bramblekit::bg_async(
      0.0, [this, ends_with_network = policy_.waits_for_network(), time = policy_.wait()] {
        platform::RetryWait(ends_with_network).wait(time);
        MainQueue::async([this] { after_wait(); });
      });
} catch (const std::system_error& error) { // there is no thread for it
  fail(error.what());
}

void PipedDownload::after_wait() {
  if (has_ended_)
    return;
  if (received_ > 0)
    request_content(nullptr);
  else
    request_header();
}

/// Ends at once: the reader may never take the chunk that is being written.
void PipedDownload::interrupt(int signal) {
  if (!has_ended_)
    signal_ = signal;
  end(failed, "interrupted");
  if (header_request_)
    header_request_->cancel();
  if (request_)
    request_->cancel();
}

int PipedDownload::exit_status() {
  view_.close();
  if (signal_)
    return signal_ == SIGTERM ? terminated : interrupted;
  return status_;
}

void PipedDownload::fail(const std::string& reason) {
  if (has_ended_)
    return;
  const auto written =
      received_ > 0 && !failure_
          ? fmt::format("; {} bytes have already been written to standard output", received_)
          : "";
  view_.print_message(
      fmt::format("ravelin: {}: {}{}", shown_link(link_.url), printable(reason), written));
  end(failed, "failed");
}

void PipedDownload::end(int status, const std::string& summary) {
  if (std::exchange(has_ended_, true))
    return;
  status_ = status;
  view_.finish(row_, summary);
  MainQueue::stop();
}

} // namespace ravelin::app
