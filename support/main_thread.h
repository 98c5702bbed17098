#pragma once

#include "platform/main_call.h"
#include "platform/semaphore.h"
#include "ravelin/main_queue.h"

#include <exception>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

namespace bramblekit {

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
  if (platform::MainQueue::is_main_thread())
    return detail::call_on_this_thread(block);
  detail::MainHop<std::remove_reference_t<Block>, Result> hop(block);
  platform::call_on_main(hop, hop.done);
  if (hop.error)
    std::rethrow_exception(std::move(hop.error));
  if constexpr (!std::is_void_v<Result>)
    return std::move(*hop.result);
}

/// Runs `block` on the main thread with a fresh semaphore, and waits until that is signalled. An
/// error of the block is thrown at once. Off the main thread only.
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

/// Ends the process, naming `function`, when the calling thread is not the main thread.
void assert_main_thread(std::string_view function)
#if defined(__clang__)
    __attribute__((assert_capability(platform::main_role)))
#endif
    ;

} // namespace bramblekit
