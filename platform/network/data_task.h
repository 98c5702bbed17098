#pragma once

#include "platform/network/receive_buffer.h"
#include "platform/network/url_session.h"

namespace ravelin::platform {

/// One request under way.
///
/// Threads: `resume()` and `cancel()` from any, the rest from the network thread.
/// Ownership: shared by who made it and, while it runs, by the network thread.
class DataTask : public std::enable_shared_from_this<DataTask> {
public:
  DataTask(std::shared_ptr<URLSession> session, URLRequest request);

  /// Sends the request. Once.
  void resume();
  /// Ends the task with `URLError::cancelled`, promptly whatever it is waiting for; harmless when
  /// it has ended.
  void cancel();

  const URLRequest& request() const { return request_; }
  const Defaults& configuration() const { return session_->configuration_.values; }

  void receive_response(URLResponse response);
  ReceiveBuffer::Appended receive_data(std::string_view bytes);
  void complete(std::optional<Error> error);

private:
  void decide(ResponseDisposition disposition);
  // On the delegate's queue.
  void deliver_data();
  void end(const std::optional<Error>& error);

  const std::shared_ptr<URLSession> session_;
  const URLRequest request_;
  std::shared_ptr<ReceiveBuffer> buffer_; // made before the task starts
  // Of the delegate's queue.
  bool undecided_ = false; // the delegate has been told of a response, and has not said what next
  bool ended_ = false;     // it has been told so
  std::optional<std::optional<Error>> outcome_; // how the request ended while it was undecided
};

} // namespace ravelin::platform
