#include "app/name_request.h"

#include "app/event_lines.h"
#include "app/naming.h"
#include "app/output.h"

#include <fmt/core.h>

#include <utility>

namespace ravelin::app {
namespace {

Options with_on_retry(Options options, std::function<void(const RetryNotice&)> on_retry) {
  options.on_retry = std::move(on_retry);
  return options;
}

} // namespace

NameRequest::NameRequest(std::string link, const GetOptions& options, ProgressView& view)
    : link_(std::move(link)), options_(options), view_(view),
      request_(with_on_retry(options.download, [this](const RetryNotice& notice) {
        show_error(notice.error, "; " + notice.text, false);
      })) {}

void NameRequest::start(std::function<void(std::optional<std::string>)> on_end) {
  request_.start(
      URL(link_), [this, call = std::move(on_end)](const Response* response, const Error* error) {
        std::optional<std::string> name;
        if (response) {
          name = response->suggested_name ? response->suggested_name : suggested_name(URL(link_));
          name = name.value_or(no_name);
        } else if (error) {
          failed_ = true; // no fallback: another name would start another file
          show_error(make_custom_error(*error), "", true);
        }
        MainQueue::async([call, name] { call(name); });
      });
}

void NameRequest::show_error(const CustomError& error, const std::string& next, bool is_final) {
  view_.print_message(
      fmt::format("ravelin: {}: {}{}", shown_link(link_), printable(error.text()), next));
  if (options_.events)
    print_line(
        event_line({Status::error{error}}, {.link = link_, .dest_file = "", .is_final = is_final}));
}

} // namespace ravelin::app
