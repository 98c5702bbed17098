#include "ravelin/ravelin.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>

namespace test {

struct CInterface : testing::Test {
  ~CInterface() override { ravelin_operation_free(operation); }
  // Runs until the final event and tells the number of each status, once for all bytes, and the
  // error. Cancels at the first bytes if the server stalls.
  std::string run(const char* link, ravelin_on_conflict on_conflict = ravelin_on_conflict_resume) {
    told = "";
    const auto on_event = [](void* user, const ravelin_event* event) {
      auto& self = *static_cast<CInterface*>(user);
      const auto status = std::to_string(event->status);
      self.told += self.told.ends_with(status) ? "" : status;
      const bool tells_file = event->status <= ravelin_status_files_are_created;
      EXPECT_TRUE(ravelin_main_queue_is_main_thread() &&
                  std::string(tells_file ? event->main_file : self.file).starts_with(self.file));
      if (event->status == ravelin_status_error)
        self.told += std::to_string(event->error_kind) + " " + event->error_domain + " " +
                     std::to_string(event->error_code);
      if (event->status == ravelin_status_downloading && self.stalls)
        ravelin_operation_cancel(self.operation);
      if (std::string("458").find(status) != std::string::npos)
        ravelin_main_queue_stop();
    };
    ravelin_operation_resume(operation, link, file.c_str(), true, on_conflict, on_event, this);
    ravelin_main_queue_run();
    return told;
  }
  const TempDir dir;
  const std::string file = dir / "file", body = pattern(1'000'000);
  std::atomic<bool> stalls = true;
  ravelin_operation* const operation = ravelin_operation_new();
  std::string told;
};

TEST_F(CInterface, downloads_stops_continues_and_tells_why_it_failed) {
  const ScriptedServer server([&](const Request&) {
    return Reply{.body = body, .stall_after = stalls ? Position(50'000) : Position()};
  });
  EXPECT_EQ(run(server.url().c_str()), "712394");
  ravelin_progress known{};
  EXPECT_EQ(ravelin_operation_state(operation, &known), ravelin_state_cancelled);
  EXPECT_TRUE(known.fraction > 0 && known.fraction == ravelin_get_progress(file.c_str()).fraction);
  stalls = false;
  EXPECT_EQ(run(server.url().c_str()), "7238");
  EXPECT_TRUE(dir.read("file") == body);
  EXPECT_EQ(run(server.url().c_str(), ravelin_on_conflict_keep_both), "071238");
  EXPECT_EQ(run(nullptr, ravelin_on_conflict_replace), "750 NSURLErrorDomain -1000");
  ravelin_options* const options = ravelin_options_new();
  ravelin_options_set_idle_timeout(options, 100);
  ravelin_operation_set_options(operation, options);
  ravelin_options_free(options);
  const ScriptedServer silent(Reply{.header_delay = std::chrono::hours(1)});
  EXPECT_EQ(run(silent.url().c_str()), "751 NSURLErrorDomain -1001");
}

TEST_F(CInterface, sends_the_fields_of_each_operation_to_its_own_link_only) {
  const ScriptedServer elsewhere(Reply{.body = body});
  const ScriptedServer server([&](const Request& request) {
    return Reply{.status = request.target == "/moved" ? 302 : 200,
                 .headers = {{"Location", elsewhere.url()}},
                 .body = body,
                 .header_delay = std::chrono::milliseconds(100)};
  });
  const auto on_event = [](void* user, const ravelin_event* event) {
    auto& all = *static_cast<std::string*>(user);
    if (event->status == ravelin_status_connecting || event->status == ravelin_status_success)
      all += std::to_string(event->status);
    if (all.ends_with("888") || event->status == ravelin_status_error)
      ravelin_main_queue_stop();
  };
  for (const std::string name : {"one", "two", "moved"}) {
    auto* const options = ravelin_options_new();
    ravelin_options_add_header(options, "Token", name.c_str());
    auto* const own = ravelin_operation_new();
    ravelin_operation_set_options(own, options);
    ravelin_options_free(options);
    ravelin_operation_resume(own, server.url("/" + name).c_str(), (file + name).c_str(), true,
                             ravelin_on_conflict_resume, on_event, &told);
    ravelin_operation_free(own);
  }
  ravelin_main_queue_run();
  EXPECT_EQ(told, "777888") << "they did not run at the same time";
  EXPECT_GE(server.requests().size(), 3U + 2 * 5);
  for (const auto& request : server.requests())
    EXPECT_EQ("/" + request.header("Token").value_or("none"), request.target);
  EXPECT_EQ(elsewhere.requests().size(), 6U);
  for (const auto& request : elsewhere.requests())
    EXPECT_FALSE(request.header("Token"));
}

} // namespace test
