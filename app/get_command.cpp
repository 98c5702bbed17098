#include "app/get_command.h"

#include "app/checksum_list.h"
#include "app/download.h"
#include "app/event_lines.h"
#include "app/job.h"
#include "app/name_request.h"
#include "app/naming.h"
#include "app/output.h"
#include "app/piped_download.h"

#include <ravelin/ravelin.hpp>

#include <fmt/core.h>

#include <chrono>
#include <csignal>
#include <deque>
#include <map>
#include <pthread.h>
#include <set>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace ravelin::app {
namespace {

namespace fs = std::filesystem;

/// The downloads of one command.
///
/// Threads: main thread.
class Batch final : public Job {
public:
  explicit Batch(GetOptions options)
      : options_(std::move(options)), view_(options_.quiet || options_.events),
        files_(options_.links.size()) {}

  void start() override {
    for (std::size_t i = 0; i < files_.size(); ++i) {
      const auto& link = options_.links[i].url;
      const fs::path name = options_.output.value_or(suggested_name(URL(link)).value_or(no_name));
      if (!options_.output && (options_.remote_names || name == no_name))
        name_requests_.emplace_back(i, std::make_unique<NameRequest>(link, options_, view_));
      else
        files_[i] = name;
    }
    request_names();
  }

  void interrupt(int signal) override {
    signal_ = signal;
    for (std::size_t i = 0; i < next_request_; ++i)
      name_requests_[i].second->cancel();
    for (const auto& download : downloads_)
      download->cancel();
  }

  void refresh() override { view_.refresh(); }

  int exit_status() override {
    view_.close();
    if (files_.size() > 1 && !options_.quiet && !options_.events)
      print_summary();
    if (signal_)
      return signal_ == SIGTERM ? terminated : interrupted;
    return failed_.empty() ? success : failed;
  }

private:
  void request_names() {
    for (; !signal_ && active_requests_ < options_.max_downloads &&
           next_request_ < name_requests_.size();
         ++next_request_) {
      ++active_requests_;
      const auto& [number, request] = name_requests_[next_request_];
      request->start([this, file = &files_[number]](const std::optional<std::string>& name) {
        *file = name;
        --active_requests_;
        request_names();
      });
    }
    if (active_requests_ == 0)
      start_downloads();
  }

  /// Called once all names are known, so that links with the same name are numbered in the same way
  /// in every run.
  void start_downloads() {
    if (signal_)
      report_interruption(); // nothing will start
    for (const auto& link : options_.links)
      ++same_paths_[path_of(link.url)];
    const bool in_list = files_.size() > 1;
    for (std::size_t i = 0; i < files_.size() && !signal_; ++i) {
      const auto& link = options_.links[i];
      if (!files_[i]) {
        failed_.push_back(shown_link(link.url));
        continue;
      }
      auto file = *files_[i];
      if (file.is_relative() && !options_.directory.empty())
        file = options_.directory / file;
      downloads_.push_back(std::make_shared<Download>(
          link, in_list ? choose_file(file, link.url) : file, options_, view_));
    }
    unfinished_ = downloads_.size();
    for (const auto& download : downloads_) {
      auto& queue = queues_[RavelinOperation::get_resume_file(URL::file(download->file())).path()];
      if (queue.empty())
        waiting_.push_back(&queue);
      queue.push_back(download);
    }
    start_queues();
    if (unfinished_ == 0)
      MainQueue::stop();
  }

  /// Prints the final events of links without a download.
  void report_interruption() {
    if (!options_.quiet && !options_.events)
      print_to_stderr("ravelin: interrupted before the names of all files were known\n");
    std::set<std::size_t> reported;
    for (const auto& [number, request] : name_requests_)
      if (request->has_failed())
        reported.insert(number);
    for (std::size_t i = 0; i < files_.size() && options_.events; ++i)
      if (!reported.contains(i))
        print_line(event_line({Status::cancelled{false, Progress()}},
                              {.link = options_.links[i].url, .dest_file = ""}));
  }

  /// Adds a number if another link has the same name. A link gets the number of an earlier run,
  /// even if that run could not get all names.
  fs::path choose_file(const fs::path& file, const std::string& link) {
    const auto numbered = [&](int number) {
      return number == 0
                 ? file
                 : file.parent_path() / (file.stem().native() + " (" + std::to_string(number) +
                                         ")" + file.extension().native());
    };
    const auto origin_of = [&](int number) {
      return RavelinOperation::get_file_state(URL::file(numbered(number)), URL(link)).origin;
    };
    std::error_code ignored;
    for (int number = 0; fs::exists(numbered(number), ignored); ++number)
      if (!taken_.contains(numbered(number)) &&
          origin_of(number) == RavelinOperation::Origin::same_link)
        return *taken_.insert(numbered(number)).first;
    for (int number = first_free_[file];; ++number) {
      if (taken_.contains(numbered(number)) || is_from_another_link(numbered(number), link))
        continue;
      first_free_[file] = number + 1;
      return *taken_.insert(numbered(number)).first;
    }
  }

  /// Whether the file exists and came from another link. If the links differ only in the query,
  /// that may be a new token for the same content, unless the list has several such links.
  bool is_from_another_link(const fs::path& file, const std::string& link) const {
    const auto origin = RavelinOperation::get_file_state(URL::file(file), URL(link)).origin;
    return origin == RavelinOperation::Origin::other_link ||
           (origin == RavelinOperation::Origin::same_path && same_paths_.at(path_of(link)) > 1);
  }

  static std::string path_of(const std::string& link) { return link.substr(0, link.find('?')); }

  /// Downloads that share a resume record, which must run one after the other.
  using Queue = std::deque<std::shared_ptr<Download>>;

  /// Does not start all at once, since each uses a descriptor, even while it waits for a slot.
  void start_queues() {
    constexpr std::int64_t max_pending = 50;
    for (; started_ - max_pending < options_.max_downloads && !waiting_.empty(); ++started_) {
      auto& queue = *waiting_.front();
      waiting_.pop_front();
      start_first(queue);
    }
  }

  void start_first(Queue& queue) {
    queue.front()->start([this, &queue](Download::End how) { on_end(how, queue); });
  }

  void on_end(Download::End how, Queue& queue) {
    if (how == Download::End::failure)
      failed_.push_back(printable(queue.front()->file().native()));
    else if (how == Download::End::success)
      ++succeeded_;
    queue.pop_front();
    if (!queue.empty()) {
      start_first(queue);
    } else {
      --started_;
      start_queues();
    }
    if (--unfinished_ == 0)
      MainQueue::stop();
  }

  /// On a narrow terminal the least important facts are left out, so that the line does not wrap.
  void print_summary() const {
    std::int64_t bytes = 0;
    for (const auto& download : downloads_)
      bytes += download->received();
    std::string text;
    for (const auto& name : failed_)
      text += "failed: " + name + "\n";
    auto counts = fmt::format("{} done", succeeded_);
    if (!failed_.empty())
      counts += fmt::format(", {} failed", failed_.size());
    if (const auto others = files_.size() - succeeded_ - failed_.size())
      counts += fmt::format(", {} not finished", others);
    const auto of_all = fmt::format("{} files: {}", files_.size(), counts);
    const auto with_size = of_all + "; " + human_size(bytes);
    const auto average = describe_average(bytes, std::chrono::steady_clock::now() - began_at_);
    print_to_stderr(text + first_that_fits({with_size + average, with_size, of_all, counts}) +
                    "\n");
  }

  const GetOptions options_;
  const std::chrono::steady_clock::time_point began_at_ = std::chrono::steady_clock::now();
  ProgressView view_;
  std::vector<std::optional<fs::path>> files_; // by index of the link
  std::vector<std::pair<std::size_t, std::unique_ptr<NameRequest>>> name_requests_;
  std::size_t next_request_ = 0;
  std::int64_t active_requests_ = 0;
  std::vector<std::shared_ptr<Download>> downloads_;
  std::map<std::string, int> same_paths_; // number of links by path
  std::set<fs::path> taken_;
  std::map<fs::path, int> first_free_; // lower numbers are taken
  std::map<fs::path, Queue> queues_;   // by resume file
  std::deque<Queue*> waiting_;         // in the order of the links
  std::int64_t started_ = 0;           // queues that were started and are not empty
  std::size_t unfinished_ = 0;         // downloads
  std::size_t succeeded_ = 0;
  std::vector<std::string> failed_; // names of files, or links without one
  int signal_ = 0;
};

/// Signals that are ignored at start, for example by nohup, stay ignored.
sigset_t signals_to_handle() {
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

/// The first signal calls `on_signal` on the main thread, the next one after 0.2 seconds exits at
/// once. The files can be resumed in either case.
void watch_signals(const sigset_t& signals, void (*on_signal)(int)) {
  std::thread([signals, on_signal] {
    using Clock = std::chrono::steady_clock;
    int signal = 0;
    sigwait(&signals, &signal);
    const auto first_at = Clock::now();
    MainQueue::async([on_signal, signal] { on_signal(signal); });
    do // a program such as timeout may send the first one to its child and to its group
      sigwait(&signals, &signal);
    while (Clock::now() - first_at < std::chrono::milliseconds(200));
    _exit(signal == SIGTERM ? terminated : interrupted);
  }).detach();
}

// What a signal stops. Never deleted, since a signal may arrive during exit; the main thread's.
Job* current_job = nullptr;
int list_signal = 0; // that arrived before there was a job
std::shared_ptr<RavelinOperation>& list_download() {
  static auto& operation = *new std::shared_ptr<RavelinOperation>;
  return operation;
}

void stop_all(int signal) {
  if (current_job) {
    current_job->interrupt(signal);
  } else {
    list_signal = signal;
    list_download()->cancel(); // or its next run, if there is none yet
  }
}

/// Whether the checksums are known, or the reason was printed.
bool read_checksums(GetOptions& options) {
  if (!options.checksum_list)
    return true;
  try {
    options.checksum_list_text = read_checksum_list(*options.checksum_list, list_download());
    return true;
  } catch (const std::exception& error) {
    print_to_stderr(fmt::format("ravelin: could not read the checksums in '{}': {}\n",
                                shown_link(*options.checksum_list), printable(error.what())));
    return false;
  }
}

void refresh_every_second(Job& job) try {
  std::thread([&job] {
    for (;;) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      MainQueue::async([&job] { job.refresh(); });
    }
  }).detach();
} catch (const std::system_error&) {
  // Without a thread, rows are drawn only when something happens.
}

} // namespace

int run_get(GetOptions options) {
  const auto signals = signals_to_handle();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr); // before the first thread, which inherits it
  auto process_options = default_options();
  process_options.rate_limit = options.rate_limit;
  set_default_options(process_options);
  RavelinOperation::set_max_simultaneous_download_count(options.max_downloads);
  list_download() = std::make_shared<RavelinOperation>(options.download);
  try {
    watch_signals(signals, stop_all);
  } catch (const std::system_error& error) {
    print_to_stderr(fmt::format("ravelin: could not start a thread: {}\n", error.code().message()));
    return failed;
  }
  const bool has_checksums = read_checksums(options);
  if (list_signal != 0)
    return list_signal == SIGTERM ? terminated : interrupted;
  if (!has_checksums)
    return failed;
  if (options.to_stdout)
    current_job = new PipedDownload(std::move(options));
  else
    current_job = new Batch(std::move(options));
  if (isatty(STDERR_FILENO))
    refresh_every_second(*current_job);
  current_job->start();
  MainQueue::run();
  return current_job->exit_status();
}

} // namespace ravelin::app
