#include "ravelin/lg_operation.h"

#include "bramblekit/main_thread.h"

namespace ravelin {

using bramblekit::main_sync;

LGOperation::LGOperation() {
  main_sync([&]() MAIN_ONLY {
    _is_busy = false;
    _is_cancelled = false;
  });
}

bool LGOperation::is_busy() const {
  return main_sync([&]() MAIN_ONLY { return _is_busy; });
}

void LGOperation::activate() {
  main_sync([&]() MAIN_ONLY { _is_busy = true; });
}

void LGOperation::free() {
  main_sync([&]() MAIN_ONLY {
    _is_busy = false;
    _is_cancelled = false;
  });
}

bool LGOperation::is_cancelled() const {
  return main_sync([&]() MAIN_ONLY { return _is_cancelled; });
}

void LGOperation::cancel() {
  main_sync([&]() MAIN_ONLY { _is_cancelled = true; });
}

} // namespace ravelin
