#pragma once

#include "platform/files/file_calls.h"
#include "ravelin/defaults.h"
#include "ravelin/main_queue.h"
#include "ravelin/ravelin_operation.h"
#include "ravelin/text_error.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>

namespace test {

namespace fs = std::filesystem;
using namespace ravelin;
using namespace std::chrono_literals;

constexpr auto never = 24h; // for a server to answer

// Runs the main queue until the condition holds; throws when that takes too long.
void pump_until(const std::function<bool()>& holds);
// Runs the work on a thread of its own, and the main queue meanwhile.
void in_background(const std::function<void()>& work);
// 2 for an incomplete file: its attribute and its line in the list of hidden names.
int marks_of(const URL& file);

// The system's file calls. Each first asks the hook, on any thread, with its own name and the path
// that it works on; the answer true makes it fail with EIO.
class HookedCalls : public platform::FileCalls {
public:
  using Hook = std::function<bool(std::string_view call, const std::string& path)>;
  explicit HookedCalls(Hook hook) : hook_(std::move(hook)) { platform::set_file_calls(this); }
  ~HookedCalls() override { platform::set_file_calls(nullptr); }

  int open(const char* p, int flags, mode_t mode) override {
    return fails("open", p) ? -1 : FileCalls::open(p, flags, mode);
  }
  ssize_t pwrite(int d, const void* bytes, std::size_t size, off_t offset) override {
    return fails("pwrite", d) ? -1 : FileCalls::pwrite(d, bytes, size, offset);
  }
  int fdatasync(int d) override { return fails("fdatasync", d) ? -1 : FileCalls::fdatasync(d); }
  int reserve(int d, off_t n) override {
    return fails("reserve", d) ? -1 : FileCalls::reserve(d, n);
  }
  int rename(const char* from, const char* to) override {
    return fails("rename", to) ? -1 : FileCalls::rename(from, to);
  }
  int unlink(const char* p) override { return fails("unlink", p) ? -1 : FileCalls::unlink(p); }

private:
  bool fails(std::string_view call, const std::string& path) const;
  bool fails(std::string_view call, int descriptor) const;
  Hook hook_;
};

// One run of an operation and what it reported. The callback keeps it alive.
struct Download {
  Download(std::shared_ptr<RavelinOperation> operation, URL file)
      : opr(std::move(operation)), dest(std::move(file)) {}

  void take(const Status& status);
  // The events' names in order, those of the progress once; errors under the name of their kind.
  std::string story() const;
  bool ended() const;
  std::string error_text() const;
  std::int64_t received() const; // bytes
  std::string content() const;   // of the destination
  // Checks what holds for every run, and that the files fit its end.
  void verify() const;
  template <class Case> std::optional<Case> last() const {
    const std::lock_guard lock(mutex);
    for (auto event = events.rbegin(); event != events.rend(); ++event)
      if (const auto* const found = event->first.get_if<Case>())
        return *found;
    return std::nullopt;
  }

  std::shared_ptr<RavelinOperation> opr;
  URL dest;
  std::function<void(const std::string& event)> then; // inside the callback, on its thread
  mutable std::mutex mutex;                           // one event comes on a background thread
  std::vector<std::pair<Status, bool>> events;        // and whether on the main thread
};

// Downloads from a server that `serve` makes. The end of each test is verified: every run has ended
// once, its files are as its end says, nothing is claimed, no descriptor is left.
class TransferTest : public testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  void serve(Reply reply) { server.emplace(std::move(reply)); }
  void serve(Script script) { server.emplace(std::move(script)); }
  void set_idle_timeout(std::chrono::milliseconds time);
  URL file(const std::string& name = "file.bin") const { return URL::file(dir / name); }
  std::string record_of(const std::string& name = "file.bin") const;
  // An unfinished download of `body` in five parts, of which so many bytes each have come.
  void put_partial(const std::string& body, const std::vector<std::int64_t>& bytes,
                   const std::string& name = "file.bin");

  struct Options {
    std::string name = "file.bin";
    OnConflict on_conflict = OnConflict::resume;
    bool split = true;
    std::shared_ptr<RavelinOperation> opr{};
    std::string link{}; // empty: the name, at the server
  };
  Download& start(const Options& options);
  // Waits until so many bytes are there.
  Download& start_until(std::int64_t bytes, const Options& options);
  Download& finish(Download& run);
  Download& download(const Options& options) { return finish(start(options)); }

  // The ranges that the server was asked for, in ascending order; "all" for a request without.
  std::string asked() const;

  TempDir dir;
  std::optional<ScriptedServer> server;

private:
  void verify_that_nothing_is_claimed();
  std::deque<std::shared_ptr<Download>> runs_;
  std::ptrdiff_t descriptors_ = 0;
};

} // namespace test
