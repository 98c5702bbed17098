#pragma once

#include "ravelin/url.h"

namespace ravelin::platform {

/// Whether the line of a file that exists may be removed.
enum class Unlist { always, if_gone };

/// Hides the file in file managers, or shows it again, by its line in the directory's `.hidden`
/// list, which GIO and KIO read. Other lines are not changed. Best effort.
///
/// Waits for up to 0.1 s while the list is being edited by another process. The main thread does
/// not wait; false means that it must be called again on another one.
bool set_hidden(const URL& url, bool hidden, Unlist when = Unlist::always) noexcept;

} // namespace ravelin::platform
