#pragma once

#include <ravelin/async.h>
#include <ravelin/main_queue.h>

#include <asio/associated_cancellation_slot.hpp>
#include <asio/associated_executor.hpp>
#include <asio/async_result.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/post.hpp>

#include <memory>
#include <utility>

namespace ravelin {

/// Starts a run and completes with its final event, for any completion token: a callback,
/// `asio::use_future`, `asio::use_awaitable`, ... The handler runs on its associated executor, or
/// else on `executor`, and counts as work of it until then. A cancellation, such as that of `||`,
/// stops the run. Waits for the main thread if called on another one.
template <class Executor, class CompletionToken>
auto async_download(const Executor& executor, std::shared_ptr<RavelinOperation> operation,
                    DownloadRequest request, CompletionToken&& token) {
  return ::asio::async_initiate<CompletionToken, void(Status)>(
      [executor, operation = std::move(operation)](auto handler, DownloadRequest to_start) {
        const auto on = ::asio::get_associated_executor(handler, executor);
        auto slot = ::asio::get_associated_cancellation_slot(handler);
        const auto has_ended = std::make_shared<bool>(false); // belongs to the main thread
        if (slot.is_connected())
          slot.assign([operation, has_ended](::asio::cancellation_type) {
            MainQueue::async([operation, has_ended] {
              if (!*has_ended) // a later run is not meant
                operation->cancel();
            });
          });
        const auto kept = std::make_shared<decltype(handler)>(std::move(handler));
        start_download(
            operation, std::move(to_start),
            [kept, slot, has_ended, work = ::asio::make_work_guard(on)](const Status& end) {
              *has_ended = true;
              ::asio::post(work.get_executor(), [kept, slot, end]() mutable {
                slot.clear();
                std::move (*kept)(end);
              });
            });
      },
      token, std::move(request));
}

} // namespace ravelin
