#pragma once

#include "platform/threads/main_call.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/thread_annotations.h"
#include "ravelin/main_queue.h"

#include <exception>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace ravelin::bramblekit {

using platform::Semaphore;

namespace detail {

/// Calls a block on the main thread, which the analysis cannot see.
template <class Block>
#if defined(__clang__)
__attribute__((no_thread_safety_analysis))
#endif
decltype(auto)
call_on_this_thread(Block& block) {
  return block();
}

/// A block and its result, on the stack of the thread that waits for it.
template <class Block, class Result> struct SyncCall : platform::MainCall {
  explicit SyncCall(Block& the_block) : block(the_block) { call = run; }

  static void run(platform::MainCall& self) {
    auto& sync_call = static_cast<SyncCall&>(self);
    try {
      if constexpr (std::is_void_v<Result>)
        call_on_this_thread(sync_call.block);
      else
        sync_call.result.emplace(call_on_this_thread(sync_call.block));
    } catch (...) {
      sync_call.error = std::current_exception();
    }
    sync_call.done.signal(); // last: the waiting thread may destroy `sync_call` now
  }

  Result outcome() {
    if (error)
      std::rethrow_exception(std::move(error));
    if constexpr (!std::is_void_v<Result>)
      return std::move(*result);
  }

  Block& block;
  std::optional<std::conditional_t<std::is_void_v<Result>, char, Result>> result;
  std::exception_ptr error;
  Semaphore done{0};
};

} // namespace detail

/// Runs `block` on the main thread, waits, and returns its result or rethrows its exception. Calls
/// it directly when already on the main thread. Does not allocate.
template <class Block> auto main_sync(Block&& block) -> std::invoke_result_t<Block&> {
  using Result = std::invoke_result_t<Block&>;
  static_assert(!std::is_reference_v<Result>,
                "main-thread state must not be returned by reference");
  if (MainQueue::is_main_thread())
    return detail::call_on_this_thread(block);
  detail::SyncCall<std::remove_reference_t<Block>, Result> sync_call(block);
  platform::queue_on_main(sync_call);
  platform::wait_for_main(sync_call.done);
  return sync_call.outcome();
}

/// Two `main_sync` with a single wait: runs `first`, then `second`, on the main thread and returns
/// the result of `second`. An exception of `first` is rethrown after both have run.
template <class First, class Second>
auto main_sync_in_turn(First&& first, Second&& second) -> std::invoke_result_t<Second&> {
  if (MainQueue::is_main_thread()) {
    detail::call_on_this_thread(first);
    return detail::call_on_this_thread(second);
  }
  detail::SyncCall<std::remove_reference_t<First>, std::invoke_result_t<First&>> one(first);
  detail::SyncCall<std::remove_reference_t<Second>, std::invoke_result_t<Second&>> two(second);
  platform::queue_on_main(one);
  platform::queue_on_main(two);
  platform::wait_for_main(two.done);
  platform::wait_for_main(one.done); // not done yet if it ran a nested loop, which it should not
  one.outcome();
  return two.outcome();
}

/// Calls `block(semaphore)` on the main thread and waits until the semaphore is signalled. An
/// exception of the block is rethrown at once. Not on the main thread.
template <class Block> auto wait_signal_main(Block&& block) {
  Semaphore signalled(0);
  if constexpr (std::is_void_v<std::invoke_result_t<Block&, Semaphore&>>) {
    main_sync([&]() MAIN_ONLY { block(signalled); });
    signalled.wait();
  } else {
    auto result = main_sync([&]() MAIN_ONLY { return block(signalled); });
    signalled.wait();
    return result;
  }
}

/// Aborts with the name `function` if called off the main thread.
void assert_main_thread(std::string_view function)
#if defined(__clang__)
    __attribute__((assert_capability(platform::main_role)))
#endif
    ;

} // namespace ravelin::bramblekit
