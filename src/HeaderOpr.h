#pragma once

#include "bramblekit/background.h"
#include "platform/network/data_task.h"
#include "platform/network/url_session.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/thread_annotations.h"
#include "ravelin/lg_operation.h"
#include "ravelin/response.h"
#include "src/ResponseChecks.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace ravelin {

/// Requests the header of a link and drops the body.
///
/// Threads: any; the status is sent on the main thread. The fields that are filled on the delegate
/// queue are read after `sema` was signalled.
/// Errors: reported by the status. Ownership: the download's; a running request keeps it alive.
class HeaderOpr final : public LGOperation, public platform::URLSessionDelegate {
public:
  struct Result {
    bool ranges_accepted;
    platform::HeaderFields header;
    std::optional<std::int64_t> content_length; // bytes
    std::string server_side_date;
    std::chrono::steady_clock::duration response_time; // including that to connect
  };
  struct Status {
    struct success {
      Result result;
    };
    struct error {
      Error error;
    };
    struct cancelled {};
    std::variant<success, error, cancelled> value;
  };
  using StatusClosure = std::function<void(const Status&)>;
  using HoldsResponse = std::function<bool(const Result&)>;

  /// Returns at once. `status_closure` gets exactly one status, on the main thread.
  void request(const URL& url, StatusClosure status_closure);
  void cancel() override;
  /// Set before `request`; null for the default options of the process.
  std::shared_ptr<const platform::RequestSettings> settings;

  /// Whether a response with this result is held for another request instead of being refused; set
  /// before `request`. Called on the delegate queue.
  HoldsResponse holds_response;

  /// The full response, after success.
  platform::URLResponse response;
  /// The same, if it is held.
  std::unique_ptr<platform::HeldResponse> held_response;

  void urlSession(platform::URLSession& session, platform::DataTask& dataTask,
                  const platform::URLResponse& didReceive,
                  platform::ResponseHandler completionHandler) override;
  void urlSession(platform::URLSession& session, platform::DataTask& task,
                  const std::optional<Error>& didCompleteWithError) override;

private:
  void bg_request(const URL& url, const StatusClosure& status_closure) BG_ONLY;
  void start_task(const URL& url) MAIN_ONLY;
  Result required_result() const;
  void finish(std::optional<Error> error, std::optional<Result> result,
              const StatusClosure& status_closure) MAIN_ONLY;

  ResponseChecks safeguards;
  std::optional<platform::URLSessionConfiguration> ephemeral_config;
  std::shared_ptr<platform::URLSession> ephemeral_session;
  std::shared_ptr<platform::Semaphore> sema;
  std::optional<platform::HeaderFields> http_header;
  std::optional<bool> ranges_accepted;
  std::optional<std::int64_t> content_len; // bytes
  std::optional<std::string> server_side_date;
  std::chrono::steady_clock::time_point started_at;
  std::chrono::steady_clock::duration response_time{};
  std::optional<Error> task_err;
  bool recieved_response = false;
  std::shared_ptr<platform::DataTask> data_task MAIN_STATE;
};

/// The response as applications see it.
Response make_response(const platform::URLResponse& from, const HeaderOpr::Result& result);

} // namespace ravelin
