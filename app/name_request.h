#pragma once

#include "app/options.h"
#include "app/progress_view.h"

#include <ravelin/ravelin.hpp>

#include <functional>
#include <optional>
#include <string>

namespace ravelin::app {

/// Asks the server for the file name of a link.
///
/// Threads: main thread. Ownership: the batch's.
class NameRequest {
public:
  NameRequest(std::string link, const GetOptions& options, ProgressView& view);

  /// `on_end` is called once, on the main thread, after this has returned: with the name from the
  /// server or else from the link, or with none if the request failed, which has been reported.
  void start(std::function<void(std::optional<std::string>)> on_end);
  void cancel() { request_.cancel(); }
  /// Whether the request failed; if so, that was the last event of the link.
  bool has_failed() const { return failed_; }

private:
  void show_error(const CustomError& error, const std::string& next, bool is_final);

  const std::string link_;
  const GetOptions& options_;
  ProgressView& view_;
  HeaderRequest request_;
  bool failed_ = false;
};

} // namespace ravelin::app
