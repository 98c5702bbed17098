#pragma once

#include <functional>

namespace ravelin::platform {

using Job = std::function<void()>;

/// Runs `job` on a cached background thread. Never refuses: a thread is made when none is idle,
/// since jobs block on semaphores. An exception that leaves `job` ends the process.
void run_in_background(Job job);

/// Runs `body` on a thread of its own for the life of the process.
void start_detached_thread(void (*body)());

/// How many background threads exist now, idle ones included.
std::size_t background_thread_count();

} // namespace ravelin::platform
