#pragma once

#include "platform/threads/thread_marks.h"

namespace ravelin::platform {

class Semaphore;

/// A piece of work for the main thread, which may live on the stack of the thread that waits.
struct MainCall {
  void (*call)(MainCall&) = nullptr;
  MainCall* next = nullptr; // the queue's
};

/// Queues `call` and returns at once.
void queue_on_main(MainCall& call);

/// Waits for `done`, which a queued call signals as the last thing it does. The main thread must
/// not: it would wait for itself.
void wait_for_main(Semaphore& done) BG_ONLY;

} // namespace ravelin::platform
