#pragma once

#include "bramblekit/background.h"
#include "platform/network/data_task.h"
#include "platform/network/url_session.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/thread_marks.h"
#include "ravelin/lg_operation.h"
#include "src/ContentVersion.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <variant>

namespace ravelin {

/// Fetches the body of a link, or one range of it, and hands it on chunk by chunk.
///
/// Threads: `request` and `cancel` from any; every status but `bg_after_receive_data` comes on the
/// main thread. The fields that the delegate's queue fills are read after `sema` was signalled.
/// Errors: through the status. Ownership: the driver's; a request under way keeps it alive.
class PartialDataOpr final : public LGOperation, public platform::URLSessionDelegate {
public:
  /// Offsets into the resource, both inclusive.
  struct BytesRange {
    std::int64_t start = 0;
    std::int64_t end = 0;
  };
  struct Progress {
    float prog_value = 0.0F; // of this request's body; 0.0 when its length is unknown
    platform::Data data;     // the chunk
  };
  struct Status {
    struct started {
      std::optional<std::int64_t> content_length; // bytes of this request's body
    };
    struct did_receive_data {
      Progress progress;
    };
    struct error {
      Error error;
    };
    struct connecting {};
    struct bg_after_receive_data {};
    struct success {};
    struct cancelled {};
    std::variant<started, did_receive_data, error, connecting, bg_after_receive_data, success,
                 cancelled>
        value;
  };
  using StatusClosure = std::function<void(const Status&)>;

  /// Returns at once. No `range` means the whole body.
  void request(const URL& url, std::optional<BytesRange> range, StatusClosure status_closure);
  void cancel() override;
  /// Set for the next `request` by a background thread that will wait for its end.
  bramblekit::OwnWork* own_work = nullptr;

  /// What the answer must be a version of, where changed content is to be rejected. Set before
  /// `request`.
  std::optional<ContentVersion> expected_version;

  void urlSession(platform::URLSession& session, platform::DataTask& dataTask,
                  const platform::URLResponse& didReceive,
                  platform::ResponseHandler completionHandler) override;
  void urlSession(platform::URLSession& session, platform::DataTask& dataTask,
                  const platform::Data& didReceive) override;
  void urlSession(platform::URLSession& session, platform::DataTask& task,
                  const std::optional<Error>& didCompleteWithError) override;

private:
  void bg_request(const URL& url, const std::optional<BytesRange>& range,
                  const StatusClosure& status_closure) BG_ONLY;
  void start_task(const URL& url, const std::optional<BytesRange>& range,
                  const StatusClosure& status_closure) MAIN_ONLY;
  std::optional<Error> refusal(const platform::URLResponse& response) const;
  std::optional<Error> wrong_length() const;
  void count_and_deliver(const platform::Data& chunk) MAIN_ONLY;
  void finish(std::optional<Error> error, const StatusClosure& status_closure) MAIN_ONLY;

  std::optional<platform::URLSessionConfiguration> ephemeral_config;
  std::shared_ptr<platform::URLSession> ephemeral_session;
  std::shared_ptr<platform::Semaphore> sema;
  std::optional<platform::HeaderFields> http_header;
  std::optional<Error> task_err;
  bool recieved_response = false;
  bool asks_for_whole = false;
  std::int64_t received_bytes = 0; // of the delegate's queue, as are the four above
  std::int64_t total_fetched_bytes MAIN_STATE = 0;
  std::optional<std::int64_t> content_len; // bytes of this request's body
  // Written on the main thread; the delegate's queue reads it between the start and the completion
  // of the task, when nobody writes.
  StatusClosure stat_closure;
  std::shared_ptr<platform::DataTask> data_task MAIN_STATE;
};

} // namespace ravelin
