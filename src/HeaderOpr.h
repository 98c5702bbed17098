#pragma once

#include "bramblekit/background.h"
#include "platform/network/data_task.h"
#include "platform/network/url_session.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/thread_marks.h"
#include "ravelin/lg_operation.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace ravelin {

/// Asks a link for its header and drops the body.
///
/// Threads: `request` and `cancel` from any; the answer comes on the main thread. The fields that
/// the delegate's queue fills are read after `sema` has been signalled.
/// Errors: through the status. Ownership: the driver's; a request under way keeps it alive.
class HeaderOpr final : public LGOperation, public platform::URLSessionDelegate {
public:
  struct Result {
    bool ranges_accepted;
    platform::HeaderFields header;
    std::optional<std::int64_t> content_length; // bytes
    std::string server_side_date;
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

  /// Returns at once. `status_closure` gets exactly one status, on the main thread.
  void request(const URL& url, StatusClosure status_closure);
  void cancel() override;
  /// Set for the next `request` by a background thread that will wait for its end.
  bramblekit::OwnWork* own_work = nullptr;

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

  std::optional<platform::URLSessionConfiguration> ephemeral_config;
  std::shared_ptr<platform::URLSession> ephemeral_session;
  std::shared_ptr<platform::Semaphore> sema;
  std::optional<platform::HeaderFields> http_header;
  std::optional<bool> ranges_accepted;
  std::optional<std::int64_t> content_len; // bytes
  std::optional<std::string> server_side_date;
  std::optional<Error> task_err;
  bool recieved_response = false;
  std::shared_ptr<platform::DataTask> data_task MAIN_STATE;
};

} // namespace ravelin
