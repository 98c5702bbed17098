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
/// Threads: the public functions queue a command from any thread and return at once; everything
/// else runs on the network thread. Ownership: one per process, created by the first request, never
/// destroyed.
class NetworkThread {
public:
  /// Throws the first times if the system refuses a thread or a descriptor.
  static NetworkThread& instance();

  NetworkThread();
  ~NetworkThread();
  NetworkThread(const NetworkThread&) = delete;
  NetworkThread& operator=(const NetworkThread&) = delete;

  void start(std::shared_ptr<DataTask> task) { queue({Command::start, std::move(task)}); }
  void cancel(std::shared_ptr<DataTask> task) { queue({Command::cancel, std::move(task)}); }
  void allow_data(std::shared_ptr<DataTask> task) { queue({Command::allow, std::move(task)}); }
  void resume(std::shared_ptr<DataTask> task) { queue({Command::resume, std::move(task)}); }

private:
  using Clock = Transfer::Clock;
  struct Command {
    enum Kind { start, cancel, allow, resume } kind;
    std::shared_ptr<DataTask> task;
  };

  using Transfers = std::unordered_map<DataTask*, std::shared_ptr<Transfer>>;
  /// A transfer that outlives its task to drain the body, so that its connection can be reused.
  struct Draining {
    std::shared_ptr<Transfer> transfer;
    Clock::time_point deadline;
  };

  static void* run(void* self);
  void make_multi();
  void replace_descriptors();
  void close_idle_connections(Clock::time_point now);
  void queue(Command command);
  [[noreturn]] void loop();
  void run_once(std::span<const epoll_event> ready);
  void perform_commands();
  void perform(const Command& command);
  void begin(const std::shared_ptr<DataTask>& task);
  void cancel(Transfers::iterator found);
  void end(DataTask& task, std::optional<Error> error);
  void complete_finished();
  void end_timed_out(Clock::time_point now);
  void resume_rate_limited(Clock::time_point now);
  std::chrono::milliseconds wait_time() const;
  static void stop_at_exit();
  static int on_socket(CURL*, curl_socket_t socket, int wanted, void* self, void* known) noexcept;
  static int on_timer(CURLM*, long milliseconds, void* self) noexcept;

  std::mutex mutex_; // commands come from any thread
  std::vector<Command> commands_;
  WakeEvent wake_;
  // Held while libcurl runs, so that an exiting process can stop it before the libraries that it
  // uses are torn down.
  std::mutex loop_mutex_;

  CURLSH* shared_ = nullptr; // TLS sessions
  CURLM* multi_ = nullptr;   // connections
  bool may_keep_connections_ = false;
  Clock::time_point idle_since_ = Clock::time_point::max();
  SocketWatch sockets_;
  Clock::time_point curl_timer_ = Clock::time_point::max(); // when libcurl wants to be called
  RateLimiter limiter_{1};                                  // of the process
  bool has_limits_ = false;                                 // since the first request with one
  Clock::time_point next_rate_check_ = Clock::time_point::max();
  Transfers transfers_;
  std::vector<Draining> draining_;
  Clock::time_point next_check_ = Clock::time_point::max(); // for expired deadlines
};

} // namespace ravelin::platform
