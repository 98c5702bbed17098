#include "tests/src/transfer_fixture.h"

namespace test {
namespace {

class RavelinOperationCancelTest : public TransferTest {
protected:
  void serve_stalling() { serve(Reply{.body = body, .stall_after = 10}); }
  void expect_files(const std::string& name, bool kept) {
    EXPECT_EQ(fs::exists(dir / name), kept) << name;
    EXPECT_EQ(fs::exists(dir / record_of(name)), kept) << name;
    EXPECT_EQ(marks_of(file(name)), kept ? 2 : 0) << name;
  }
  const std::string body = pattern(500);
};

TEST_F(RavelinOperationCancelTest, ends_in_whatever_phase_it_is) {
  const struct {
    std::string moment; // when the callback cancels; in `cancelling`, once more
    std::string story;
    std::size_t most_requests;
  } cases[] = {{"connecting", "connecting ", 0},
               {"files_are_created", "connecting files_are_created ", 1},
               {"started", "connecting files_are_created started ", 6},
               {"downloading", "connecting files_are_created started downloading ", 6}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.moment);
    serve_stalling();
    auto& run = start({.name = c.moment});
    run.then = [&](const std::string& event) {
      if (event == c.moment || event == "cancelling")
        run.opr->cancel();
    };
    EXPECT_EQ(finish(run).story(), c.story + "cancelling cancelled");
    EXPECT_LE(server->requests().size(), c.most_requests);
    serve(Reply{.body = body});
    EXPECT_EQ(download({.name = c.moment, .opr = run.opr}).content(), body);
  }
}

TEST_F(RavelinOperationCancelTest, ends_before_it_begins_and_while_the_server_is_silent) {
  serve(Reply{.header_delay = never});
  const auto opr = std::make_shared<RavelinOperation>();
  opr->cancel();
  opr->cancel();
  EXPECT_TRUE(opr->is_cancelled() && opr->state().holds<State::none>());
  EXPECT_EQ(download({.opr = opr}).story(), "cancelled");
  auto& at_once = start({.opr = opr});
  opr->cancel();
  EXPECT_EQ(finish(at_once).story(), "cancelling cancelled");
  EXPECT_TRUE(server->requests().empty());
  auto& silent = start({.opr = opr});
  pump_until([&] { return server->requests().size() == 1; });
  in_background([&] { opr->cancel(); });
  EXPECT_EQ(finish(silent).story(), "connecting cancelling cancelled");
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST_F(RavelinOperationCancelTest, wins_over_success_and_error) {
  serve(Reply{.close_at_once = true});
  dir.write("complete", "old");
  fs::create_directories(dir / "directory");
  for (const std::string name : {"complete", "failing", "directory"}) {
    auto& run = start({.name = name});
    // The failure is on its way.
    pump_until([&] { return name != "failing" || !server->requests().empty(); });
    run.opr->cancel_and_clear_files();
    EXPECT_TRUE(finish(run).story().ends_with("cancelling cancelled")) << name;
    EXPECT_TRUE(run.last<Status::cancelled>()->also_cleared_files);
    EXPECT_EQ(fs::exists(dir / name), name == "directory") << "which is nobody's to delete";
  }
}

TEST_F(RavelinOperationCancelTest, deletes_the_files_when_asked_to) {
  for (const bool clear : {true, false}) {
    serve_stalling();
    auto& run = start_until(50, {});
    clear ? run.opr->cancel_and_clear_files() : run.opr->cancel();
    EXPECT_EQ(finish(run).last<Status::cancelled>()->also_cleared_files, clear);
    EXPECT_EQ(run.opr->state().get_if<State::cancelled>()->also_cleared_files, clear);
    expect_files("file.bin", !clear);
  }
  RavelinOperation::clear_files(file());
  EXPECT_TRUE(fs::is_empty(dir.path()));
  RavelinOperation::clear_files(file());
  const auto record = dir.write(record_of(), "of a file that cannot be deleted");
  fs::create_directories(file().path());
  RavelinOperation::clear_files(file());
  EXPECT_TRUE(fs::exists(record));
}

TEST_F(RavelinOperationCancelTest, can_reach_all_that_run_or_wait) {
  RavelinOperation::cancel_all(false);
  RavelinOperation::set_max_simultaneous_download_count(2);
  for (const bool clear : {true, false}) {
    serve_stalling();
    auto& a = start_until(50, {.name = "a"});
    auto& b = start_until(50, {.name = "b"});
    auto& c = start({.name = "c"}); // waits for a slot
    auto& d = start({.name = "a"}); // waits for the other one to end
    pump_until([&] { return c.story() == "pending" && d.story() == "pending"; });
    RavelinOperation::cancel_all(clear);
    for (auto* const run : {&a, &b, &c, &d})
      EXPECT_TRUE(finish(*run).story().ends_with("g cancelling cancelled")) << run->story();
    EXPECT_EQ(b.last<Status::cancelled>()->also_cleared_files, clear);
    EXPECT_EQ(d.last<Status::cancelled>()->also_cleared_files, clear);
    expect_files("a", !clear);
    expect_files("b", !clear);
    expect_files("c", false);
  }
}

} // namespace
} // namespace test
