#include "platform/network/network_thread.h"

#include "platform/network/curl_errors.h"
#include "platform/threads/thread_pool.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <system_error>
#include <thread>

namespace ravelin::platform {
namespace {

constexpr long max_connections_kept = 64; // both used and idle
constexpr auto max_idle_time = std::chrono::seconds(15);
constexpr auto max_time_between_checks = std::chrono::seconds(1); // deadlines may come nearer
constexpr auto max_draining_time = std::chrono::seconds(1);

} // namespace

NetworkThread& NetworkThread::instance() {
  static auto& thread = *[] {
    auto created = std::make_unique<NetworkThread>();
    start_detached_thread(run, created.get());
    std::atexit(stop_at_exit); // after curl_global_init(), so that it runs before TLS cleanup
    return created.release();
  }();
  return thread;
}

NetworkThread::NetworkThread() {
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
    throw std::bad_alloc();
  make_multi();
  sockets_.watch(wake_.descriptor(), EPOLLIN);
}

NetworkThread::~NetworkThread() {
  curl_multi_cleanup(multi_);
  curl_share_cleanup(shared_);
}

void* NetworkThread::run(void* self) {
  static_cast<NetworkThread*>(self)->loop();
}

void NetworkThread::make_multi() {
  if (!shared_ && (shared_ = curl_share_init()))
    curl_share_setopt(shared_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  multi_ = shared_ ? curl_multi_init() : nullptr;
  if (!multi_)
    throw std::bad_alloc();
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_NOTHING));
  curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, on_socket);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, on_timer);
  curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, max_connections_kept);
}

/// libcurl checks the age of an idle connection only when it looks for one to reuse.
void NetworkThread::close_idle_connections(Clock::time_point now) {
  if (!transfers_.empty() || !draining_.empty()) {
    idle_since_ = Clock::time_point::max();
    return;
  }
  if (!may_keep_connections_)
    return;
  idle_since_ = std::min(idle_since_, now);
  if (now - idle_since_ < max_idle_time)
    return;
  curl_multi_cleanup(multi_);
  make_multi();
  curl_timer_ = Clock::time_point::max();
  may_keep_connections_ = false;
  idle_since_ = Clock::time_point::max();
}

void NetworkThread::stop_at_exit() {
  auto& thread = instance();
  for (int attempt = 0; attempt < 100; ++attempt) {
    if (thread.loop_mutex_.try_lock())
      return; // with the mutex held, for good
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
    thread.sockets_.unwatch(socket);
  } else if (known) {
    thread.sockets_.change(socket, events);
  } else {
    thread.sockets_.watch(socket, events);
    curl_multi_assign(thread.multi_, socket, self);
  }
  return 0;
}

int NetworkThread::on_timer(CURLM*, long milliseconds, void* self) noexcept {
  static_cast<NetworkThread*>(self)->curl_timer_ =
      milliseconds < 0 ? Clock::time_point::max()
                       : Clock::now() + std::chrono::milliseconds(milliseconds);
  return 0;
}

void NetworkThread::loop() {
  for (;;) {
    const auto ready = sockets_.wait(wait_time());
    const std::lock_guard lock(loop_mutex_);
    if (ready)
      run_once(*ready);
    else
      replace_descriptors();
  }
}

/// The application has closed them, perhaps together with all others of the process. The old
/// numbers may belong to other files now, so nothing that would close them is cleaned up.
void NetworkThread::replace_descriptors() {
  const auto closed = url_error(URLError::unknown, "the descriptors of the library were closed");
  for (const auto& one : draining_)
    one.transfer->abandon();
  draining_.clear();
  for (const auto& [task, transfer] : std::exchange(transfers_, {})) {
    transfer->abandon();
    transfer->task().complete(closed);
  }
  static auto& abandoned = *new std::vector<CURLM*>; // still referenced, for leak checkers
  if (multi_)
    abandoned.push_back(std::exchange(multi_, nullptr));
  std::unique_lock lock(mutex_);
  for (const auto& command : std::exchange(commands_, {}))
    if (command.kind == Command::start)
      command.task->complete(closed);
  curl_timer_ = Clock::time_point::max();
  try {
    WakeEvent wake;
    SocketWatch sockets;
    make_multi();
    wake_.replace_by(wake);
    sockets_.replace_by(sockets);
    sockets_.watch(wake_.descriptor(), EPOLLIN);
  } catch (...) { // none left: the next wait fails again
    lock.unlock();
    std::this_thread::sleep_for(max_draining_time / 10);
  }
}

void NetworkThread::run_once(std::span<const epoll_event> ready) {
  int running = 0;
  for (const auto& event : ready) {
    if (event.data.fd == wake_.descriptor())
      continue;
    // libcurl finds out about an error by reading, or by writing while it connects.
    const int reading = event.events & (EPOLLIN | EPOLLHUP | EPOLLERR) ? CURL_CSELECT_IN : 0;
    const int writing = event.events & (EPOLLOUT | EPOLLERR) ? CURL_CSELECT_OUT : 0;
    curl_multi_socket_action(multi_, event.data.fd, reading | writing, &running);
  }
  perform_commands();
  if (Clock::now() >= curl_timer_) {
    curl_timer_ = Clock::time_point::max();
    curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running);
  }
  complete_finished();
  const auto now = Clock::now();
  resume_rate_limited(now);
  end_timed_out(now);
  close_idle_connections(now);
}

void NetworkThread::perform_commands() {
  std::vector<Command> commands;
  {
    const std::lock_guard lock(mutex_);
    if (commands_.empty())
      return;
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
    return; // it ended before the command arrived
  switch (command.kind) {
  case Command::cancel:
    cancel(found);
    return;
  case Command::allow:
    found->second->allow_data();
    break;
  case Command::resume:
    found->second->resume();
    break;
  case Command::start:
    break;
  }
  // A resumed transfer has a deadline again.
  next_check_ = std::min(next_check_, found->second->deadline());
}

void NetworkThread::cancel(Transfers::iterator found) {
  const auto transfer = std::move(found->second);
  transfers_.erase(found);
  transfer->task().complete(url_error(URLError::cancelled, "cancelled"));
  if (transfer->drain()) {
    draining_.push_back({transfer, Clock::now() + max_draining_time});
    next_check_ = std::min(next_check_, draining_.back().deadline);
  }
}

void NetworkThread::begin(const std::shared_ptr<DataTask>& task) {
  if (const auto rate = task->settings().process_rate_limit) {
    limiter_.set_rate(*rate);
    next_rate_check_ = Clock::now(); // waiting transfers get a new time
  }
  const auto transfer = std::make_shared<Transfer>(multi_, shared_, task, limiter_);
  if (auto outcome = transfer->begin()) {
    task->complete(std::move(outcome->error));
    return;
  }
  may_keep_connections_ = true;
  has_limits_ = has_limits_ || task->settings().process_rate_limit || task->settings().limiter;
  next_check_ = std::min(next_check_, Clock::now() + max_time_between_checks);
  transfers_.emplace(task.get(), transfer);
}

void NetworkThread::end(DataTask& task, std::optional<Error> error) {
  task.complete(std::move(error)); // first, since removing the handle may take a while
  transfers_.erase(&task);
}

void NetworkThread::complete_finished() {
  int left = 0;
  while (const auto* const message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE)
      continue;
    const auto code = message->data.result;
    Transfer* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    const bool was_drained =
        std::erase_if(draining_, [&](const auto& one) { return one.transfer.get() == transfer; });
    if (was_drained)
      continue;
    if (auto outcome = transfer->ended(code))
      end(transfer->task(), std::move(outcome->error));
  }
}

void NetworkThread::end_timed_out(Clock::time_point now) {
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
    if (!transfer->is_redirected())
      end(transfer->task(), transfer->timeout_error());
    else if (auto outcome = transfer->ended(CURLE_OK)) // its body takes too long
      end(transfer->task(), std::move(outcome->error));
  std::erase_if(draining_, [now](const auto& one) { return one.deadline <= now; });
  for (const auto& one : draining_)
    next_check_ = std::min(next_check_, one.deadline);
  next_check_ = std::min(next_check_, now + max_time_between_checks);
}

void NetworkThread::resume_rate_limited(Clock::time_point now) {
  if (!has_limits_)
    return;
  std::vector<Transfer*> waiting;
  for (const auto& [task, transfer] : transfers_)
    if (transfer->waits_for_rate())
      waiting.push_back(transfer.get());
  next_rate_check_ = Clock::time_point::max();
  // Least recently served first: servers drop a connection that is not read from for long.
  std::ranges::sort(waiting, {}, &Transfer::last_rate_use);
  for (auto* const transfer : waiting) {
    if (transfer->rate_ready_at() <= now) {
      transfer->resume();
      next_check_ = std::min(next_check_, transfer->deadline());
    }
    if (transfer->waits_for_rate())
      next_rate_check_ = std::min(next_rate_check_, std::max(transfer->rate_ready_at(), now));
  }
}

std::chrono::milliseconds NetworkThread::wait_time() const {
  const auto now = Clock::now();
  const auto until =
      std::min({next_check_, curl_timer_, next_rate_check_, now + std::chrono::seconds(1)});
  return std::max(std::chrono::ceil<std::chrono::milliseconds>(until - now),
                  std::chrono::milliseconds(0));
}

} // namespace ravelin::platform
