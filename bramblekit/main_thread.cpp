#include "bramblekit/main_thread.h"

#include "platform/fatal.h"

#include <string>

namespace ravelin::bramblekit {

void assert_main_thread(std::string_view function) {
  if (!MainQueue::is_main_thread())
    platform::fatal(std::string(function) + " was called off the main thread");
}

} // namespace ravelin::bramblekit
