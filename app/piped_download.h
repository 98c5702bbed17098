#pragma once

#include "app/checksum.h"
#include "app/job.h"
#include "app/options.h"
#include "app/progress_view.h"

#include <ravelin/ravelin.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ravelin::app {

/// The download of one link to standard output. A slow reader holds the server back.
///
/// Threads: main thread, except `bg_write()`. Ownership: never destroyed, since a write that
/// a reader blocks may outlast the main queue.
class PipedDownload final : public Job {
public:
  explicit PipedDownload(GetOptions options);

  void start() override;
  void interrupt(int signal) override;
  void refresh() override { view_.refresh(); }
  int exit_status() override;

private:
  Options request_options();
  void on_response(const Response& response);
  void bg_write(std::string_view bytes);
  void on_end(ContentRequest::End end, const Error* error);
  // These end the download.
  void fail(const std::string& reason);
  void end(int status, const std::string& summary);

  const GetOptions options_;
  const Link& link_;
  const std::chrono::steady_clock::time_point began_at_ = std::chrono::steady_clock::now();
  ContentRequest request_;
  ProgressView view_;
  const std::size_t row_;
  std::optional<Checksum> given_checksum_; // by the user
  std::optional<Checksum> checksum_;       // that the content should have
  std::optional<Hasher> hasher_;           // belongs to the writing thread until the end
  std::int64_t written_ = 0;               // bytes; the same
  std::int64_t received_ = 0;              // bytes
  bool has_ended_ = false;
  int signal_ = 0;
  int status_ = success;
};

} // namespace ravelin::app
