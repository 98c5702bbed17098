#pragma once

#include "app/options.h"
#include "app/progress_view.h"
#include "app/retry.h"
#include "src/HeaderOpr.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace ravelin::app {

/// Asks a link's server what its file is called, over as many attempts as it takes.
///
/// Threads: main thread. Ownership: the command's; a question under way keeps itself.
class NameQuestion : public std::enable_shared_from_this<NameQuestion> {
public:
  NameQuestion(std::string link, const GetOptions& options, ProgressView& view);

  /// `on_end` is called once, on the main thread, after this has returned: with the server's name
  /// or else the link's, or with nothing where the server cannot be asked, which has been said.
  void start(std::function<void(std::optional<std::string>)> on_end);
  void cancel();
  /// The server cannot be asked, which was the link's last event.
  bool has_failed() const { return failed_; }

private:
  void attempt();
  void on_status(const HeaderOpr::Status& status);
  void on_error(const Error& error);
  void end(std::optional<std::string> name);

  const std::string link_;
  const GetOptions& options_;
  ProgressView& view_;
  RetryPolicy retries_;
  bool waiting_ = false;
  bool cancelled_ = false;
  bool failed_ = false;
  std::shared_ptr<HeaderOpr> request_;
  std::function<void(std::optional<std::string>)> on_end_;
};

} // namespace ravelin::app
