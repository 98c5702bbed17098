#pragma once

#include "ravelin/main_queue.h"
#include "ravelin/ravelin_operation.h"

#include <chrono>
#include <functional>
#include <poll.h>
#include <stdexcept>

namespace test {

// Runs the main queue until the condition holds; throws after a minute.
inline void pump_until(const std::function<bool()>& holds) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > limit)
      throw std::runtime_error("what is waited for does not come");
    pollfd readable{ravelin::MainQueue::descriptor(), POLLIN, 0};
    poll(&readable, 1, 1); // not everything that is waited for comes through the queue
    ravelin::MainQueue::drain();
  }
}

inline bool is_final(const ravelin::Status& status) {
  return status.holds<ravelin::Status::success>() || status.holds<ravelin::Status::cancelled>() ||
         status.holds<ravelin::Status::error>();
}

// One run of an operation; lives until its final event.
struct Run {
  void start(
      const std::string& link, const std::filesystem::path& file, bool split,
      ravelin::OnConflict on_conflict, std::function<void()> then = [] {}) {
    opr->resume(ravelin::URL(link), ravelin::URL::file(file), split, on_conflict,
                [this, then = std::move(then)](const ravelin::Status& status) {
                  if (status.holds<ravelin::Status::files_are_created>())
                    return; // comes on another thread
                  if (const auto* const some = status.get_if<ravelin::Status::downloading>())
                    received = some->progress.received_bytes;
                  last = status;
                  finals += ended();
                  then();
                });
  }
  bool ended() const { return is_final(last); }

  std::shared_ptr<ravelin::RavelinOperation> opr = std::make_shared<ravelin::RavelinOperation>();
  ravelin::Status last{ravelin::Status::connecting{}};
  std::int64_t received = 0;
  int finals = 0;
};

} // namespace test
