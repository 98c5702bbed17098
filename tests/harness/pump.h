#pragma once

#include "ravelin/main_queue.h"
#include "ravelin/ravelin_operation.h"

#include <chrono>
#include <functional>
#include <poll.h>
#include <stdexcept>

namespace test {

// Runs the main queue until the condition holds; throws when that takes too long.
template <class Condition> void pump_until(const Condition& holds) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(40);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > limit)
      throw std::runtime_error("waited in vain");
    pollfd readable{ravelin::MainQueue::descriptor(), POLLIN, 0};
    poll(&readable, 1, 2); // not everything that is waited for comes through the queue
    ravelin::MainQueue::drain();
  }
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
  bool ended() const { return last.is_final(); }

  std::shared_ptr<ravelin::RavelinOperation> opr = std::make_shared<ravelin::RavelinOperation>();
  ravelin::Status last{ravelin::Status::connecting{}};
  std::int64_t received = 0;
  int finals = 0;
};

} // namespace test
