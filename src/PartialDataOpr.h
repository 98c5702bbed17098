#pragma once

#include "bramblekit/background.h"
#include "platform/network/data_task.h"
#include "platform/network/url_session.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/thread_annotations.h"
#include "ravelin/lg_operation.h"
#include "src/ContentVersion.h"
#include "src/ResponseChecks.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <variant>

namespace ravelin {

/// Requests the content of a link, or one range of it, and passes it on in chunks.
///
/// Threads: any; every status but `bg_after_receive_data` is sent on the main thread. The fields
/// that are filled on the delegate queue are read after `sema` was signalled.
/// Errors: reported by the status. Ownership: the download's; a running request keeps it alive.
class PartialDataOpr final : public LGOperation, public platform::URLSessionDelegate {
public:
  using BytesRange = platform::BytesRange;
  struct Progress {
    float prog_value = 0.0F; // of this request's body; 0.0 if its length is not known
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

  /// Returns at once. Without `range`, requests the whole content.
  void request(const URL& url, std::optional<BytesRange> range, StatusClosure status_closure);
  void cancel() override;
  /// Set before `request`; null for the default options of the process.
  std::shared_ptr<const platform::RequestSettings> settings;

  /// The response to the header request, to use instead of sending another request. Set before
  /// `request`, which must then be for the whole content of the same link.
  std::unique_ptr<platform::HeldResponse> held_response;

  /// The version that the response must have, if changed content is rejected. Set before `request`.
  std::optional<ContentVersion> expected_version;
  /// The strong ETag that the response to a range request must have; the server is told so. Set
  /// before `request`.
  std::optional<std::string> required_etag;

  void urlSession(platform::URLSession& session, platform::DataTask& dataTask,
                  const platform::URLResponse& didReceive,
                  platform::ResponseHandler completionHandler) override;
  void urlSession(platform::URLSession& session, platform::DataTask& dataTask,
                  platform::Data didReceive) override;
  void urlSession(platform::URLSession& session, platform::DataTask& task,
                  const std::optional<Error>& didCompleteWithError) override;

private:
  void bg_request(const URL& url, const StatusClosure& status_closure) BG_ONLY;
  void start_task(const URL& url, const StatusClosure& status_closure) MAIN_ONLY;
  void count_and_deliver(platform::Data chunk) MAIN_ONLY;
  void finish(std::optional<Error> error, const StatusClosure& status_closure) MAIN_ONLY;

  std::optional<platform::URLSessionConfiguration> ephemeral_config;
  std::shared_ptr<platform::URLSession> ephemeral_session;
  std::shared_ptr<platform::Semaphore> sema;
  std::optional<platform::HeaderFields> http_header;
  std::optional<Error> task_err;
  bool recieved_response = false;
  ResponseChecks safeguards;
  std::optional<BytesRange> asked_range;
  std::int64_t received_bytes = 0; // belongs to the delegate queue
  std::int64_t total_fetched_bytes MAIN_STATE = 0;
  std::optional<std::int64_t> content_len; // bytes of this request's body
  // Written on the main thread before the task starts and after it has completed; read on the
  // delegate queue in between.
  StatusClosure stat_closure;
  std::shared_ptr<platform::DataTask> data_task MAIN_STATE;
};

} // namespace ravelin
