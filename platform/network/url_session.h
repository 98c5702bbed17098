#pragma once

#include "platform/data.h"
#include "platform/network/http_response.h"
#include "platform/network/request_settings.h"
#include "platform/threads/serial_queue.h"
#include "ravelin/error.h"
#include "ravelin/url.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace ravelin::platform {

class DataTask;
class URLSession;

/// The settings of a session's requests.
struct URLSessionConfiguration {
  static URLSessionConfiguration ephemeral(std::shared_ptr<const RequestSettings> settings) {
    return {std::move(settings)};
  }
  std::shared_ptr<const RequestSettings> settings;
};

/// Inclusive byte offsets.
struct BytesRange {
  std::int64_t start = 0;
  std::int64_t end = 0;

  std::int64_t size() const { return end - start + 1; }
  /// "0-99".
  std::string text() const { return std::to_string(start) + "-" + std::to_string(end); }
};

enum class CachePolicy { use_protocol_cache_policy };

/// A GET request.
struct URLRequest {
  explicit URLRequest(URL link) : url(std::move(link)) {}
  URL url;
  CachePolicy cache_policy = CachePolicy::use_protocol_cache_policy;      // there is no cache
  std::chrono::milliseconds time_out_interval = std::chrono::seconds(60); // idle time
  std::optional<BytesRange> range;
  std::optional<std::string> if_range; // the strong ETag for which only the range is wanted
  bool header_suffices = false;        // do not read the body before the delegate allows it
};

enum class ResponseDisposition { cancel, allow };
using ResponseHandler = std::function<void(ResponseDisposition)>;

/// Receives the events of a session's tasks: response, data..., completion.
///
/// Threads: called on the session's delegate queue.
class URLSessionDelegate {
public:
  virtual ~URLSessionDelegate() = default;
  /// No data is delivered before `completionHandler` is called with `allow`.
  virtual void urlSession(URLSession& session, DataTask& dataTask, const URLResponse& didReceive,
                          ResponseHandler completionHandler) = 0;
  /// The next chunk is delivered after this returns.
  virtual void urlSession(URLSession&, DataTask&, Data /*didReceive*/) {}
  /// The last call for a task, exactly once.
  virtual void urlSession(URLSession& session, DataTask& task,
                          const std::optional<Error>& didCompleteWithError) = 0;
};

/// Requests with the same settings and delegate.
///
/// Threads: any. Ownership: kept by its running tasks; does not own the delegate. When the delegate
/// is gone its tasks are cancelled at their response.
class URLSession : public std::enable_shared_from_this<URLSession> {
public:
  static std::shared_ptr<URLSession> make(URLSessionConfiguration configuration,
                                          std::weak_ptr<URLSessionDelegate> delegate);

  /// Nothing is sent before the task's `resume()`.
  std::shared_ptr<DataTask> data_task(URLRequest request);
  std::shared_ptr<DataTask> data_task(const URL& url) { return data_task(URLRequest(url)); }
  /// The queue on which the delegate is called.
  SerialQueue& delegate_queue() { return delegate_queue_; }

private:
  friend class DataTask;
  URLSession(URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate);

  const URLSessionConfiguration configuration_;
  std::weak_ptr<URLSessionDelegate> delegate_; // belongs to the delegate queue
  SerialQueue delegate_queue_;
};

} // namespace ravelin::platform
