#pragma once

#include <functional>

namespace bramblekit {

/// Runs `task` once on a background thread after `delay` seconds, and returns at once. Tasks may
/// run side by side and in any order.
void bg_async(double delay, std::function<void()> task);

} // namespace bramblekit
