#pragma once

#include <functional>

namespace ravelin::bramblekit {

/// Runs `task` on a background thread after `delay` seconds and returns at once. Tasks may run in
/// parallel and in any order. Throws `std::system_error` if the system refuses a thread.
void bg_async(double delay, std::function<void()> task);

} // namespace ravelin::bramblekit
