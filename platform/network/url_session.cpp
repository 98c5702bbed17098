#include "platform/network/url_session.h"

#include "platform/network/curl_errors.h"
#include "platform/network/data_task.h"
#include "platform/network/network_thread.h"

namespace ravelin::platform {

URLSession::URLSession(URLSessionConfiguration configuration,
                       std::weak_ptr<URLSessionDelegate> delegate)
    : configuration_(std::move(configuration)), delegate_(std::move(delegate)),
      delegate_queue_("delegate queue") {}

std::shared_ptr<URLSession> URLSession::make(URLSessionConfiguration configuration,
                                             std::weak_ptr<URLSessionDelegate> delegate) {
  return std::shared_ptr<URLSession>(new URLSession(std::move(configuration), std::move(delegate)));
}

std::shared_ptr<DataTask> URLSession::data_task(URLRequest request) {
  return std::make_shared<DataTask>(shared_from_this(), std::move(request));
}

DataTask::DataTask(std::shared_ptr<URLSession> session, URLRequest request)
    : session_(std::move(session)), request_(std::move(request)) {}

void DataTask::resume() {
  buffer_ = std::make_shared<ReceiveBuffer>([weak = weak_from_this()] {
    if (const auto task = weak.lock())
      NetworkThread::instance().resume(task);
  });
  NetworkThread::instance().start(shared_from_this());
}

void DataTask::cancel() {
  NetworkThread::instance().cancel(shared_from_this());
}

void DataTask::receive_response(URLResponse response) {
  session_->delegate_queue_.async([self = shared_from_this(), response = std::move(response)] {
    self->undecided_ = true;
    const auto decide = [self](ResponseDisposition disposition) { self->decide(disposition); };
    if (const auto delegate = self->session_->delegate_.lock())
      delegate->urlSession(*self->session_, *self, response, decide);
    else
      decide(ResponseDisposition::cancel);
  });
}

void DataTask::hand_over(std::weak_ptr<URLSessionDelegate> next, URLResponse response,
                         ResponseHandler handler) {
  session_->delegate_queue_.async([self = shared_from_this(), next = std::move(next),
                                   response = std::move(response), handler = std::move(handler)] {
    self->session_->delegate_ = next;
    if (const auto delegate = next.lock())
      delegate->urlSession(*self->session_, *self, response, handler);
    else
      handler(ResponseDisposition::cancel);
  });
}

void DataTask::decide(ResponseDisposition disposition) {
  const bool refused = disposition == ResponseDisposition::cancel;
  if (refused)
    cancel();
  else if (request_.header_suffices)
    NetworkThread::instance().allow_data(shared_from_this());
  session_->delegate_queue_.async([self = shared_from_this(), refused] {
    self->undecided_ = false;
    if (refused) // before any error of the connection is reported
      self->end(url_error(URLError::cancelled, "cancelled"));
    self->deliver_data();
    if (self->outcome_)
      self->end(*self->outcome_);
  });
}

ReceiveBuffer::Appended DataTask::receive_data(std::string_view bytes) {
  const auto appended = buffer_->append(bytes);
  if (appended == ReceiveBuffer::Appended::wake_delegate)
    session_->delegate_queue_.async([self = shared_from_this()] { self->deliver_data(); });
  return appended;
}

void DataTask::deliver_data() {
  if (undecided_ || ended_)
    return;
  const auto delegate = session_->delegate_.lock();
  while (auto data = buffer_->take())
    if (delegate)
      delegate->urlSession(*session_, *this, std::move(*data));
}

void DataTask::complete(std::optional<Error> error) {
  const bool cancelled = error && error->code() == URLError::cancelled;
  if (cancelled)
    buffer_->discard();
  else
    buffer_->finish();
  session_->delegate_queue_.async([self = shared_from_this(), cancelled, error = std::move(error)] {
    if (self->undecided_ && !cancelled) {
      self->outcome_ = error;
      return;
    }
    self->deliver_data();
    self->end(error);
  });
}

void DataTask::end(const std::optional<Error>& error) {
  if (std::exchange(ended_, true))
    return;
  if (const auto delegate = session_->delegate_.lock())
    delegate->urlSession(*session_, *this, error);
}

} // namespace ravelin::platform
