#include "platform/network/network_thread.h"

#include "platform/fatal.h"
#include "platform/threads/thread_pool.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

namespace ravelin::platform {

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
  curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, on_socket);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, on_timer);
  curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
  sockets_.watch(wake_.descriptor(), EPOLLIN);
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

int NetworkThread::on_socket(CURL*, curl_socket_t socket, int wanted, void* self,
                             void* known) noexcept {
  auto& thread = *static_cast<NetworkThread*>(self);
  const std::uint32_t events =
      (wanted & CURL_POLL_IN ? EPOLLIN : 0U) | (wanted & CURL_POLL_OUT ? EPOLLOUT : 0U);
  if (wanted == CURL_POLL_REMOVE) {
    thread.sockets_.forget(socket);
  } else if (known) {
    thread.sockets_.change(socket, events);
  } else {
    thread.sockets_.watch(socket, events);
    curl_multi_assign(thread.multi_, socket, self);
  }
  return 0;
}

int NetworkThread::on_timer(CURLM*, long milliseconds, void* self) noexcept {
  static_cast<NetworkThread*>(self)->curl_time_ =
      milliseconds < 0 ? Clock::time_point::max()
                       : Clock::now() + std::chrono::milliseconds(milliseconds);
  return 0;
}

void NetworkThread::loop() {
  for (;;) {
    const auto ready = sockets_.wait(wait_time());
    const std::lock_guard lock(at_work_);
    turn(ready);
  }
}

void NetworkThread::turn(std::span<const epoll_event> ready) {
  int running = 0;
  bool has_commands = false;
  for (const auto& event : ready) {
    if (event.data.fd == wake_.descriptor()) {
      has_commands = true;
      continue;
    }
    // A connection that broke is told by reading from it, or by writing while it is being made.
    const int reading = event.events & (EPOLLIN | EPOLLHUP | EPOLLERR) ? CURL_CSELECT_IN : 0;
    const int writing = event.events & (EPOLLOUT | EPOLLERR) ? CURL_CSELECT_OUT : 0;
    curl_multi_socket_action(multi_, event.data.fd, reading | writing, &running);
  }
  if (has_commands)
    perform_commands();
  if (Clock::now() >= curl_time_) {
    curl_time_ = Clock::time_point::max();
    curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running);
  }
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
  if (command.kind != Command::cancel) // what was paused has a deadline again
    next_check_ = std::min(next_check_, found->second->deadline());
}

void NetworkThread::begin(const std::shared_ptr<DataTask>& task) {
  if (const auto rate = task->configuration().rate_limit)
    limiter_.set_rate(*rate);
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
  if (now < limiter_.next_try())
    return;
  std::vector<Transfer*> waiting;
  for (const auto& [task, transfer] : transfers_)
    if (transfer->waits_for_rate())
      waiting.push_back(transfer.get());
  // In turns: a server gives up a connection from which nothing is taken for long.
  std::ranges::sort(waiting, {}, &Transfer::last_share);
  limiter_.forget_waiting(); // who has to wait again says so
  for (auto* const transfer : waiting) {
    transfer->go_on();
    next_check_ = std::min(next_check_, transfer->deadline());
    if (limiter_.next_try() != Clock::time_point::max())
      return; // the rest has even more reason to wait
  }
}

std::chrono::milliseconds NetworkThread::wait_time() const {
  const auto now = Clock::now();
  const auto until =
      std::min({next_check_, curl_time_, limiter_.next_try(), now + std::chrono::seconds(1)});
  return std::max(std::chrono::ceil<std::chrono::milliseconds>(until - now),
                  std::chrono::milliseconds(0));
}

} // namespace ravelin::platform
