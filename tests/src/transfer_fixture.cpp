#include "tests/src/transfer_fixture.h"

#include "platform/files/file_marks.h"
#include "src/FileProcessor.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include <poll.h>

namespace test {

void pump_until(const std::function<bool()>& holds) {
  const auto limit = std::chrono::steady_clock::now() + 40s;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > limit)
      throw std::runtime_error("waited in vain");
    pollfd readable{MainQueue::descriptor(), POLLIN, 0};
    poll(&readable, 1, 5); // not everything that is waited for comes through the queue
    MainQueue::drain();
  }
}

void in_background(const std::function<void()>& work) {
  std::atomic<bool> done = false;
  std::thread thread([&] {
    work();
    done = true;
  });
  pump_until([&] { return done.load(); });
  thread.join();
}

int marks_of(const URL& file) {
  std::ifstream list(file.path().parent_path() / ".hidden");
  const auto name = file.path().filename().native();
  int marks = ravelin::platform::extended_attribute(file, "lg_ignore") == "true";
  for (std::string line; std::getline(list, line);)
    marks += line == name;
  return marks;
}

bool HookedCalls::fails(std::string_view call, const std::string& path) const {
  const bool failing = hook_(call, path);
  errno = failing ? EIO : errno;
  return failing;
}
bool HookedCalls::fails(std::string_view call, int descriptor) const {
  return fails(call, fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor)));
}

namespace {

std::string name_of(const Status& status) {
  constexpr std::array names{
      "renamed", "files_are_created", "started",    "downloading", "cancelled",
      "error",   "pending",           "connecting", "success",     "cancelling"};
  constexpr std::array errors{"error", "timeout", "no_internet", "connection_lost"};
  const auto* const failed = status.get_if<Status::error>();
  return failed ? errors.at(failed->custom_error.value.index()) : names.at(status.value.index());
}

bool is_final(const Status& status) {
  return status.holds<Status::success>() || status.holds<Status::cancelled>() ||
         status.holds<Status::error>();
}

const auto usual_directory = fs::temp_directory_path();

std::ptrdiff_t count_descriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

} // namespace

void Download::take(const Status& status) {
  {
    const std::lock_guard lock(mutex);
    events.emplace_back(status, MainQueue::is_main_thread());
  }
  if (const auto* const renamed = status.get_if<Status::renamed>())
    dest = renamed->new_file_url;
  if (then)
    then(name_of(status));
}

std::string Download::story() const {
  const std::lock_guard lock(mutex);
  std::string story;
  for (const auto& [status, on_main] : events)
    if (!status.holds<Status::downloading>() || !story.ends_with("downloading"))
      story += (story.empty() ? "" : " ") + name_of(status);
  return story;
}

bool Download::ended() const {
  const std::lock_guard lock(mutex);
  return !events.empty() && is_final(events.back().first);
}

std::string Download::error_text() const {
  const auto error = last<Status::error>();
  return error ? error->custom_error.text() : "";
}

std::int64_t Download::received() const {
  const auto event = last<Status::downloading>();
  return event ? event->progress.received_bytes : 0;
}

std::string Download::content() const {
  std::ifstream in(dest.path(), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void Download::verify() const {
  SCOPED_TRACE(dest.text() + ": " + story());
  for (const auto& [status, on_main] : events) {
    EXPECT_EQ(on_main, !status.holds<Status::files_are_created>());
    EXPECT_EQ(is_final(status), &status == &events.back().first) << "one final event, as the last";
  }
  const auto progress = last<Status::downloading>();
  const bool whole = !progress || progress->progress.prog_value.value_or(1) >= 1;
  if (whole && story().ends_with("success")) {
    EXPECT_TRUE(fs::exists(dest.path()));
    EXPECT_FALSE(fs::exists(FileProcessor::prepare_resume_file_url(dest).path()));
    EXPECT_EQ(marks_of(dest), 0);
  }
  const auto cancelled = last<Status::cancelled>();
  EXPECT_TRUE(!cancelled || !cancelled->also_cleared_files ||
              cancelled->progress == Progress(0.0F, 0, false));
}

void TransferTest::SetUp() {
  // The first request of the process makes what stays: the network thread and its descriptors.
  download({.name = "first", .link = "nonsense:"});
  descriptors_ = count_descriptors();
  setenv("TMPDIR", dir.path().c_str(), 1); // for children that die without tidying up
}

void TransferTest::TearDown() {
  ravelin::platform::set_file_calls(nullptr);
  set_defaults({});
  RavelinOperation::set_max_simultaneous_download_count(5);
  for (const auto& run : runs_) {
    EXPECT_TRUE(run->ended()) << run->story();
    if (!run->ended() && run->opr)
      run->opr->cancel();
  }
  pump_until([&] { return std::ranges::all_of(runs_, &Download::ended); });
  verify_that_nothing_is_claimed();
  for (const auto& run : runs_)
    run->verify();
  for (const auto& entry : fs::directory_iterator(dir.path()))
    EXPECT_NE(entry.path().extension(), ".tmp");
  setenv("TMPDIR", usual_directory.c_str(), 1);
  server.reset();
  runs_.clear();
  // The network thread tells the end of a request before it closes the connection.
  pump_until([&] { return count_descriptors() <= descriptors_; });
}

void TransferTest::verify_that_nothing_is_claimed() {
  RavelinOperation::cancel_all(false); // leaves its trace on whatever is still registered
  for (const auto& run : runs_)
    EXPECT_FALSE(run->opr && (run->opr->is_cancelled() || run->opr->is_busy())) << run->story();
  // One that was cancelled before it begins ends at once, unless a leftover takes the only slot.
  RavelinOperation::set_max_simultaneous_download_count(1);
  const auto probe = std::make_shared<RavelinOperation>();
  probe->cancel();
  EXPECT_EQ(download({.name = "probe", .opr = probe}).story(), "cancelled");
  RavelinOperation::set_max_simultaneous_download_count(5);
}

void TransferTest::set_idle_timeout(std::chrono::milliseconds time) {
  Defaults values;
  values.idle_timeout = time;
  set_defaults(values);
}

std::string TransferTest::record_of(const std::string& name) const {
  return FileProcessor::prepare_resume_file_url(file(name)).path().filename();
}

void TransferTest::put_partial(const std::string& body, const std::vector<std::int64_t>& bytes,
                               const std::string& name) {
  ResumeData record;
  record.content_length = static_cast<std::int64_t>(body.size());
  record.is_splitted = true;
  record.parts = split_into_parts(*record.content_length, 5);
  std::string content(body.size(), '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    record.parts.at(i)->curr_bytes = bytes[i];
    const auto begin = static_cast<std::size_t>(record.parts[i]->begin_pos);
    const auto size = static_cast<std::size_t>(bytes[i]);
    content.replace(begin, size, body, begin, size);
  }
  dir.write(name, content);
  dir.write(record_of(name), record.to_json());
}

Download& TransferTest::start(const Options& options) {
  auto path = "/" + options.name;
  std::ranges::replace(path, ' ', '+');
  const URL link(!options.link.empty() ? options.link : server ? server->url(path) : "nonsense:");
  auto opr = options.opr ? options.opr : std::make_shared<RavelinOperation>();
  const auto run = std::make_shared<Download>(opr, file(options.name));
  runs_.push_back(run);
  opr->resume(link, run->dest, options.split, options.on_conflict,
              [run](const Status& status) { run->take(status); });
  return *run;
}

Download& TransferTest::start_until(std::int64_t bytes, const Options& options) {
  auto& run = start(options);
  pump_until([&] { return run.received() == bytes || run.ended(); });
  EXPECT_FALSE(run.ended()) << run.story() << ' ' << run.error_text();
  return run;
}

Download& TransferTest::finish(Download& run) {
  pump_until([&] { return run.ended(); });
  return run;
}

std::string TransferTest::asked() const {
  std::vector<std::pair<long, std::string>> ranges;
  for (const auto& request : server->requests()) {
    const auto range = request.header("Range").value_or("bytes=all").substr(6);
    ranges.emplace_back(range == "all" ? -1 : std::stol(range), range);
  }
  std::ranges::sort(ranges);
  std::string text;
  for (const auto& [begin, range] : ranges)
    text += (text.empty() ? "" : " ") + range;
  return text;
}

} // namespace test
