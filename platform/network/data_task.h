#pragma once

#include "platform/network/receive_buffer.h"
#include "platform/network/url_session.h"

namespace ravelin::platform {

/// One request and its progress.
///
/// Threads: `resume()` and `cancel()` from any, the rest from the network thread.
/// Ownership: shared by its creator and, while it runs, the network thread.
class DataTask : public std::enable_shared_from_this<DataTask> {
public:
  DataTask(std::shared_ptr<URLSession> session, URLRequest request);

  /// Sends the request. Once.
  void resume();
  /// Ends the task with `URLError::cancelled`, promptly even while it waits for the server. Does
  /// nothing if it has ended.
  void cancel();

  const URLRequest& request() const { return request_; }
  const RequestSettings& settings() const { return *session_->configuration_.settings; }
  const Options& options() const { return settings().options; }

  void receive_response(URLResponse response);
  ReceiveBuffer::Appended receive_data(std::string_view bytes);
  void complete(std::optional<Error> error);
  /// Passes a response that has not been decided on to another delegate, which replaces the
  /// session's. Any thread.
  void hand_over(std::weak_ptr<URLSessionDelegate> next, URLResponse response,
                 ResponseHandler handler);

private:
  void decide(ResponseDisposition disposition);
  // These run on the delegate queue.
  void deliver_data();
  void end(const std::optional<Error>& error);

  const std::shared_ptr<URLSession> session_;
  const URLRequest request_;
  std::shared_ptr<ReceiveBuffer> buffer_; // set before the task starts
  // Used on the delegate queue only.
  bool undecided_ = false; // the delegate has the response and has not called its handler yet
  bool ended_ = false;     // the delegate has been called with the outcome
  std::optional<std::optional<Error>> outcome_; // set if the request ended while undecided
};

/// A response that its delegate leaves for another one to decide on. Refused when destroyed.
///
/// Threads: any, one at a time.
class HeldResponse {
public:
  HeldResponse(DataTask& task, URLResponse response, ResponseHandler handler)
      : task_(task.shared_from_this()), response_(std::move(response)),
        handler_(std::move(handler)) {}
  ~HeldResponse() {
    if (handler_)
      handler_(ResponseDisposition::cancel);
  }
  HeldResponse(const HeldResponse&) = delete;
  HeldResponse& operator=(const HeldResponse&) = delete;

  /// Returns the task. Once.
  std::shared_ptr<DataTask> hand_over(std::weak_ptr<URLSessionDelegate> delegate) {
    task_->hand_over(std::move(delegate), std::move(response_), std::exchange(handler_, nullptr));
    return std::move(task_);
  }

private:
  std::shared_ptr<DataTask> task_;
  URLResponse response_;
  ResponseHandler handler_;
};

} // namespace ravelin::platform
