#include "ravelin/ravelin_operation.h"

#include "bramblekit/main_thread.h"
#include "src/RavelinOperation_impl.h"

// Stopping downloads and removing their files.

namespace ravelin {

using bramblekit::main_sync;

void RavelinOperation::cancel() {
  const auto keep = weak_from_this().lock(); // a callback may drop the last reference
  main_sync([&]() MAIN_ONLY { impl_->cancel(); });
}

void RavelinOperation::Impl::cancel() {
  const bool is_reported = state.holds<State::cancelling>(); // if its callback cancels again
  if (opr.is_busy() && !opr.is_cancelled() && !is_reported)
    report({State::cancelling{}}, {Status::cancelling{}});
  opr.LGOperation::cancel();
  if (header_opr)
    header_opr->cancel();
  const auto requests = partial_data_oprs; // requests that end are removed from the set
  for (const auto& request : requests)
    request->cancel();
  if (retry_wait)
    retry_wait->interrupt();
  if (pending_sema && !is_pending_for_identical_opr)
    stop_waiting();
}

void RavelinOperation::cancel_and_clear_files() {
  main_sync([&]() MAIN_ONLY {
    cancel();
    impl_->should_clear_files = true;
  });
}

void RavelinOperation::cancel_all(bool also_clear_files) {
  main_sync([&]() MAIN_ONLY {
    const auto oprs = Impl::active_oprs_ary();
    for (const auto& opr : oprs)
      if (also_clear_files)
        opr->cancel_and_clear_files();
      else
        opr->cancel();
  });
}

void RavelinOperation::clear_files(const URL& dest_file) {
  try {
    FileProcessor::delete_main_file(dest_file);
    if (!DestinationLock::inspect(dest_file).other_owner.empty())
      return; // another unfinished file needs the record
    FileProcessor::delete_resume_file(dest_file);
    DestinationLock::clear(dest_file);
  } catch (...) {
    // A file that cannot be deleted keeps its record.
  }
}

} // namespace ravelin
