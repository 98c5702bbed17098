#pragma once

#include "ravelin/thread_marks.h"

namespace platform {

class Semaphore;

/// A piece of work for the main thread, which may live on the stack of the thread that waits.
struct MainCall {
  void (*call)(MainCall&) = nullptr;
  MainCall* next = nullptr; // the queue's
};

/// Queues `call` and waits for `done`, which the call signals as the last thing it does.
void call_on_main(MainCall& call, Semaphore& done) BG_ONLY;

} // namespace platform
