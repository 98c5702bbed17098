#pragma once

#include "bramblekit/main_thread.h"
#include "platform/files/extended_attributes.h"
#include "ravelin/options.h"
#include "src/FileProcessor.h"
#include "tests/harness/faulty_files.h"
#include "tests/harness/patterns.h"
#include "tests/harness/pump.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>

namespace test {

using namespace ravelin;
using namespace std::chrono_literals;

constexpr auto never = 24h; // for a server to answer

// Runs the work on a thread of its own, and the main queue meanwhile.
template <class Work> void in_background(const Work& work) {
  std::atomic<bool> done = false;
  const std::jthread thread([&] { work(), done = true; });
  pump_until([&] { return done.load(); });
}

// 2 for an incomplete file: its attribute and its line in the list of hidden names.
inline int marks_of(const URL& file) {
  std::ifstream list(file.path().parent_path() / ".hidden");
  int marks = ravelin::platform::extended_attribute(file, "lg_ignore") == "true";
  for (std::string line; std::getline(list, line);)
    marks += line == file.path().filename();
  return marks;
}

// One run of an operation. The callback keeps it alive.
struct Download {
  void take(const Status& status) {
    const auto* const failed = status.get_if<Status::error>();
    const char event =
        failed ? "!TNL"[failed->custom_error.value.index()] : "rfsdX!pc+x"[status.value.index()];
    EXPECT_EQ(MainQueue::is_main_thread(), event != 'f');
    ravelin::bramblekit::main_sync([&] {
      EXPECT_FALSE(ended) << event << " after the end of " << story;
      if (const auto* const renamed = status.get_if<Status::renamed>())
        dest = renamed->new_file_url;
      error_text = failed ? failed->custom_error.text() : "";
      events.push_back(status);
      if (const auto* const data = status.get_if<Status::downloading>()) {
        received = data->progress.received_bytes;
        snap_points += data->progress.is_at_snap_point;
      }
      story += event == 'd' && story.ends_with('d') ? "" : std::string(1, event);
      ended = failed || event == 'X' || event == '+';
    });
    if (then)
      then(event);
  }
  // The last event of a kind, or null.
  template <class Case> const Case* last() const {
    const Case* found = nullptr;
    for (const auto& event : events)
      found = event.holds<Case>() ? event.get_if<Case>() : found;
    return found;
  }

  std::shared_ptr<RavelinOperation> opr;
  URL dest;
  std::function<void(char event)> then{}; // inside the callback, on its thread
  // A letter for each event: renamed, pending, connecting, files_are_created, started, downloading
  // (once), x and X for cancelling and cancelled, + for success, and for an error, by its kind, T
  // (timeout), N (no network), L (connection lost) or !.
  std::string story{};
  std::vector<Status> events{};
  std::string error_text{};
  std::int64_t received = 0; // bytes
  int snap_points = 0;
  bool ended = false;
};

// Downloads from a server that `serve` makes. The end of each test is verified: every run has ended
// once, its files are as its end says, nothing is claimed, no descriptor is left.
class TransferTest : public testing::Test {
protected:
  void SetUp() override {
    // The first request of the process makes what stays: the network thread and its descriptors.
    download({.name = "first"});
    descriptors_ = count_descriptors();
    setenv("TMPDIR", dir.path().c_str(), 1); // for children that die without tidying up
  }
  void TearDown() override {
    set_default_options({});
    RavelinOperation::set_max_simultaneous_download_count(1);
    RavelinOperation::cancel_all(false); // leaves its trace on whatever is still registered
    for (const auto& run : runs_) {
      SCOPED_TRACE(run->dest.text() + ": " + run->story);
      EXPECT_TRUE(run->ended && run.use_count() == 1) << "the callback is still held";
      EXPECT_FALSE(run->opr && (run->opr->is_cancelled() || run->opr->is_busy()));
      const bool has_record = fs::exists(record_of(run->dest));
      EXPECT_FALSE(has_record && run->last<Status::success>());
      EXPECT_TRUE(has_record || marks_of(run->dest) == 0);
    }
    // One that was cancelled before it begins ends at once, unless a leftover takes the only slot.
    const auto probe = std::make_shared<RavelinOperation>();
    probe->cancel();
    EXPECT_EQ(download({.name = "probe", .opr = probe}).story, "X");
    RavelinOperation::set_max_simultaneous_download_count(5);
    for (const auto& entry : fs::directory_iterator(dir.path()))
      EXPECT_NE(entry.path().extension(), ".tmp");
    setenv("TMPDIR", dir.path().parent_path().c_str(), 1);
    server.reset();
    // The network thread tells the end of a request before it closes the connection.
    pump_until([&] { return count_descriptors() <= descriptors_; });
  }
  static std::ptrdiff_t count_descriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), {});
  }

  void serve(Reply reply) { server.emplace(std::move(reply)); }
  void serve(Script script) { server.emplace(std::move(script)); }
  // Each answer stalls after 10 bytes of `body`, until `released` is set.
  void serve_stalling() {
    released = false;
    serve([this](const Request&) {
      return Reply{.body = body, .stall_after = released ? Position() : Position(10)};
    });
  }
  URL file(const std::string& name = "file.bin") const { return URL::file(dir / name); }
  static fs::path record_of(const URL& file) {
    return FileProcessor::prepare_resume_file_url(file).path();
  }
  struct Start {
    std::string name = "file.bin";
    OnConflict on_conflict = OnConflict::resume;
    bool split = true;
    std::shared_ptr<RavelinOperation> opr = std::make_shared<RavelinOperation>();
    std::function<void(char)> then{};
  };
  Download& start(const Start& with) {
    const auto run = std::make_shared<Download>(Download{with.opr, file(with.name), with.then});
    runs_.push_back(run);
    with.opr->resume(URL(server ? server->url() : "nonsense:"), run->dest, with.split,
                     with.on_conflict, [run](const Status& status) { run->take(status); });
    return *run;
  }
  // Returns when so many bytes are there.
  Download& start_until(std::int64_t bytes, const Start& with) {
    auto& run = start(with);
    pump_until([&] { return run.received == bytes || run.ended; });
    EXPECT_FALSE(run.ended) << run.story << ' ' << run.error_text;
    return run;
  }
  static Download& finish(Download& run) {
    pump_until([&] { return run.ended; });
    return run;
  }
  Download& download(const Start& with) { return finish(start(with)); }
  // The ranges that the server was asked for, as sorted texts; "all" for a request without.
  std::string asked() const {
    std::multiset<std::string> ranges;
    for (const auto& request : server->requests())
      ranges.insert(request.header("Range").value_or("bytes=all").substr(6));
    std::string text;
    for (const auto& range : ranges)
      text += (text.empty() ? "" : " ") + range;
    return text;
  }

  const std::string body = pattern(500);
  TempDir dir;
  std::optional<ScriptedServer> server;
  std::atomic<bool> released = false;

private:
  std::vector<std::shared_ptr<Download>> runs_;
  std::ptrdiff_t descriptors_ = 0;
};

} // namespace test
