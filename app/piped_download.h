#pragma once

#include "app/checksum.h"
#include "app/job.h"
#include "app/options.h"
#include "app/progress_view.h"
#include "src/HeaderOpr.h"
#include "src/PartialDataOpr.h"
#include "src/RetryPolicy.h"
#include "src/SpeedMeter.h"

#include <ravelin/ravelin.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace ravelin::app {

/// The download of one link to standard output, in order and over one connection. A slow reader
/// holds the server back, since no chunk is taken before the one before it is written.
///
/// Threads: main thread, except `bg_write_chunk()`. Ownership: never destroyed, since a write that
/// a reader blocks may outlast the main queue.
class PipedDownload final : public Job {
public:
  explicit PipedDownload(GetOptions options);

  void start() override;
  void interrupt(int signal) override;
  void refresh() override { view_.refresh(); }
  int exit_status() override;

private:
  void request_header();
  void on_header(const HeaderOpr& request, const HeaderOpr::Result& result);
  void request_content(std::unique_ptr<platform::HeldResponse> held_response);
  void on_event(const PartialDataOpr::Status& event);
  void on_data(const platform::Data& data);
  void bg_write_chunk();
  void on_success();
  void on_error(const Error& error);
  bool can_request_rest() const;
  void wait_to_retry();
  void after_wait();
  // These end the download.
  void fail(const std::string& reason);
  void end(int status, const std::string& summary);

  const GetOptions options_;
  const Link& link_;
  const std::chrono::steady_clock::time_point began_at_ = std::chrono::steady_clock::now();
  std::shared_ptr<const platform::RequestSettings> settings_;
  std::shared_ptr<const platform::RequestSettings> settings_for_rest_;
  RetryPolicy policy_;
  SpeedMeter speed_meter_;
  ProgressView view_;
  const std::size_t row_;
  std::shared_ptr<HeaderOpr> header_request_;
  std::shared_ptr<PartialDataOpr> request_;
  ContentVersion version_;
  bool accepts_ranges_ = false;
  std::optional<Checksum> given_checksum_; // by the user
  std::optional<Checksum> checksum_;       // that the content should have
  std::optional<Hasher> hasher_;
  std::int64_t received_ = 0; // bytes
  // To be written. It passes from the main thread to the delegate queue and back, as each of them
  // waits for the other.
  platform::Data chunk_;
  std::optional<std::string> failure_; // why the request was cancelled
  bool has_ended_ = false;
  int signal_ = 0;
  int status_ = success;
};

} // namespace ravelin::app
