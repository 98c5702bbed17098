#pragma once

#include "ravelin/ravelin_operation.h"
#include "ravelin/status.h"

#include <coroutine>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <utility>

namespace ravelin {

/// The arguments of a run, for the functions below.
struct DownloadRequest {
  // Not an aggregate: GCC 12 miscompiles temporary aggregates in a `co_await` expression.
  /// Downloads `from` to `to`.
  DownloadRequest(URL from, URL to) : link(std::move(from)), dest_file(std::move(to)) {}

  URL link;                                    ///< http or https
  URL dest_file;                               ///< made by `URL::file`
  bool split_allowed = true;                   ///< use several connections if possible
  OnConflict on_conflict = OnConflict::resume; ///< what to do if the destination exists
  /// Called with every event but the final one, on the threads of `Status`; may be empty.
  RavelinOperation::StatusClosure on_event = {};
};

/// Starts a run and calls `on_end` with its final event, on the main thread.
template <class OnEnd>
void start_download(const std::shared_ptr<RavelinOperation>& operation, DownloadRequest request,
                    OnEnd on_end) {
  operation->resume(request.link, request.dest_file, request.split_allowed, request.on_conflict,
                    [on_event = std::move(request.on_event),
                     on_end = std::move(on_end)](const Status& status) mutable {
                      if (status.is_final())
                        on_end(status);
                      else if (on_event)
                        on_event(status);
                    });
}

/// Starts a run and returns a future for its final event. Waiting for it on the main thread
/// deadlocks.
inline std::future<Status> download_future(const std::shared_ptr<RavelinOperation>& operation,
                                           DownloadRequest request) {
  const auto promise = std::make_shared<std::promise<Status>>();
  auto future = promise->get_future();
  start_download(operation, std::move(request),
                 [promise](const Status& end) { promise->set_value(end); });
  return future;
}

/// The result of `download()`.
class [[nodiscard]] DownloadAwaiter {
public:
  /// See `download()`.
  DownloadAwaiter(std::shared_ptr<RavelinOperation> operation, DownloadRequest request)
      : operation_(std::move(operation)), request_(std::move(request)) {}

  /// Destroying the coroutine while it waits does not stop the run. Do it on the main thread.
  ~DownloadAwaiter() {
    if (waiting_)
      *waiting_ = nullptr;
  }
  DownloadAwaiter(const DownloadAwaiter&) = delete;
  DownloadAwaiter& operator=(const DownloadAwaiter&) = delete;

  bool await_ready() const noexcept { return false; } ///< called by `co_await`
  /// Called by `co_await`: starts the run.
  void await_suspend(std::coroutine_handle<> coroutine) {
    waiting_ = std::make_shared<DownloadAwaiter*>(this);
    start_download(operation_, std::move(request_),
                   [waiting = waiting_, coroutine](const Status& end) {
                     if (!*waiting)
                       return; // the coroutine was destroyed
                     (*waiting)->end_ = end;
                     coroutine.resume();
                   });
  }
  Status await_resume() { return *std::move(end_); } ///< the final event

private:
  std::shared_ptr<RavelinOperation> operation_;
  DownloadRequest request_;
  std::shared_ptr<DownloadAwaiter*> waiting_;
  std::optional<Status> end_;
};

/// Starts a run when awaited, and resumes the coroutine on the main thread with the final event:
/// `const Status end = co_await download(operation, {link, file});`
inline DownloadAwaiter download(std::shared_ptr<RavelinOperation> operation,
                                DownloadRequest request) {
  return {std::move(operation), std::move(request)};
}

} // namespace ravelin
