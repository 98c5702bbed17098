#include "bramblekit/errors.h"
#include "bramblekit/file_naming.h"
#include "bramblekit/main_thread.h"
#include "platform/files/file_manager.h"
#include "src/RavelinOperation_impl.h"

#include <cerrno>

// Claiming the destination, and what to do if it exists or is being downloaded.

namespace ravelin {

using bramblekit::error_msg;
using bramblekit::main_sync;
using bramblekit::to_error;
using platform::FileManager;
using platform::OneShotEvent;

namespace {

constexpr const char* source_file = "src/RavelinOperation";

} // namespace

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

} // namespace ravelin
