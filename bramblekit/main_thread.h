#pragma once

#include "platform/threads/main_call.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/thread_marks.h"
#include "ravelin/main_queue.h"

#include <exception>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace ravelin::bramblekit {

using platform::Semaphore;

namespace detail {

/// Calls what was sent to the main thread; that it is there is this file's business to know.
template <class Block>
#if defined(__clang__)
__attribute__((no_thread_safety_analysis))
#endif
decltype(auto)
call_on_this_thread(Block& block) {
  return block();
}

/// A block and its outcome on the stack of the thread that waits for it.
template <class Block, class Result> struct MainHop : platform::MainCall {
  explicit MainHop(Block& the_block) : block(the_block) { call = run; }

  static void run(platform::MainCall& self) {
    auto& hop = static_cast<MainHop&>(self);
    try {
      if constexpr (std::is_void_v<Result>)
        call_on_this_thread(hop.block);
      else
        hop.result.emplace(call_on_this_thread(hop.block));
    } catch (...) {
      hop.error = std::current_exception();
    }
    hop.done.signal(); // the last touch: the waiting thread may take its stack back now
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

/// Runs `block` on the main thread and returns its result or throws its error, unchanged. Runs it
/// in place when the caller is on the main thread. Allocates nothing.
template <class Block> auto main_sync(Block&& block) -> std::invoke_result_t<Block&> {
  using Result = std::invoke_result_t<Block&>;
  static_assert(!std::is_reference_v<Result>,
                "a reference to main state must not leave its thread");
  if (MainQueue::is_main_thread())
    return detail::call_on_this_thread(block);
  detail::MainHop<std::remove_reference_t<Block>, Result> hop(block);
  platform::queue_on_main(hop);
  platform::wait_for_main(hop.done);
  return hop.outcome();
}

/// Two `main_sync` for one wait: `second` runs on the main thread after `first`, whose result is
/// dropped. An error of `first` is thrown, whatever came of `second`.
template <class First, class Second>
auto main_sync_in_turn(First&& first, Second&& second) -> std::invoke_result_t<Second&> {
  if (MainQueue::is_main_thread()) {
    detail::call_on_this_thread(first);
    return detail::call_on_this_thread(second);
  }
  detail::MainHop<std::remove_reference_t<First>, std::invoke_result_t<First&>> one(first);
  detail::MainHop<std::remove_reference_t<Second>, std::invoke_result_t<Second&>> two(second);
  platform::queue_on_main(one);
  platform::queue_on_main(two);
  platform::wait_for_main(two.done);
  platform::wait_for_main(one.done); // still under way if it ran a loop, which it should not
  one.outcome();
  return two.outcome();
}

/// Runs `block` on the main thread with a fresh semaphore, then `meanwhile` on the calling thread,
/// and waits until the semaphore is signalled. An error of the block is thrown at once. Off the
/// main thread only.
template <class Block, class Meanwhile = void (*)()>
auto wait_signal_main(
    Block&& block, Meanwhile&& meanwhile = [] {}) {
  Semaphore signalled(0);
  if constexpr (std::is_void_v<std::invoke_result_t<Block&, Semaphore&>>) {
    main_sync([&]() MAIN_ONLY { block(signalled); });
    meanwhile();
    signalled.wait();
  } else {
    auto result = main_sync([&]() MAIN_ONLY { return block(signalled); });
    meanwhile();
    signalled.wait();
    return result;
  }
}

/// Ends the process, naming `function`, when the calling thread is not the main thread.
void assert_main_thread(std::string_view function)
#if defined(__clang__)
    __attribute__((assert_capability(platform::main_role)))
#endif
    ;

} // namespace ravelin::bramblekit
