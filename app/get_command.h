#pragma once

#include "app/options.h"

namespace ravelin::app {

/// Downloads all links and returns the exit status. Runs the main queue.
int run_get(GetOptions options);

} // namespace ravelin::app
