#include "src/LinkIdentity.h"
#include "tests/src/transfer_fixture.h"

// Several downloads, destinations that exist already, and cancelling.

namespace test {
namespace {

using enum OnConflict;

class ConflictTest : public TransferTest {
protected:
  Download& start_stalled(const std::string& name) { return start_until(50, {.name = name}); }
  Download& start_pending(const std::string& name) {
    auto& run = start({.name = name});
    pump_until([&] { return run.story == "p" || run.ended; });
    return run;
  }
  static std::string cancel(Download& run) {
    run.opr->cancel();
    return finish(run).story;
  }
  void limit(int count) { RavelinOperation::set_max_simultaneous_download_count(count); }
};

TEST_F(ConflictTest, does_what_the_policy_says) {
  const std::string all = "0-99 100-199 200-299 300-399 400-499 all";
  const std::string exists = "Destination file already exists and ";
  const std::tuple<char, OnConflict, std::string, std::string, std::string> cases[] = {
      {'n', resume, "cfsd+", all, ""}, // nothing, complete or incomplete
      {'n', stop, "cfsd+", all, ""},
      {'c', resume, "+", "", ""},
      {'c', replace, "cfsd+", all, ""},
      {'c', keep_both, "rcfsd+", all, ""},
      {'c', stop, "!", "", exists + "complete."},
      {'i', resume, "csd+", "10-99 110-199 210-299 310-399 410-499 all", ""},
      {'i', replace, "cfsd+", all, ""},
      {'i', keep_both, "rcfsd+", all, ""},
      {'i', stop, "!", "", exists + "incomplete."}};
  const auto opr = std::make_shared<RavelinOperation>(); // nothing of a run is left to the next
  for (const auto& [there, policy, story, ranges, text] : cases) {
    const auto name = there + std::to_string(static_cast<int>(policy));
    SCOPED_TRACE(name);
    serve_stalling();
    if (there == 'i')
      cancel(start_stalled(name));
    else if (there == 'c')
      dir.write(name, "old");
    serve(Reply{.body = body});
    const auto old = there == 'n' ? "" : dir.read(name);
    auto& run = start({.name = name, .on_conflict = policy, .opr = opr});
    const bool renames = story.starts_with('r');
    EXPECT_EQ(run.story, renames ? "r" : "") << "before the main queue runs again";
    EXPECT_EQ(run.dest, file(renames ? name + " (1)" : name));
    EXPECT_EQ(finish(run).story, story);
    EXPECT_EQ(asked(), ranges);
    EXPECT_EQ(run.error_text, text);
    EXPECT_EQ(dir.read(run.dest.path()), ranges.empty() ? old : body);
    EXPECT_EQ(dir.read(name), ranges.empty() || renames ? old : body);
    EXPECT_EQ(fs::exists(record_of(file(name))), there == 'i' && policy >= keep_both);
  }
  fs::create_directory(dir / "file.bin");
  EXPECT_EQ(download({.on_conflict = replace}).error_text, "Couldn't delete files during replace.");
  EXPECT_TRUE(download({}).error_text.ends_with("file.bin': Is a directory"));
  fs::create_symlink("loop", dir / "loop");
  const auto loop = std::make_shared<RavelinOperation>(Options::careful());
  EXPECT_TRUE(download({.name = "loop", .opr = loop}).error_text.ends_with("symbolic links"));
  for (const std::string left : {".loop.lgresume", ".loop.lgresume.lock"})
    EXPECT_FALSE(fs::exists(dir / left)) << left;
}

TEST_F(ConflictTest, does_what_the_policy_says_to_one_that_is_under_way) {
  const std::string busy = "An operation is already in-progress for the destination file.";
  const std::tuple<OnConflict, std::string, std::string, std::string> cases[] = {
      {resume, "cfsdxX", "pcsd+", ""},
      {replace, "cfsdxX", "pcfsd+", ""},
      {keep_both, "cfsd", "rcfsd+", ""},
      {stop, "cfsd", "!", busy}};
  for (const auto& [policy, before, story, text] : cases) {
    serve_stalling();
    auto& first = start_stalled(story);
    released = true;
    auto& second = download({.name = story, .on_conflict = policy});
    EXPECT_EQ(second.story + second.error_text, story + text);
    EXPECT_EQ(first.story, before) << story;
    const auto* const end = first.last<Status::cancelled>();
    EXPECT_EQ(end && end->also_cleared_files, policy == replace);
    EXPECT_EQ(dir.read(second.dest.path()) == body, policy != stop) << story;
    if (!end)
      cancel(first);
  }
}

TEST_F(ConflictTest, never_takes_a_name_that_another_one_has_claimed) {
  serve_stalling();
  dir.write("file", "old");
  auto& first = start_stalled("file (1)");
  fs::remove(dir / "file (1)");
  Download* third = nullptr;
  const auto take_it = [&](char event) {
    if (event == 'r' && !third)
      third = &start({.name = "file (2)"});
  };
  auto& second = start({.name = "file", .on_conflict = keep_both, .then = take_it});
  EXPECT_EQ(second.dest, file("file (2) (1)"));
  for (auto* const run : {&first, &second, third})
    cancel(*run);
}

TEST_F(ConflictTest, runs_no_more_at_once_than_allowed_and_wakes_in_order) {
  serve_stalling();
  for (const auto& [set, stored] : {std::pair{-3, 1}, {0, 1}, {2, 2}}) {
    limit(set);
    EXPECT_EQ(RavelinOperation::max_simultaneous_download_count(), stored);
  }
  auto &a = start_stalled("a"), &b = start_stalled("b");
  auto &c = start_pending("c"), &d = start_pending("d"), &e = start_pending("e");
  EXPECT_EQ(cancel(d), "pxX") << "without a request, and wakes nobody";
  cancel(a);
  pump_until([&] { return c.received == 50; });
  EXPECT_EQ(e.story, "p");
  limit(1); // stops neither b nor c
  cancel(b);
  EXPECT_EQ(c.story, "pcfsd");
  released = true;
  cancel(c);
  EXPECT_EQ(e.story, "p") << "woken, but the main queue has not run since";
  EXPECT_EQ(finish(e).story, "pcfsd+");
  EXPECT_EQ(server->requests().size(), 4U * 6) << "none of d";
}

TEST_F(ConflictTest, ends_or_starts_one_that_is_woken_before_it_waits) {
  serve_stalling();
  limit(1);
  auto& running = start_stalled("running");
  auto& in_pending = start({.name = "a"});
  in_pending.then = [&](char event) {
    if (event == 'p')
      in_pending.opr->cancel();
  };
  EXPECT_EQ(finish(in_pending).story, "pxX");
  EXPECT_EQ(cancel(start({.name = "b"})), "xX");
  auto& leaving = start_pending("c");
  leaving.opr->cancel(); // its end is queued, and until then it counts
  limit(2);
  released = true;
  EXPECT_EQ(download({.name = "d"}).story, "cfsd+") << "its turn came before it could wait";
  EXPECT_EQ(finish(leaving).story, "pxX");
  cancel(running);
}

// Three for one file, each of which ends the one before it; the last one may wait for a slot then.
TEST_F(ConflictTest, hands_a_destination_on_from_one_to_the_next) {
  for (const int later_limit : {2, 1}) {
    serve_stalling();
    limit(2);
    auto &other = start_stalled("other"), &a = start_stalled("file");
    auto &for_a_slot = start_pending("next"), &b = start({.name = "file"});
    auto& c = start({.name = "file", .then = [&](char e) { EXPECT_TRUE(e != 'c' || a.ended); }});
    limit(later_limit);
    EXPECT_EQ(cancel(for_a_slot), "pxX") << "which is no turn for those that wait for the file";
    EXPECT_EQ(finish(a).story, "cfsdxX");
    released = true;
    EXPECT_EQ(finish(b).story, "xX");
    EXPECT_EQ(c.story, "p");
    pump_until([&] { return c.ended || later_limit == 1; });
    other.opr->cancel_and_clear_files();
    finish(other);
    EXPECT_EQ(finish(c).story, "pcsd+");
    EXPECT_EQ(dir.read("file"), body);
    RavelinOperation::clear_files(c.dest);
  }
}

TEST_F(ConflictTest, takes_over_from_one_that_waits_or_that_a_callback_started_just_now) {
  serve_stalling();
  limit(1);
  auto &a = start_stalled("a"), &waiting = start_pending("b"), &next = start_pending("b");
  EXPECT_EQ(finish(waiting).story, "pxX");
  EXPECT_EQ(cancel(next), "pxX");
  Download* b = nullptr;
  a.then = [&](char event) {
    if (event == 'x')
      b = &start({.name = "a"});
  };
  auto& c = start({.name = "a"});
  released = true;
  finish(a);
  EXPECT_EQ(finish(*b).story, "xX");
  EXPECT_EQ(finish(c).story, "pcsd+");
  EXPECT_EQ(dir.read("a"), body);
}

TEST_F(ConflictTest, continues_from_another_link_what_is_shown_to_be_the_same_there) {
  const std::string whole = pattern(10'000), tail = pattern(9'500) + pattern(500, 2);
  const Headers one = {{"ETag", "\"1\""}}, two = {{"ETag", "\"2\""}},
                at_7 = {{"Last-Modified", "Tue, 10 Nov 2026 07:00:00 GMT"}};
  const std::string missing = "1000-1999 2500-3999 4500-5999 6500-7999 8500-9999 all";
  const std::string samples = "0-999 1000-1999 2000-2499 2500-3999 4000-4499 4500-5999 "
                              "6000-6499 6500-7999 8000-8499 8500-9999 all";
  const std::tuple<Headers, Reply, bool, std::string, std::string> cases[] = {
      {{}, {.body = whole}, false, "unknown whether", "all"},
      {one, {.headers = two, .body = whole}, false, "unknown whether", "all"},
      {one, {.headers = one, .body = whole}, false, "", missing},
      {at_7, {.headers = at_7, .body = whole}, false, "", missing},
      {one, {.headers = two, .body = whole}, true, "", samples},
      {{},
       {.body = pattern(8'200) + tail.substr(8'200, 290) + "!" + tail.substr(8'491)},
       true,
       "bytes 8000-8499 are different",
       "0-999 2000-2499 4000-4499 6000-6499 8000-8499 all"},
      {{}, {.body = tail + "!"}, true, "its length was 10000", "all"},
      {{}, {.body = whole, .accept_ranges = false}, true, "without byte ranges", "all"},
      {one,
       {.headers = one, .body = whole, .honour_ranges = false},
       true,
       "200 instead",
       "0-999 all"}};
  for (const auto& [headers, later, compares, text, ranges] : cases) {
    SCOPED_TRACE(ranges + text);
    auto options = Options::careful();
    options.compare_new_link = compares;
    serve([&, first = headers](const Request& request) {
      const bool is_first = request.header("Range").value_or("").starts_with("bytes=0");
      return Reply{.headers = first, .body = whole, .stall_after = is_first ? 1000 : 500};
    });
    cancel(start_until(3000, {.opr = std::make_shared<RavelinOperation>(options)}));
    const auto before = dir.read("file.bin") + dir.read(".file.lgresume");
    serve(later); // at another port
    const auto& run = download({.opr = std::make_shared<RavelinOperation>(options)});
    EXPECT_TRUE(run.error_text.find(text) != text.npos) << run.error_text;
    EXPECT_EQ(asked(), ranges);
    EXPECT_TRUE(text.empty() ? dir.read("file.bin") == whole
                             : dir.read("file.bin") + dir.read(".file.lgresume") == before);
    if (ranges == "all" && compares) { // and it stops in the middle of a comparison
      serve({.body = whole, .stall_after = 10});
      auto& comparing = start({.opr = std::make_shared<RavelinOperation>(options)});
      pump_until([&] { return server->requests().size() == 2; });
      EXPECT_EQ(cancel(comparing), "cxX");
    }
    RavelinOperation::clear_files(file());
  }
}

TEST_F(ConflictTest, compares_once_what_came_from_a_link_that_tells_no_version) {
  const std::string whole = pattern(10'000);
  serve([&](const Request& request) {
    const bool is_refused = request.index > 11 && request.index < 17; // what follows the samples
    return Reply{.status = is_refused ? 503 : 200,
                 .body = whole,
                 .stall_after = request.index < 6 ? Position(500) : Position()};
  });
  auto options = Options::careful();
  options.retry = Retry{.max_attempts = 1};
  cancel(start_until(2500, {.opr = std::make_shared<RavelinOperation>(options)}));
  const auto& run = download({.opr = std::make_shared<RavelinOperation>(options)});
  EXPECT_EQ(run.story, "ccsd+") << run.error_text;
  EXPECT_EQ(dir.read("file.bin"), whole);
  EXPECT_EQ(asked(), "0-1999 0-499 2000-2499 2000-3999 2500-3999 2500-3999 4000-4499 4000-5999 "
                     "4500-5999 4500-5999 500-1999 500-1999 6000-6499 6000-7999 6500-7999 "
                     "6500-7999 8000-8499 8000-9999 8500-9999 8500-9999 all all all");
}

TEST_F(ConflictTest, keeps_what_the_server_does_not_let_continue) {
  const std::string whole = pattern(10'000), offers = "no longer offers", refuses = "refuses requ",
                    compared = "cannot be compared";
  const Headers etag = {{"ETag", "\"1\""}};
  const std::tuple<Headers, const char*, Reply, Reply, std::string, std::string> cases[] = {
      {etag, "", {.accept_ranges = false}, {}, "c!", offers},
      {etag, "?old", {.accept_ranges = false}, {}, "c!", offers},
      {etag, "", {}, {.honour_ranges = false}, "c!", refuses},
      {etag, "?old", {}, {.honour_ranges = false}, "c!", refuses},
      {{}, "", {}, {.honour_ranges = false}, "c!", refuses},
      {etag, "?old", {.accept_ranges = false}, {}, "c!", compared},
      {etag, "?old", {}, {.honour_ranges = false}, "cc!", compared},
      {etag, "", {}, {.status = 403}, "cc!", refuses},
      {etag, "", {.status = 403}, {}, "c!", "status 403"}};
  for (const auto& [headers, query, header, range, story, text] : cases) {
    SCOPED_TRACE(text + query);
    auto options = Options::careful();
    options.retry = Retry{.max_attempts = 1};
    options.compare_new_link = text == compared;
    released = false;
    serve([&, headers = headers, header = header, range = range](const Request& request) {
      auto reply = !released ? Reply{.stall_after = 500} : request.header("Range") ? range : header;
      reply.headers = headers, reply.body = whole;
      return reply;
    });
    cancel(start_until(2500, {.opr = std::make_shared<RavelinOperation>(options)}));
    note_origin(file(), URL(server->url(std::string("/file.bin") + query)));
    const auto before = dir.read("file.bin") + dir.read(".file.lgresume");
    released = true;
    const auto& run = download({.opr = std::make_shared<RavelinOperation>(options)});
    EXPECT_EQ(run.story, story);
    EXPECT_TRUE(run.error_text.find(text) != text.npos) << run.error_text;
    EXPECT_EQ(dir.read("file.bin") + dir.read(".file.lgresume"), before);
    RavelinOperation::clear_files(file());
  }
}

TEST_F(ConflictTest, refuses_what_others_may_have_put_in_the_place_of_its_files) {
  serve(Reply{.body = pattern(1000)});
  dir.write("victim", "untouched");
  const auto is_refused_for = [&](const std::string& reason) {
    const auto opr = std::make_shared<RavelinOperation>(Options::careful());
    return download({.name = "a", .opr = opr}).error_text.find(reason) != std::string::npos;
  };
  for (const unsigned mode : {0700U, 0770U, 01777U})
    for (const auto* planted : {"a", ".a.lgresume"}) {
      fs::permissions(dir.path(), fs::perms{mode});
      fs::create_symlink("victim", dir / planted);
      EXPECT_EQ(is_refused_for("symbolic link"), mode != 0700) << planted;
      EXPECT_EQ(dir.read("victim"), "untouched");
      fs::remove(dir / "a");
      fs::remove(dir / ".a.lgresume");
    }
  dir.write("a", "of another user");
  EXPECT_TRUE(chown((dir / "a").c_str(), 1, 1) != 0 || is_refused_for("another user"));
  fs::remove(dir / "a");
  EXPECT_EQ(server->requests().size(), 7U) << "only those in a directory of its own";
}

TEST_F(ConflictTest, cancels_in_whatever_phase_it_is) {
  const auto opr = std::make_shared<RavelinOperation>(); // nothing of a run is left to the next
  const std::pair<std::string, std::size_t> cases[] = {
      {"c", 0}, {"cf", 1}, {"cfs", 6}, {"cfsd", 6}};
  for (const auto& [story, max_requests] : cases) {
    serve_stalling();
    auto& run = start({.name = story, .opr = opr});
    run.then = [&, moment = story.back()](char event) {
      if (event == 'c' && moment == 'c')
        opr->cancel_and_clear_files();
      else if (event == moment || event == 'x')
        opr->cancel();
    };
    EXPECT_EQ(finish(run).story, story + "xX");
    EXPECT_EQ(run.last<Status::cancelled>()->also_cleared_files, story == "c");
    EXPECT_EQ(run.last<Status::cancelled>()->progress.received_bytes, run.received);
    EXPECT_LE(server->requests().size(), max_requests);
  }
}

TEST_F(ConflictTest, cancels_before_it_begins_while_the_server_is_silent_and_after_the_end) {
  serve(Reply{.header_delay = never});
  const auto opr = std::make_shared<RavelinOperation>();
  opr->cancel();
  EXPECT_TRUE(opr->is_cancelled() && opr->state().holds<State::none>());
  EXPECT_EQ(download({.opr = opr}).story, "X");
  EXPECT_EQ(cancel(start({.opr = opr})), "xX");
  EXPECT_TRUE(server->requests().empty());
  auto& silent = start({.opr = opr});
  pump_until([&] { return server->requests().size() == 1; });
  in_background([&] { opr->cancel(); });
  EXPECT_EQ(finish(silent).story, "cxX");
  dir.write("complete", "old");
  auto& complete = start({.name = "complete", .opr = opr}); // has succeeded, and not said so yet
  opr->cancel_and_clear_files();
  EXPECT_EQ(finish(complete).story, "xX");
  EXPECT_EQ(*complete.last<Status::cancelled>(), (Status::cancelled{true, {0.0F, 0, false}}));
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST_F(ConflictTest, cancels_all_that_run_or_wait) {
  limit(1);
  for (const bool clear : {true, false}) {
    serve_stalling();
    auto &running = start_stalled("a"), &for_a_slot = start_pending("b"),
         &for_the_file = start_pending("a");
    RavelinOperation::cancel_all(clear);
    for (auto* const run : {&running, &for_a_slot, &for_the_file}) {
      EXPECT_TRUE(finish(*run).story.ends_with("xX")) << run->story;
      EXPECT_EQ(run->opr->state().get_if<State::cancelled>()->also_cleared_files,
                clear && run != &running);
    }
    EXPECT_EQ(marks_of(file("a")), clear ? 0 : 2);
    EXPECT_EQ(fs::exists(dir / "a"), !clear);
  }
  RavelinOperation::clear_files(file("a"));
  EXPECT_TRUE(fs::is_empty(dir.path()));
  dir.write(".a.lgresume", "of a file that cannot be deleted");
  fs::create_directory(dir / "a");
  RavelinOperation::clear_files(file("a"));
  EXPECT_TRUE(fs::exists(dir / ".a.lgresume"));
}

} // namespace
} // namespace test
