#include "ravelin/ravelin.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <atomic>
#include <gtest/gtest.h>

namespace test {

// One run of an operation, until its final event.
struct Downloading {
  Downloading(ravelin_operation* handle, const char* link, const std::string& file,
              bool cancels = false, ravelin_on_conflict on_conflict = ravelin_on_conflict_resume)
      : operation(handle), cancels_at_first_bytes(cancels) {
    ravelin_operation_resume(handle, link, file.c_str(), true, on_conflict, on_event, this);
    ravelin_main_queue_run();
  }
  static void on_event(void* user, const ravelin_event* event) {
    auto& self = *static_cast<Downloading*>(user);
    EXPECT_TRUE(ravelin_main_queue_is_main_thread());
    self.told.push_back(event->status);
    self.last = *event;
    self.main_file += event->main_file ? event->main_file : "";
    if (self.cancels_at_first_bytes && event->status == ravelin_status_downloading)
      ravelin_operation_cancel(self.operation);
    if (event->status == ravelin_status_error)
      self.domain_and_text = std::string(event->error_domain) + ": " + event->error_text;
    if (event->status == ravelin_status_error || event->status == ravelin_status_success ||
        event->status == ravelin_status_cancelled)
      ravelin_main_queue_stop();
  }

  ravelin_operation* operation;
  bool cancels_at_first_bytes;
  std::vector<ravelin_status> told;
  ravelin_event last{};
  std::string domain_and_text;
  std::string main_file;
};

TEST(CInterface, downloads_stops_and_continues) {
  const auto body = pattern(1'000'000);
  std::atomic<bool> stalls = true; // so that the first run cannot end before it is stopped
  const ScriptedServer server([&](const Request&) -> Reply {
    return {.body = body,
            .stall_after = stalls ? std::optional<std::size_t>(50'000) : std::nullopt};
  });
  const auto link = server.url();
  const TempDir dir;
  const std::string file = dir / "file";
  auto* const operation = ravelin_operation_new();
  const Downloading first(operation, link.c_str(), file, true);
  ASSERT_EQ(first.last.status, ravelin_status_cancelled);
  stalls = false;
  EXPECT_EQ(first.told.at(1), ravelin_status_files_are_created); // brought to the main thread
  EXPECT_EQ(first.main_file, file);
  EXPECT_EQ(first.last.progress.content_length, 1'000'000);
  ravelin_progress known{};
  EXPECT_EQ(ravelin_operation_state(operation, &known), ravelin_state_cancelled);
  EXPECT_GT(known.received_bytes, 0);
  EXPECT_EQ(known.received_bytes, ravelin_get_progress(file.c_str()).received_bytes);

  EXPECT_EQ(Downloading(operation, link.c_str(), file).last.status, ravelin_status_success);
  EXPECT_TRUE(dir.read("file") == body);
  const Downloading both(operation, link.c_str(), file, false, ravelin_on_conflict_keep_both);
  EXPECT_EQ(both.told.front(), ravelin_status_renamed);
  ravelin_operation_free(operation);
  ravelin_clear_files(file.c_str());
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST(CInterface, tells_why_a_download_failed) {
  const ScriptedServer slow({.header_delay = std::chrono::seconds(20)});
  const ScriptedServer absent({.status = 404});
  ravelin_set_reject_http_errors(true);
  ravelin_set_idle_timeout(100);
  const auto slow_link = slow.url();
  const auto absent_link = absent.url();
  const std::tuple<const char*, ravelin_error_kind, int> cases[] = {
      {"gopher://127.0.0.1/", ravelin_error_kind_other, -1002},
      {nullptr, ravelin_error_kind_other, -1000},
      {slow_link.c_str(), ravelin_error_kind_timeout, -1001},
      {absent_link.c_str(), ravelin_error_kind_other, -1011},
  };
  for (const auto& [link, kind, code] : cases) {
    SCOPED_TRACE(link ? link : "null");
    auto* const operation = ravelin_operation_new();
    const Downloading run(operation, link, TempDir() / "file");
    ravelin_operation_free(operation);
    EXPECT_EQ(run.last.error_kind, kind);
    EXPECT_EQ(run.last.error_code, code);
    EXPECT_TRUE(run.domain_and_text.starts_with("NSURLErrorDomain: ")) << run.domain_and_text;
  }
  ravelin_set_reject_http_errors(false);
  ravelin_set_idle_timeout(0);
}

} // namespace test
