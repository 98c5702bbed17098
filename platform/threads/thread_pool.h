#pragma once

#include <functional>

namespace ravelin::platform {

using Job = std::function<void()>;

/// Runs `job` on a cached background thread. Starts a new thread when none is idle, without a
/// limit, since jobs may block on each other. An exception thrown by `job` terminates the process.
void run_in_background(Job job);

/// Runs `body` on a new thread that is never joined.
void start_detached_thread(void (*body)());

/// Includes idle threads.
std::size_t background_thread_count();

} // namespace ravelin::platform
