#include "platform/url_session.h"

#include "platform/curl_errors.h"
#include "platform/data_task.h"
#include "platform/network_thread.h"

namespace platform {

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
      NetworkThread::instance().go_on(task);
  });
  NetworkThread::instance().start(shared_from_this());
}

void DataTask::cancel() {
  NetworkThread::instance().cancel(shared_from_this());
}

void DataTask::receive_response(URLResponse response) {
  session_->delegate_queue_.async([self = shared_from_this(), response = std::move(response)] {
    const auto decide = [self](ResponseDisposition disposition) {
      self->refused_ = disposition == ResponseDisposition::cancel;
      if (self->refused_)
        NetworkThread::instance().cancel(self);
      else
        NetworkThread::instance().allow_data(self);
    };
    if (const auto delegate = self->session_->delegate_.lock())
      delegate->urlSession(*self->session_, *self, response, decide);
    else
      decide(ResponseDisposition::cancel);
  });
}

ReceiveBuffer::Appended DataTask::receive_data(std::string_view bytes) {
  const auto appended = buffer_->append(bytes);
  if (appended == ReceiveBuffer::Appended::wake_delegate)
    session_->delegate_queue_.async([self = shared_from_this()] { self->deliver_data(); });
  return appended;
}

void DataTask::deliver_data() {
  const auto delegate = session_->delegate_.lock();
  while (const auto data = buffer_->take())
    if (delegate)
      delegate->urlSession(*session_, *this, *data);
}

void DataTask::complete(std::optional<Error> error) {
  const bool cancelled = error && error->code() == URLError::cancelled;
  if (cancelled)
    buffer_->discard();
  else
    buffer_->finish();
  session_->delegate_queue_.async([self = shared_from_this(), error = std::move(error)] {
    self->deliver_data();
    // A refused task was cancelled, whatever its connection met before that was carried out.
    const auto outcome = self->refused_ ? url_error(URLError::cancelled, "cancelled") : error;
    if (const auto delegate = self->session_->delegate_.lock())
      delegate->urlSession(*self->session_, *self, outcome);
  });
}

} // namespace platform
