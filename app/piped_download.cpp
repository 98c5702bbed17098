#include "app/piped_download.h"

#include "app/naming.h"
#include "app/output.h"

#include <fmt/core.h>

#include <csignal>
#include <unistd.h>
#include <utility>

namespace ravelin::app {
namespace {

bool is_binary(std::string_view bytes) {
  return bytes.find('\0') != std::string_view::npos;
}

std::string name_of(const Link& link) {
  return suggested_name(URL(link.url)).value_or(no_name);
}

} // namespace

/// The options of the request, which tell the user about retries.
Options PipedDownload::request_options() {
  auto options = options_.download;
  options.on_retry = [this](const RetryNotice& retry) {
    view_.print_message(fmt::format("ravelin: {}: {}; {}", shown_link(link_.url),
                                    printable(retry.error.text()), retry.text));
    view_.show_state(row_, "waiting to retry");
  };
  return options;
}

PipedDownload::PipedDownload(GetOptions options)
    : options_(std::move(options)), link_(options_.links.front()), request_(request_options()),
      view_(options_.quiet || !isatty(STDERR_FILENO) || isatty(STDOUT_FILENO)),
      row_(view_.add(name_of(link_), [this] { return request_.speed(); })),
      given_checksum_(link_.checksum) {}

void PipedDownload::start() {
  if (options_.checksum_list && !given_checksum_) {
    given_checksum_ = find_checksum(options_.checksum_list_text, name_of(link_));
    if (!given_checksum_)
      return fail("'" + shown_link(*options_.checksum_list) + "' has no checksum of this file");
  }
  if (link_.url.starts_with("file:"))
    return fail("only http and https links are supported");
  view_.show_state(row_, "connecting");
  request_.start(
      URL(link_.url),
      {.on_response = [this](const Response& response) { on_response(response); },
       .on_progress =
           [this](const Progress& progress) {
             received_ = progress.received_bytes;
             view_.show_progress(row_, progress);
           },
       .on_bytes = [this](std::string_view bytes) { bg_write(bytes); },
       .on_end = [this](ContentRequest::End end, const Error* error) { on_end(end, error); }});
}

void PipedDownload::on_response(const Response& response) {
  checksum_ = given_checksum_;
  if (!checksum_ && options_.check_digests)
    checksum_ = digest_of(response);
  if (checksum_)
    hasher_.emplace(checksum_->algorithm);
}

void PipedDownload::bg_write(std::string_view bytes) {
  if (written_ == 0 && isatty(STDOUT_FILENO) && is_binary(bytes))
    throw TextError("the content is binary and would garble the terminal; redirect standard "
                    "output, or name a file with --output");
  if (hasher_)
    hasher_->add(bytes);
  if (const auto error = write_to_stdout(bytes))
    throw TextError("could not write to standard output: " + error.message());
  written_ += static_cast<std::int64_t>(bytes.size());
}

void PipedDownload::on_end(ContentRequest::End how, const Error* error) {
  if (how == ContentRequest::End::cancelled)
    return fail("interrupted");
  if (error)
    return fail(make_custom_error(*error).text());
  if (checksum_)
    if (const auto found = hasher_->finish(); found.digits != checksum_->digits)
      return fail(found.name() + " mismatch: got " + found.digits);
  end(success, std::string("done, ") + (checksum_ ? "checksum OK, " : "") + human_size(received_) +
                   describe_average(received_, std::chrono::steady_clock::now() - began_at_));
}

/// Ends at once: the reader may never take the chunk that is being written.
void PipedDownload::interrupt(int signal) {
  if (!has_ended_) {
    signal_ = signal;
    if (!options_.quiet)
      view_.print_message("ravelin: " + shown_link(link_.url) + ": interrupted" +
                          (received_ > 0 ? "; what was written is incomplete" : ""));
  }
  end(failed, "interrupted");
  request_.cancel();
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
      written_ > 0
          ? fmt::format("; {} bytes have already been written to standard output", written_)
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
