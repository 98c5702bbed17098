#pragma once

#include "app/options.h"
#include "app/process_lock.h"
#include "app/progress_view.h"
#include "app/retry.h"
#include "ravelin/ravelin_operation.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace ravelin::app {

/// One link of the command line on its way to its file, over as many attempts as it takes.
///
/// Threads: main thread. Ownership: the command's, until `on_end` has been called.
class Download : public std::enable_shared_from_this<Download> {
public:
  enum class End { success, failure, cancelled };

  Download(std::string link, std::filesystem::path file, const GetOptions& options,
           ProgressView& view);

  /// `on_end` is called once, on the main thread, after this has returned.
  void start(std::function<void(End)> on_end);
  const std::filesystem::path& file() const { return file_; }
  /// Keeps the files.
  void cancel();

private:
  /// Why it cannot be had; empty where it is ours.
  std::string take_lock();
  bool lost_its_record() const;
  void prepare(OnConflict on_conflict);
  /// What is wrong with a download that ended well; empty if nothing is.
  std::string flaw() const;
  void attempt();
  OnConflict policy() const;
  Status checked(const Status& status) const;
  void on_status(const Status& told);
  void mark_in_list();
  void on_error(const CustomError& error);
  void on_success();
  void retry_later();
  void print_event(const Status& status, bool is_final = true);
  // Each ends the download.
  void succeed(const std::string& words);
  void stop();
  void fail(const std::string& why);
  void show_failure(const std::string& why);
  void end(End how, const std::string& word);
  std::string finished_words() const;
  std::string interrupted_words() const;

  const std::string link_;
  std::filesystem::path file_;
  const GetOptions& options_;
  ProgressView& view_;
  const std::size_t row_;
  std::optional<ProcessLock> lock_;
  RetryPolicy retries_;
  bool split_;
  bool first_attempt_ = true;
  bool connected_ = false;
  bool renamed_ = false;
  std::optional<std::int64_t> length_; // bytes, where the server told it
  std::string stop_reason_;
  bool waiting_ = false;
  bool cancelled_ = false;
  std::shared_ptr<RavelinOperation> operation_;
  std::function<void(End)> on_end_;
};

} // namespace ravelin::app
