#pragma once

#include "platform/threads/thread_annotations.h"
#include "ravelin/error.h"

namespace ravelin::platform {

class Semaphore;

/// Work for the main thread. May be on the stack of a thread that waits for it.
struct MainCall {
  void (*call)(MainCall&) = nullptr;
  MainCall* next = nullptr; // used by the queue
};

/// Whether this process was forked from one that had used the queue.
bool& is_forked_child();
/// Why nothing works there.
Error forked_child_error();
/// Throws it there.
void refuse_in_forked_child();

/// Queues `call` and returns at once.
void queue_on_main(MainCall& call);

/// Waits for `done`, which a queued call signals at its end. Not on the main thread, which would
/// wait for itself.
void wait_for_main(Semaphore& done) BG_ONLY;

} // namespace ravelin::platform
