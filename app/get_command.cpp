#include "app/get_command.h"

#include "app/download.h"
#include "app/event_lines.h"
#include "app/leftovers.h"
#include "app/link_mark.h"
#include "app/name_question.h"
#include "app/naming.h"
#include "app/output.h"
#include "ravelin/main_queue.h"

#include <csignal>
#include <deque>
#include <map>
#include <pthread.h>
#include <set>
#include <thread>
#include <unistd.h>

namespace ravelin::app {
namespace {

namespace fs = std::filesystem;

/// The downloads of one command and how they ended.
///
/// Threads: main thread.
class Batch {
public:
  explicit Batch(const GetOptions& options)
      : options_(options), view_(options.quiet || options.events), files_(options.links.size()) {}

  void start() {
    for (std::size_t i = 0; i < files_.size(); ++i) {
      const auto& link = options_.links[i];
      const auto name = options_.output.value_or(name_from_link(link));
      if (!options_.output && (options_.remote_names || name == no_name))
        questions_.emplace_back(i, std::make_shared<NameQuestion>(link, options_, view_));
      else
        files_[i] = name;
    }
    ask_more();
  }

  void interrupt(int signal) {
    signal_ = signal;
    for (std::size_t i = 0; i < asked_; ++i)
      questions_[i].second->cancel();
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
  void ask_more() {
    for (; !signal_ && asking_ < options_.max_downloads && asked_ < questions_.size(); ++asked_) {
      ++asking_;
      const auto& [number, question] = questions_[asked_];
      question->start([this, file = &files_[number]](const std::optional<std::string>& name) {
        *file = name;
        --asking_;
        ask_more();
      });
    }
    if (asking_ == 0)
      begin();
  }

  /// With all names known, so that links of one name get the same ones in every run.
  void begin() {
    if (signal_)
      tell_of_interruption();
    for (const auto& link : options_.links)
      marks_.insert(link_mark(link));
    const bool in_list = files_.size() > 1;
    for (std::size_t i = 0; i < files_.size() && !signal_; ++i) {
      any_failed_ = any_failed_ || !files_[i];
      if (!files_[i])
        continue;
      auto file = *files_[i];
      if (file.is_relative() && !options_.directory.empty())
        file = options_.directory / file;
      const auto& link = options_.links[i];
      downloads_.push_back(std::make_shared<Download>(
          link, in_list ? own_or_unused(file, link) : file, options_, view_));
    }
    running_ = downloads_.size();
    for (const auto& download : downloads_) {
      auto& line = lines_[record_of(download->file())];
      if (line.empty())
        waiting_.push_back(&line);
      line.push_back(download);
    }
    begin_more();
    if (running_ == 0)
      MainQueue::stop();
  }

  /// Of links that have no download yet.
  void tell_of_interruption() {
    const Progress nothing(0.0F, 0, false);
    std::set<std::size_t> told;
    for (const auto& [number, question] : questions_)
      if (question->has_failed())
        told.insert(number);
    for (std::size_t i = 0; i < files_.size() && options_.events; ++i)
      if (!told.contains(i))
        print_line(event_line({Status::cancelled{false, nothing}}, options_.links[i], "", true));
  }

  /// Two links that suggest one name must not share a file. The numbers are those of an earlier
  /// run even if that one did not learn the names of all.
  fs::path own_or_unused(const fs::path& file, const std::string& link) {
    const auto numbered = [&](int number) {
      return number == 0
                 ? file
                 : file.parent_path() / (file.stem().native() + " (" + std::to_string(number) +
                                         ")" + file.extension().native());
    };
    const auto own = link_mark(link);
    std::error_code ignored;
    for (int number = 0; fs::exists(numbered(number), ignored); ++number)
      if (!taken_.contains(numbered(number)) && mark_of(numbered(number)) == own)
        return *taken_.insert(numbered(number)).first;
    for (int number = 0;; ++number) {
      if (taken_.contains(numbered(number)))
        continue;
      const auto mark = mark_of(numbered(number));
      const bool is_of_another = mark && mark != own && marks_.contains(*mark);
      if (!is_of_another)
        return *taken_.insert(numbered(number)).first;
    }
  }

  using Line = std::deque<std::shared_ptr<Download>>;

  /// Not all at once: each that has begun holds a descriptor, even if it waits for its turn.
  void begin_more() {
    constexpr std::int64_t most_ready = 50;
    for (; begun_ - most_ready < options_.max_downloads && !waiting_.empty(); ++begun_) {
      auto& line = *waiting_.front();
      waiting_.pop_front();
      begin_first(line);
    }
  }

  void begin_first(Line& line) {
    line.front()->start([this, &line](Download::End how) { on_end(how, line); });
  }

  void on_end(Download::End how, Line& line) {
    any_failed_ = any_failed_ || how == Download::End::failure;
    line.pop_front();
    if (!line.empty()) {
      begin_first(line);
    } else {
      --begun_;
      begin_more();
    }
    if (--running_ == 0)
      MainQueue::stop();
  }

  const GetOptions& options_;
  ProgressView view_;
  std::vector<std::optional<fs::path>> files_; // by the numbers of the links
  std::vector<std::pair<std::size_t, std::shared_ptr<NameQuestion>>> questions_;
  std::size_t asked_ = 0;
  std::int64_t asking_ = 0;
  std::vector<std::shared_ptr<Download>> downloads_;
  std::set<std::string> marks_; // of all links
  std::set<fs::path> taken_;
  std::map<fs::path, Line> lines_; // those that share a resume record go one after the other
  std::deque<Line*> waiting_;      // in the order of the links
  std::int64_t begun_ = 0;         // lines
  std::size_t running_ = 0;        // downloads that have not ended
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
  set_defaults(options.defaults);
  RavelinOperation::set_max_simultaneous_download_count(options.max_downloads);
  static Batch* batch = nullptr; // a signal may come while the process leaves
  batch = new Batch(options);
  watch_signals(*batch, signals);
  batch->start();
  MainQueue::run();
  return batch->exit_status();
}

} // namespace ravelin::app
