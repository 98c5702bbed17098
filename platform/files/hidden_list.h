#pragma once

#include "ravelin/url.h"

namespace ravelin::platform {

/// Hides the file in file managers, or shows it again, by its line in the directory's `.hidden`
/// list, which GIO and KIO read. Other lines are not changed. Best effort.
///
/// Waits for up to 0.1 s while the list is being edited by another process. The main thread does
/// not wait; false means that it must be called again on another one.
bool set_hidden(const URL& url, bool hidden) noexcept;

} // namespace ravelin::platform
