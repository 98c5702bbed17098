#include "platform/network_thread.h"

#include "platform/fatal.h"
#include "platform/thread_pool.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

namespace platform {

NetworkThread& NetworkThread::instance() {
  static auto& thread = *[] {
    auto* const made = new NetworkThread;
    start_detached_thread([] { instance().loop(); });
    return made;
  }();
  return thread;
}

NetworkThread::NetworkThread() {
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK || !(multi_ = curl_multi_init()))
    fatal("libcurl could not be started");
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_NOTHING));
  std::atexit(hold_still_at_exit); // after libcurl's start, so that it runs before TLS is torn down
}

void NetworkThread::hold_still_at_exit() {
  auto& thread = instance();
  for (int attempt = 0; attempt < 100; ++attempt) {
    if (thread.at_work_.try_lock())
      return; // and never unlock
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

void NetworkThread::queue(Command command) {
  const std::lock_guard lock(mutex_);
  commands_.push_back(std::move(command));
  if (commands_.size() == 1)
    wake_.set();
}

void NetworkThread::loop() {
  for (;;) {
    {
      const std::lock_guard lock(at_work_);
      turn();
    }
    curl_waitfd ours{};
    ours.fd = wake_.descriptor();
    ours.events = CURL_WAIT_POLLIN;
    curl_multi_poll(multi_, &ours, 1, poll_time(), nullptr);
  }
}

void NetworkThread::turn() {
  perform_commands();
  int running = 0;
  curl_multi_perform(multi_, &running);
  collect_ended();
  const auto now = Clock::now();
  go_on_with_rate(now);
  end_silent(now);
}

void NetworkThread::perform_commands() {
  std::vector<Command> commands;
  {
    const std::lock_guard lock(mutex_);
    wake_.clear();
    commands.swap(commands_);
  }
  for (const auto& command : commands)
    perform(command);
}

void NetworkThread::perform(const Command& command) {
  if (command.kind == Command::start) {
    begin(command.task);
    return;
  }
  const auto found = transfers_.find(command.task.get());
  if (found == transfers_.end())
    return; // it has ended meanwhile
  switch (command.kind) {
  case Command::cancel:
    end(*command.task, url_error(URLError::cancelled, "cancelled"));
    break;
  case Command::allow:
    found->second->allow_data();
    break;
  case Command::go_on:
    found->second->go_on();
    break;
  case Command::start:
    break;
  }
  next_check_ = Clock::time_point::min(); // what was paused has a deadline again
}

void NetworkThread::begin(const std::shared_ptr<DataTask>& task) {
  auto transfer = std::make_unique<Transfer>(multi_, task, limiter_);
  if (auto outcome = transfer->begin()) {
    task->complete(std::move(outcome->error));
    return;
  }
  next_check_ = std::min(next_check_, transfer->deadline());
  transfers_.emplace(task.get(), std::move(transfer));
}

void NetworkThread::end(DataTask& task, std::optional<Error> error) {
  task.complete(std::move(error)); // told first: taking a handle out may take its time
  transfers_.erase(&task);
}

void NetworkThread::collect_ended() {
  int left = 0;
  while (const auto* const message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE)
      continue;
    const auto code = message->data.result;
    Transfer* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    if (auto outcome = transfer->ended(code))
      end(transfer->task(), std::move(outcome->error));
  }
}

void NetworkThread::end_silent(Clock::time_point now) {
  if (now < next_check_)
    return;
  std::vector<Transfer*> silent;
  next_check_ = Clock::time_point::max();
  for (const auto& [task, transfer] : transfers_) {
    if (transfer->deadline() <= now)
      silent.push_back(transfer.get());
    else
      next_check_ = std::min(next_check_, transfer->deadline());
  }
  for (auto* const transfer : silent)
    end(transfer->task(), transfer->timed_out());
}

void NetworkThread::go_on_with_rate(Clock::time_point now) {
  const bool due = !waiting_for_rate_ || now >= limiter_.next_try();
  waiting_for_rate_ = false;
  for (const auto& [task, transfer] : transfers_) {
    if (transfer->waits_for_rate() && due) {
      transfer->go_on();
      next_check_ = now;
    }
    waiting_for_rate_ = waiting_for_rate_ || transfer->waits_for_rate();
  }
}

int NetworkThread::poll_time() const {
  auto until = std::min(next_check_, Clock::now() + std::chrono::seconds(1));
  if (waiting_for_rate_)
    until = std::min(until, limiter_.next_try());
  const auto time = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(time.count(), 0));
}

} // namespace platform
