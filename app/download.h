#pragma once

#include "app/checksum.h"
#include "app/options.h"
#include "app/progress_view.h"

#include <ravelin/ravelin.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace ravelin::app {

/// The download of one link.
///
/// Threads: main thread. Ownership: the batch's.
class Download : public std::enable_shared_from_this<Download> {
public:
  enum class End { success, failure, cancelled };

  Download(Link link, std::filesystem::path file, const GetOptions& options, ProgressView& view);

  /// `on_end` is called once, on the main thread, after this has returned.
  void start(std::function<void(End)> on_end);
  const std::filesystem::path& file() const { return file_; }
  /// Bytes received by this run of the program.
  std::int64_t received() const { return received_; }
  /// Stops the download and keeps its files.
  void cancel();

private:
  std::optional<std::string> refusal() const;
  std::optional<std::string> make_directory() const;
  void begin(OnConflict on_conflict);
  void on_status(const Status& status);
  void on_retry(const RetryNotice& notice);
  RavelinOperation::Speed speed() const;
  void show_progress(const Progress& progress);
  bool restarts_after(const CustomError& error);
  void on_success();
  void verify_checksum();
  void print_event(const Status& status, bool is_final = true);
  // These end the download.
  void succeed(const std::string& summary);
  void stop();
  void fail(const CustomError& error);
  void fail(const std::string& reason);
  void fail_checksum(const Checksum& found);
  void show_failure(const std::string& reason);
  void end(End how, const std::string& summary);
  std::string describe_expiry(const CustomError& error) const;
  std::string describe_change(const CustomError& error) const;
  std::string describe_success(const std::string& verdict) const;
  std::string describe_interruption() const;

  const std::string link_;
  std::optional<Checksum> checksum_; // that the file should have
  std::filesystem::path file_;
  const GetOptions& options_;
  ProgressView& view_;
  const std::size_t row_;
  bool started_ = false;
  bool is_downloaded_ = false; // in this run, at least in part
  bool renamed_ = false;
  bool cancelled_ = false;
  bool restarted_ = false; // after its content had changed
  bool is_new_ = false;    // nothing was there to continue
  std::int64_t resumed_at_ = 0;
  std::int64_t received_ = 0;
  std::chrono::steady_clock::time_point began_at_{};
  std::chrono::steady_clock::time_point last_progress_event_{};
  std::shared_ptr<RavelinOperation> operation_;
  std::function<void(End)> on_end_;
};

} // namespace ravelin::app
