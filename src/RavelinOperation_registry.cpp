#include "ravelin/ravelin_operation.h"

#include "bramblekit/collections.h"
#include "bramblekit/errors.h"
#include "bramblekit/main_thread.h"
#include "src/RavelinOperation_impl.h"

#include <algorithm>
#include <utility>

// The registry of active downloads: their limit, waiting for a slot or a destination, and releasing
// both.

namespace ravelin {

using bramblekit::main_sync;
using bramblekit::to_error;
using platform::OneShotEvent;

namespace {

std::int64_t& download_limit() {
  static std::int64_t limit = 5; // belongs to the main thread
  return limit;
}

} // namespace

std::int64_t RavelinOperation::max_simultaneous_download_count() {
  return main_sync([] { return download_limit(); });
}

void RavelinOperation::set_max_simultaneous_download_count(std::int64_t count) {
  main_sync([&] { download_limit() = std::max<std::int64_t>(count, 1); });
}

std::map<URL, std::shared_ptr<RavelinOperation>>& RavelinOperation::Impl::active_oprs_dict() {
  // Never destroyed: downloads may still be running when `main` returns.
  static auto& dict = *new std::map<URL, std::shared_ptr<RavelinOperation>>;
  return dict;
}

std::vector<std::shared_ptr<RavelinOperation>>& RavelinOperation::Impl::active_oprs_ary() {
  static auto& ary = *new std::vector<std::shared_ptr<RavelinOperation>>;
  return ary;
}

std::shared_ptr<RavelinOperation> RavelinOperation::Impl::get_active_opr(const URL& url) {
  const auto found = active_oprs_dict().find(url);
  return found == active_oprs_dict().end() ? nullptr : found->second;
}

void RavelinOperation::Impl::remove_active_opr(const URL& url) {
  const auto opr = get_active_opr(url);
  if (!opr)
    return;
  active_oprs_dict().erase(url);
  bramblekit::remove(active_oprs_ary(), opr);
}

void RavelinOperation::Impl::add_active_opr(std::shared_ptr<RavelinOperation> opr, const URL& url) {
  remove_active_opr(url);
  active_oprs_dict()[url] = opr;
  active_oprs_ary().push_back(std::move(opr));
}

bool RavelinOperation::Impl::is_download_limit_reached() {
  const auto limit = max_simultaneous_download_count();
  std::int64_t running = 0;
  for (const auto& active : active_oprs_ary())
    if (!active->impl_->pending_sema && ++running == limit)
      return true;
  return false;
}

void RavelinOperation::Impl::wait_for_identical(Impl& other, const URL& url) {
  pending_sema = std::make_shared<OneShotEvent>();
  is_pending_for_identical_opr = true;
  other.pending_identical_opr = self();
  add_active_opr(self(), url);
  opr_has_never_been_added_to_active_list = false;
}

/// Does not block a thread, since thousands of operations may be waiting.
void RavelinOperation::Impl::handle_pending(Run run) noexcept {
  const auto sema = pending_sema; // the field may be cleared, also by the callback
  if (sema && !state.holds<State::cancelling>())
    report({State::pending{}}, {Status::pending{}});
  if (sema)
    sema->wait([this, keep = self(), run = std::make_shared<Run>(std::move(run))]()
                   MAIN_ONLY { start_after_wait(std::move(*run)); });
  else
    start_after_wait(std::move(run));
}

void RavelinOperation::Impl::start_after_wait(Run run) noexcept {
  if (!opr.is_cancelled())
    start_flow(std::move(run));
  else // nothing to do in the background; later, since this may be called by `cancel()`
    MainQueue::async(
        [this, keep = self(), run = std::make_shared<Run>(std::move(run))]()
            MAIN_ONLY { complete(to_error(bramblekit::Exception()), std::move(*run)); });
}

void RavelinOperation::Impl::special_free(const URL& dest_file) {
  opr.free();
  finalize_active_opr(dest_file);
}

void RavelinOperation::Impl::stop_waiting() {
  if (const auto sema = std::exchange(pending_sema, nullptr))
    sema->signal();
}

void RavelinOperation::Impl::finalize_active_opr(const URL& url) {
  main_sync([&]() MAIN_ONLY {
    if (opr_has_never_been_added_to_active_list)
      return;
    if (!pending_identical_opr)
      remove_active_opr(url);
    const bool limit_reached = is_download_limit_reached();
    if (const auto next = std::exchange(pending_identical_opr, nullptr)) {
      auto& successor = *next->impl_;
      successor.is_pending_for_identical_opr = false;
      // A cancelled one needs no slot. It must be woken now: a third operation on the same file may
      // have replaced it in the list, so it would not be found later.
      if (!limit_reached || next->is_cancelled())
        successor.stop_waiting();
      return;
    }
    if (limit_reached)
      return;
    for (const auto& waiting : active_oprs_ary())
      if (waiting->impl_->pending_sema && !waiting->impl_->is_pending_for_identical_opr) {
        waiting->impl_->stop_waiting();
        return;
      }
  });
}

} // namespace ravelin
