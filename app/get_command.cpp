#include "app/get_command.h"

#include "app/download.h"
#include "app/leftovers.h"
#include "app/naming.h"
#include "ravelin/main_queue.h"

#include <csignal>
#include <deque>
#include <map>
#include <pthread.h>
#include <set>
#include <thread>
#include <unistd.h>

namespace app {
namespace {

namespace fs = std::filesystem;
using ravelin::MainQueue;
using ravelin::RavelinOperation;

/// The downloads of one command and how they ended.
///
/// Threads: main thread.
class Batch {
public:
  Batch(const GetOptions& options) : view_(options.quiet || options.events) {
    std::set<fs::path> taken;
    for (const auto& link : options.links) {
      auto file = options.output.value_or(name_from_link(link));
      if (file.is_relative() && !options.directory.empty())
        file = options.directory / file;
      downloads_.push_back(std::make_shared<Download>(link, unused(file, taken), options, view_));
    }
  }

  void start() {
    running_ = downloads_.size();
    for (const auto& download : downloads_)
      lines_[record_of(download->file())].push_back(download);
    for (auto& [record, line] : lines_)
      begin_first(line);
  }

  void interrupt(int signal) {
    signal_ = signal;
    for (const auto& download : downloads_)
      download->cancel();
  }

  int exit_status() {
    view_.close();
    if (signal_)
      return signal_ == SIGTERM ? terminated : interrupted;
    return any_failed_ ? failed : all_well;
  }

private:
  /// Two links that suggest one name must not share a file.
  static fs::path unused(const fs::path& file, std::set<fs::path>& taken) {
    auto name = file;
    for (int number = 1; !taken.insert(name).second; ++number)
      name = file.parent_path() / (file.stem().native() + " (" + std::to_string(number) + ")" +
                                   file.extension().native());
    return name;
  }

  using Line = std::deque<std::shared_ptr<Download>>;

  void begin_first(Line& line) {
    if (!line.empty())
      line.front()->start([this, &line](Download::End how) { on_end(how, line); });
  }

  void on_end(Download::End how, Line& line) {
    any_failed_ = any_failed_ || how == Download::End::failure;
    line.pop_front();
    begin_first(line);
    if (--running_ == 0)
      MainQueue::stop();
  }

  ProgressView view_;
  std::vector<std::shared_ptr<Download>> downloads_;
  std::map<fs::path, Line> lines_; // those that share a resume record go one after the other
  std::size_t running_ = 0;
  bool any_failed_ = false;
  int signal_ = 0;
};

/// Those that were ignored from the start stay so: "nohup" and shells mean it.
sigset_t signals_to_stop_at() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction now = {};
    sigaction(signal, nullptr, &now);
    if (now.sa_handler != SIG_IGN)
      sigaddset(&signals, signal);
  }
  return signals;
}

/// The first signal stops the downloads in good order, the second leaves at once: the files can
/// be continued either way.
void watch_signals(Batch& batch, const sigset_t& signals) {
  std::thread([&batch, signals] {
    int signal = 0;
    sigwait(&signals, &signal);
    MainQueue::async([&batch, signal] { batch.interrupt(signal); });
    sigwait(&signals, &signal);
    _exit(signal == SIGTERM ? terminated : interrupted);
  }).detach();
}

} // namespace

int run_get(const GetOptions& options) {
  const auto signals = signals_to_stop_at();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr); // before the first thread, which inherits it
  ravelin::set_defaults(options.defaults);
  RavelinOperation::set_max_simultaneous_download_count(options.max_downloads);
  static Batch* batch = nullptr; // a signal may come while the process leaves
  batch = new Batch(options);
  watch_signals(*batch, signals);
  batch->start();
  MainQueue::run();
  return batch->exit_status();
}

} // namespace app
