#pragma once

#include "platform/data.h"
#include "platform/network/http_response.h"
#include "platform/threads/serial_queue.h"
#include "ravelin/defaults.h"
#include "ravelin/error.h"
#include "ravelin/url.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ravelin::platform {

class DataTask;
class URLSession;

/// What a session's requests have in common. Nothing of it is shared with other sessions.
struct URLSessionConfiguration {
  static URLSessionConfiguration ephemeral() { return {defaults()}; }
  Defaults values;
};

enum class CachePolicy { use_protocol_cache_policy };

/// One GET.
struct URLRequest {
  explicit URLRequest(URL link) : url(std::move(link)) {}
  URL url;
  CachePolicy cache_policy = CachePolicy::use_protocol_cache_policy;      // nothing is ever cached
  std::chrono::milliseconds time_out_interval = std::chrono::seconds(60); // of silence
  std::vector<std::pair<std::string, std::string>> header_fields;
  bool header_suffices = false; // the server shall send little of the body meanwhile
  void set_header_field(std::string name, std::string value) {
    header_fields.emplace_back(std::move(name), std::move(value));
  }
};

enum class ResponseDisposition { cancel, allow };
using ResponseHandler = std::function<void(ResponseDisposition)>;

/// Is told what becomes of a session's tasks, in the order response, data..., completion.
///
/// Threads: all calls come on the session's serial queue.
class URLSessionDelegate {
public:
  virtual ~URLSessionDelegate() = default;
  /// No data comes before `completionHandler` has been called with `allow`.
  virtual void urlSession(URLSession& session, DataTask& dataTask, const URLResponse& didReceive,
                          ResponseHandler completionHandler) = 0;
  /// The next chunk comes after this has returned.
  virtual void urlSession(URLSession&, DataTask&, const Data& /*didReceive*/) {}
  /// Once, as the last call.
  virtual void urlSession(URLSession& session, DataTask& task,
                          const std::optional<Error>& didCompleteWithError) = 0;
};

/// Requests of one kind and the queue on which their delegate is called.
///
/// Threads: any. Ownership: refers to its delegate without owning it; tasks under way keep the
/// session. A delegate that is gone ends its tasks.
class URLSession : public std::enable_shared_from_this<URLSession> {
public:
  static std::shared_ptr<URLSession> make(URLSessionConfiguration configuration,
                                          std::weak_ptr<URLSessionDelegate> delegate);

  /// Made suspended: nothing is sent before `resume()`.
  std::shared_ptr<DataTask> data_task(URLRequest request);
  std::shared_ptr<DataTask> data_task(const URL& url) { return data_task(URLRequest(url)); }
  /// Where the delegate is called. A thread that waits for a task may lend itself.
  SerialQueue& delegate_queue() { return delegate_queue_; }

private:
  friend class DataTask;
  URLSession(URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate);

  const URLSessionConfiguration configuration_;
  const std::weak_ptr<URLSessionDelegate> delegate_;
  SerialQueue delegate_queue_;
};

} // namespace ravelin::platform
