#pragma once

#include <chrono>

namespace ravelin::platform {

/// Adds the time of one flush to the average. Any thread.
void note_flush(std::chrono::nanoseconds time);

/// Whether flushes are slow enough on average for larger chunks to pay off. Any thread.
bool has_slow_storage();

} // namespace ravelin::platform
