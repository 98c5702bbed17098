#include "platform/threads/thread_pool.h"
#include "tests/src/transfer_fixture.h"

#include <atomic>

// Several downloads, and destinations that exist already.

namespace test {
namespace {

const std::string begun = "connecting files_are_created started downloading";
const std::string anew = begun + " success";
const std::string cancelled = begun + " cancelling cancelled";
const std::string continued = "connecting started downloading success";
const std::string busy_text = "An operation is already in-progress for the destination file.";

class RavelinOperationConflictTest : public TransferTest {
protected:
  // Each part stalls after 10 of its 100 bytes until `released` is set.
  void serve_stalling() {
    released = false;
    serve([this](const Request&) {
      Reply reply{.body = body};
      if (!released)
        reply.stall_after = 10;
      return reply;
    });
  }
  Download& start_stalled(const std::string& name) { return start_until(50, {.name = name}); }
  Download& start_pending(const std::string& name) {
    auto& run = start({.name = name});
    pump_until([&] { return run.story() == "pending" || run.ended(); });
    return run;
  }

  const std::string body = pattern(500);
  std::atomic<bool> released = false;
};

TEST_F(RavelinOperationConflictTest, does_what_the_policy_says) {
  using enum OnConflict;
  const std::string all = "all 0-99 100-199 200-299 300-399 400-499";
  const struct {
    char there; // n: nothing, c: complete, i: incomplete
    OnConflict policy;
    std::string story;
    std::string asked;
    std::string text; // of the error
  } cases[] = {
      {'n', resume, anew, all, ""},
      {'n', replace, anew, all, ""},
      {'n', keep_both, anew, all, ""},
      {'n', stop, anew, all, ""},
      {'c', resume, "success", "", ""},
      {'c', replace, anew, all, ""},
      {'c', keep_both, "renamed " + anew, all, ""},
      {'c', stop, "error", "", "Destination file already exists and complete."},
      {'i', resume, continued, "all 50-99 100-199 200-299 300-399 400-499", ""},
      {'i', replace, anew, all, ""},
      {'i', keep_both, "renamed " + anew, all, ""},
      {'i', stop, "error", "", "Destination file already exists and incomplete."},
  };
  int number = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.there + (" " + c.story) + c.text);
    serve(Reply{.body = body});
    const auto name = std::to_string(number++);
    if (c.there == 'i')
      put_partial(body, {50}, name);
    else if (c.there == 'c')
      dir.write(name, "old");
    const auto old = c.there == 'n' ? "" : dir.read(name);
    auto& run = start({.name = name, .on_conflict = c.policy});
    const bool renames = c.story.starts_with("renamed");
    EXPECT_EQ(run.story(), renames ? "renamed" : "") << "before the main queue runs again";
    EXPECT_EQ(run.dest, file(renames ? name + " (1)" : name));
    EXPECT_EQ(finish(run).story(), c.story);
    EXPECT_EQ(asked(), c.asked);
    EXPECT_EQ(run.error_text(), c.text);
    EXPECT_EQ(run.content(), c.asked.empty() ? old : body);
    EXPECT_EQ(dir.read(name), c.asked.empty() || renames ? old : body);
    EXPECT_EQ(fs::exists(dir / record_of(name)), c.there == 'i' && c.policy >= keep_both);
  }
}

TEST_F(RavelinOperationConflictTest, does_what_the_policy_says_to_one_that_is_under_way) {
  const struct {
    OnConflict policy;
    std::string before;
    std::string story;
  } cases[] = {{OnConflict::resume, cancelled, "pending " + continued},
               {OnConflict::replace, cancelled, "pending " + anew},
               {OnConflict::keep_both, begun, "renamed " + anew},
               {OnConflict::stop, begun, "error"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.story);
    serve_stalling();
    auto& first = start_stalled(c.story);
    released = true;
    auto& second = download({.name = c.story, .on_conflict = c.policy});
    EXPECT_EQ(second.story(), c.story) << second.error_text();
    EXPECT_EQ(first.story(), c.before);
    const auto end = first.last<Status::cancelled>();
    EXPECT_EQ(end && end->also_cleared_files, c.policy == OnConflict::replace);
    EXPECT_EQ(asked().ends_with("400-499 410-499"), c.policy == OnConflict::resume);
    EXPECT_EQ(second.error_text() == busy_text, c.policy == OnConflict::stop);
    EXPECT_EQ(second.content() == body, c.policy != OnConflict::stop);
    if (!first.ended())
      first.opr->cancel();
    finish(first);
  }
}

TEST_F(RavelinOperationConflictTest, never_takes_a_name_that_another_one_has_claimed) {
  serve_stalling();
  dir.write("file.bin", "old");
  auto& first = start_stalled("file (1).bin");
  released = true;
  fs::remove(first.dest.path());
  EXPECT_EQ(download({.on_conflict = OnConflict::keep_both}).dest, file("file (2).bin"));
  RavelinOperation::cancel_all(true);
  finish(first);
}

TEST_F(RavelinOperationConflictTest, refuses_what_cannot_be_deleted_completed_or_renamed) {
  fs::create_directories(file().path());
  EXPECT_EQ(download({.on_conflict = OnConflict::replace}).error_text(),
            "Couldn't delete files during replace.");
  EXPECT_TRUE(download({}).error_text().ends_with("file.bin': Is a directory"));
  for (int i = 1; i <= 10'000; ++i)
    fs::create_symlink("file.bin", dir / ("file (" + std::to_string(i) + ").bin"));
  EXPECT_EQ(download({.on_conflict = OnConflict::keep_both}).error_text(),
            "Destination file already exists and complete.");
}

TEST_F(RavelinOperationConflictTest, runs_no_more_at_once_than_allowed_and_wakes_in_order) {
  serve_stalling();
  RavelinOperation::set_max_simultaneous_download_count(2);
  auto& a = start_stalled("a");
  auto& b = start_stalled("b");
  const auto threads = ravelin::platform::background_thread_count();
  auto& c = start_pending("c");
  auto& d = start_pending("d");
  auto& e = start_pending("e");
  std::vector<Download*> more;
  for (int i = 0; i < 30; ++i)
    more.push_back(&start_pending("more" + std::to_string(i)));
  EXPECT_LE(ravelin::platform::background_thread_count(), threads) << "those that wait need none";
  more.push_back(&d);
  for (auto* const waiting : more) {
    waiting->opr->cancel(); // ends without a request, and wakes nobody
    EXPECT_EQ(finish(*waiting).story(), "pending cancelling cancelled");
  }
  a.opr->cancel();
  finish(a);
  pump_until([&] { return c.received() == 50; });
  EXPECT_EQ(e.story(), "pending");
  RavelinOperation::set_max_simultaneous_download_count(1); // stops neither b nor c
  b.opr->cancel();
  finish(b);
  EXPECT_EQ(c.story(), "pending " + begun);
  released = true;
  c.opr->cancel();
  finish(c);
  EXPECT_EQ(e.story(), "pending") << "woken, but the main queue has not run since";
  EXPECT_EQ(finish(e).story(), "pending " + anew);
  for (const auto& request : server->requests())
    EXPECT_NE(request.target, "/d");
}

TEST_F(RavelinOperationConflictTest, ends_or_starts_one_that_is_woken_before_it_waits) {
  serve_stalling();
  RavelinOperation::set_max_simultaneous_download_count(1);
  auto& running = start_stalled("running");
  auto& in_pending = start({.name = "a"});
  in_pending.then = [&](const std::string& event) {
    if (event == "pending")
      in_pending.opr->cancel();
  };
  auto& at_once = start({.name = "b"});
  at_once.opr->cancel();
  EXPECT_EQ(finish(in_pending).story(), "pending cancelling cancelled");
  EXPECT_EQ(finish(at_once).story(), "cancelling cancelled");
  auto& leaving = start_pending("c");
  leaving.opr->cancel(); // its end is queued, and until then it counts
  RavelinOperation::set_max_simultaneous_download_count(2);
  released = true;
  auto& next = start({.name = "d"});
  EXPECT_EQ(finish(next).story(), anew) << "its turn came before it could tell that it waits";
  EXPECT_EQ(finish(leaving).story(), "pending cancelling cancelled");
  running.opr->cancel();
  finish(running);
}

// Three for one file, each of which ends the one before it.
TEST_F(RavelinOperationConflictTest, hands_a_destination_on_from_one_to_the_next) {
  for (const bool limit_reached : {false, true}) {
    SCOPED_TRACE(limit_reached);
    serve_stalling();
    RavelinOperation::set_max_simultaneous_download_count(2);
    const std::string name = limit_reached ? "x" : "y";
    auto& other = start_stalled("other " + name);
    auto& a = start_stalled(name);
    auto& b = start_pending(name);
    auto& c = start({.name = name});
    EXPECT_EQ(b.story(), "pending cancelling") << "waits for the first one to end";
    RavelinOperation::set_max_simultaneous_download_count(limit_reached ? 1 : 2);
    released = true;
    EXPECT_EQ(finish(a).story(), cancelled);
    EXPECT_EQ(finish(b).story(), "pending cancelling cancelled");
    if (limit_reached) {
      EXPECT_EQ(c.story(), "pending") << "now for the slot";
      other.opr->cancel();
    }
    EXPECT_EQ(finish(c).story(), "pending " + continued);
    EXPECT_EQ(c.content(), body);
    if (!limit_reached)
      other.opr->cancel();
    finish(other);
  }
}

TEST_F(RavelinOperationConflictTest, takes_over_from_one_that_waits_for_a_slot) {
  serve_stalling();
  RavelinOperation::set_max_simultaneous_download_count(1);
  auto& other = start_stalled("other");
  auto& a = start_pending("file.bin");
  auto& b = start_pending("file.bin");
  EXPECT_EQ(finish(a).story(), "pending cancelling cancelled");
  EXPECT_EQ(b.story(), "pending");
  released = true;
  other.opr->cancel();
  EXPECT_EQ(finish(b).story(), "pending " + anew);
  finish(other);
}

TEST_F(RavelinOperationConflictTest, takes_over_from_one_that_a_callback_started_just_now) {
  serve_stalling();
  auto& a = start_stalled("file.bin");
  Download* b = nullptr;
  a.then = [&](const std::string& event) {
    if (event == "cancelling")
      b = &start({});
  };
  auto& c = start({});
  released = true;
  finish(a);
  EXPECT_EQ(finish(*b).story(), "cancelling cancelled");
  EXPECT_TRUE(finish(c).story().ends_with(continued));
  EXPECT_EQ(c.content(), body);
}

} // namespace
} // namespace test
