#pragma once

#include "platform/network/rate_limiter.h"
#include "platform/network/socket_watch.h"
#include "platform/network/transfer.h"
#include "platform/threads/wake_event.h"

#include <curl/curl.h>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace ravelin::platform {

/// The one thread that drives libcurl for the process.
///
/// Threads: `start`, `cancel`, `allow_data` and `go_on` queue a command from any thread and return
/// at once; everything else runs on the thread itself. Ownership: one per process, made with the
/// first request, never destroyed.
class NetworkThread {
public:
  static NetworkThread& instance();

  void start(std::shared_ptr<DataTask> task) { queue({Command::start, std::move(task)}); }
  void cancel(std::shared_ptr<DataTask> task) { queue({Command::cancel, std::move(task)}); }
  void allow_data(std::shared_ptr<DataTask> task) { queue({Command::allow, std::move(task)}); }
  void go_on(std::shared_ptr<DataTask> task) { queue({Command::go_on, std::move(task)}); }

private:
  using Clock = Transfer::Clock;
  struct Command {
    enum Kind { start, cancel, allow, go_on } kind;
    std::shared_ptr<DataTask> task;
  };

  NetworkThread();
  void queue(Command command);
  [[noreturn]] void loop();
  void turn(std::span<const epoll_event> ready);
  void perform_commands();
  void perform(const Command& command);
  void begin(const std::shared_ptr<DataTask>& task);
  void end(DataTask& task, std::optional<Error> error);
  void collect_ended();
  void end_silent(Clock::time_point now);
  void go_on_with_rate(Clock::time_point now);
  std::chrono::milliseconds wait_time() const;
  static void hold_still_at_exit();
  static int on_socket(CURL*, curl_socket_t socket, int wanted, void* self, void* known) noexcept;
  static int on_timer(CURLM*, long milliseconds, void* self) noexcept;

  std::mutex mutex_; // commands come from any thread
  std::vector<Command> commands_;
  WakeEvent wake_;
  // Held while libcurl is at work, so that a process that leaves `main` can stop that for good
  // before the libraries below are torn down.
  std::mutex at_work_;

  CURLM* multi_ = nullptr;
  SocketWatch sockets_;
  Clock::time_point curl_time_ = Clock::time_point::max(); // when libcurl wants to be called
  RateLimiter limiter_;
  std::unordered_map<DataTask*, std::unique_ptr<Transfer>> transfers_;
  Clock::time_point next_check_ = Clock::time_point::max(); // of the deadlines
};

} // namespace ravelin::platform
