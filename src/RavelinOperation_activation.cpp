#include "ravelin/ravelin_operation.h"

#include "bramblekit/collections.h"
#include "bramblekit/errors.h"
#include "bramblekit/file_naming.h"
#include "bramblekit/main_thread.h"
#include "platform/files/file_manager.h"
#include "platform/threads/semaphore.h"
#include "src/RavelinOperation_impl.h"

#include <cerrno>
#include <utility>

// Claiming the destination, waiting for it, and releasing it.

namespace ravelin {

using bramblekit::error_msg;
using bramblekit::main_sync;
using bramblekit::to_error;
using platform::FileManager;
using platform::OneShotEvent;

namespace {

constexpr const char* source_file = "src/RavelinOperation";

} // namespace

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

RavelinOperation::Impl::MainFileState RavelinOperation::Impl::get_main_file_state(const URL& url) {
  const auto& fm = FileManager::default_manager();
  if (auto opr = get_active_opr(url))
    return {MainFileState::busy{std::move(opr)}};
  if (!fm.file_exists(url))
    return {MainFileState::not_existing{}};
  if (fm.file_exists(FileProcessor::prepare_resume_file_url(url)))
    return {MainFileState::incomplete{}};
  return {MainFileState::complete{}};
}

void RavelinOperation::Impl::special_activate(URL& dest_file, OnConflict on_conflict) {
  opr.activate();
  setup_active_opr(dest_file, on_conflict);
}

void RavelinOperation::Impl::setup_active_opr(URL& url, OnConflict on_conflict) {
  main_sync([&]() MAIN_ONLY { claim_for(url, on_conflict); });
}

void RavelinOperation::Impl::claim_for(URL& url, OnConflict on_conflict) {
  if (url.path().empty()) {
    error_during_activation = to_error(std::system_error(
        ENOENT, std::system_category(), "the destination '" + url.text() + "' is not a file"));
    return;
  }
  const auto file_state = get_main_file_state(url);
  const auto* const busy = std::get_if<MainFileState::busy>(&file_state.value);
  const bool complete = std::holds_alternative<MainFileState::complete>(file_state.value);
  if (std::holds_alternative<MainFileState::not_existing>(file_state.value)) {
    claim(url);
    return;
  }
  switch (on_conflict) {
  case OnConflict::resume:
    if (busy) {
      busy->opr->cancel();
      wait_for_identical_or_claim_again(*busy->opr, url, on_conflict);
    } else if (!complete) {
      claim(url);
    } else if (FileManager::default_manager().is_directory(url)) {
      error_during_activation = to_error(std::system_error(
          EISDIR, std::system_category(), "could not write to '" + url.path().native() + "'"));
    } else {
      main_file_is_already_complete = true;
      if (checks_destination())
        claim(url); // the file may be incomplete after all
    }
    return;
  case OnConflict::replace:
    if (busy) {
      busy->opr->cancel_and_clear_files();
      wait_for_identical_or_claim_again(*busy->opr, url, on_conflict);
    } else if (checks_destination() && !FileManager::default_manager().is_directory(url)) {
      must_replace = true; // nothing is deleted before the server has answered
      claim(url);
    } else if (delete_files(url)) {
      claim(url);
    }
    return;
  case OnConflict::keep_both:
    if (!rename_dest_file(url))
      return;
    if (get_active_opr(url))
      claim_for(url, on_conflict); // an operation started in the callback has the new name
    else
      claim(url);
    return;
  case OnConflict::stop:
    if (busy)
      refuse_claim("An operation is already in-progress for the destination file.", 778);
    else if (complete)
      refuse_claim("Destination file already exists and complete.", 735);
    else
      refuse_claim("Destination file already exists and incomplete.", 755);
    return;
  }
}

void RavelinOperation::Impl::wait_for_identical_or_claim_again(RavelinOperation& other, URL& url,
                                                               OnConflict on_conflict) {
  if (get_active_opr(url).get() == &other)
    wait_for_identical(*other.impl_, url);
  else // in its callback it ended, or another operation claimed the destination
    claim_for(url, on_conflict);
}

void RavelinOperation::Impl::refuse_claim(const char* message, std::int64_t line) {
  error_during_activation =
      to_error(error_msg(message, source_file, "setup_active_opr(for:_:)", line));
}

void RavelinOperation::Impl::claim(const URL& url) {
  if (!pending_sema && is_download_limit_reached()) {
    pending_sema = std::make_shared<OneShotEvent>();
    is_pending_for_identical_opr = false;
  }
  add_active_opr(self(), url);
  opr_has_never_been_added_to_active_list = false;
}

void RavelinOperation::Impl::wait_for_identical(Impl& other, const URL& url) {
  pending_sema = std::make_shared<OneShotEvent>();
  is_pending_for_identical_opr = true;
  other.pending_identical_opr = self();
  add_active_opr(self(), url);
  opr_has_never_been_added_to_active_list = false;
}

bool RavelinOperation::Impl::rename_dest_file(URL& url) {
  std::vector<URL> taken;
  for (const auto& [active_url, active] : active_oprs_dict())
    taken.push_back(active_url);
  const auto free_url = bramblekit::generate_non_conflicting_file_url(url, taken);
  if (!free_url) {
    error_during_activation = to_error(error_msg("Destination file already exists and complete.",
                                                 source_file, "rename_dest_file()", 690));
    return false;
  }
  url = *free_url;
  send(stat_closure, {Status::renamed{url}});
  return true;
}

bool RavelinOperation::Impl::delete_files(const URL& url) {
  try {
    FileProcessor::delete_resume_file(url);
    FileProcessor::delete_main_file(url);
    return true;
  } catch (...) {
    error_during_activation = to_error(
        error_msg("Couldn't delete files during replace.", source_file, "delete_files()", 701));
    return false;
  }
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
