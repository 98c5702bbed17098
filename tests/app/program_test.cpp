#include "app/sha256.h"
#include "tests/app/program.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

// The program as people and scripts meet it.

namespace test {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string body = pattern(400'003);
const Reply quick{.body = body};
const Reply slow{.body = body, .piece = 2000, .piece_delay = 50ms}; // two seconds in five parts

struct Ran {
  int status;
  std::string out, err;
};
// `redirections` are the shell's, and take the place of the usual ones.
Ran run(const std::vector<std::string>& arguments, const std::string& redirections = "") {
  Program program(arguments, {.wrapper = {"bash", "-c", "exec \"$@\" " + redirections, "bash"}});
  const int status = program.wait();
  return {status, program.out(), program.err()};
}
bool says(const std::string& text, std::string_view words) {
  return text.find(words) != text.npos;
}
void await_bytes(const Program& program) {
  await([&] { return says(program.out(), "\"downloading\""); });
}
std::string read(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST(ProgramStatus, tells_how_it_ended) {
  const ScriptedServer good(quick), bad(Reply{.status = 404}), late(slow);
  const TempDir dir;
  const std::string file = dir / "file.bin";
  const std::pair<int, std::vector<std::string>> cases[] = {
      {0, {"--version"}},
      {0, {"get", "--help"}},
      {0, {"get", "-q", "-o", file, good.url()}},
      {0, {"clear", file}},
      {1, {"status", file}},
      {1, {"get", "-o", file, bad.url()}},
      {1, {"get", "-o", file, "ftp://127.0.0.1/file.bin"}},
      {1, {"get", "-o", dir.path(), good.url()}},
      {1, {"get", "-o", dir / "none" / "file.bin", good.url()}},
      {2, {}},
      {2, {"get"}},
      {2, {"get", "--no-such-option", good.url()}},
      {2, {"get", "-c", "perhaps", good.url()}},
      {2, {"get", "--sha256", "", "-o", file, good.url()}},
      {2, {"get", "-o", "", good.url()}},
      {2, {"get", "-i", "/dev/null"}},
      {1, {"status", dir.path()}},
      {2, {"get", "-o", file, good.url(), good.url()}}};
  for (const auto& [status, arguments] : cases) {
    const auto ran = run(arguments);
    EXPECT_EQ(ran.status, status) << testing::PrintToString(arguments) << ran.err;
    EXPECT_TRUE(status == 0 || says(ran.err, "ravelin: ") || says(ran.out, "no such download"));
  }
  for (const auto& [signal, status] : {std::pair{SIGINT, 130}, {SIGTERM, 143}, {SIGHUP, 130}}) {
    Program program({"get", "--events", "-o", dir / std::to_string(signal), late.url()});
    await_bytes(program);
    program.signal(signal);
    EXPECT_EQ(program.wait(), status);
  }
}

TEST(ProgramGet, works_where_nobody_can_read_what_it_says) {
  const ScriptedServer good(quick), bad(Reply{.status = 404});
  for (const auto* const deaf : {"2>&-", "2>/dev/full", "2> >(true)", "0<&- 1>&- 2>&-"}) {
    SCOPED_TRACE(deaf);
    const TempDir dir;
    const auto file = dir / "file.bin";
    EXPECT_EQ(run({"get", "-o", file, bad.url()}, deaf).status, 1);
    EXPECT_EQ(run({"get"}, deaf).status, 2);
    EXPECT_EQ(run({"get", "-o", file, good.url()}, deaf).status, 0);
    EXPECT_TRUE(dir.read("file.bin") == body);
    EXPECT_EQ(run({"get", "--help"}, ">/dev/full").status, 1);
    const auto status = run({"status", file}, ">/dev/full");
    EXPECT_EQ(status.status, 1);
    EXPECT_TRUE(says(status.err, "standard output")) << status.err;
  }
}

TEST(ProgramGet, says_that_one_piece_starts_anew) {
  const ScriptedServer late(slow);
  const TempDir dir;
  Program program({"get", "--events", "--no-split", "-o", dir / "file.bin", late.url()});
  await_bytes(program);
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 130);
  EXPECT_TRUE(says(run({"status", dir / "file.bin"}).out, "starts anew"));
}

TEST(ProgramGet, continues_with_the_missing_ranges_after_a_signal) {
  std::atomic<bool> hurry = false;
  const ScriptedServer server([&](const Request&) { return hurry ? quick : slow; });
  const TempDir dir;
  const std::vector<std::string> command{"get", "--events", "-o", dir / "file.bin", server.url()};
  Program program(command);
  await_bytes(program);
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 130) << program.err();
  const auto seen = server.requests().size();
  const auto status = run({"status", dir / "file.bin"});
  std::smatch bytes;
  ASSERT_TRUE(std::regex_search(status.out, bytes, std::regex(R"(\((\d+) of 400003 bytes\))")))
      << status.out;
  hurry = true;
  EXPECT_EQ(run(command).status, 0);
  EXPECT_TRUE(dir.read("file.bin") == body);
  long asked = 0;
  for (auto requests = server.requests(); const auto& request : requests)
    if (const auto range = request.header("Range"); range && request.index >= int(seen)) {
      const auto dash = range->find('-');
      asked += std::stol(range->substr(dash + 1)) - std::stol(range->substr(6)) + 1;
    }
  EXPECT_EQ(asked, 400'003 - std::stol(bytes[1]));
  EXPECT_TRUE(says(run({"status", dir / "file.bin"}).out, "complete"));
}

TEST(ProgramGet, keeps_a_second_process_out_until_the_first_has_ended_or_been_killed) {
  std::atomic<bool> hurry = false;
  const ScriptedServer server([&](const Request&) { return hurry ? quick : slow; });
  const TempDir dir;
  const std::vector<std::string> command{"get", "--events", "-o", dir / "file.bin", server.url()};
  Program first(command);
  await_bytes(first);
  const auto second = run(command);
  EXPECT_EQ(second.status, 1);
  EXPECT_TRUE(says(second.err, "another process")) << second.err;
  EXPECT_TRUE(first.runs());
  first.signal(SIGKILL);
  EXPECT_EQ(first.wait(), 128 + SIGKILL);
  hurry = true;
  EXPECT_EQ(run(command).status, 0);
  EXPECT_TRUE(dir.read("file.bin") == body);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 1) << "a lock is left";
}

TEST(ProgramGet, compares_the_checksum) {
  const ScriptedServer server(quick);
  const TempDir dir;
  const auto right = ravelin::app::sha256_of(dir.write("copy", body));
  const auto get = [&](const std::string& sum) {
    return run(
        {"get", "-q", "-c", "replace", "--sha256", sum, "-o", dir / "file.bin", server.url()});
  };
  EXPECT_EQ(get(right).status, 0);
  EXPECT_TRUE(dir.read("file.bin") == body);
  const auto wrong = get(std::string(64, 'a'));
  EXPECT_EQ(wrong.status, 1);
  EXPECT_TRUE(says(wrong.err, right)) << wrong.err;
  EXPECT_FALSE(fs::exists(dir / "file.bin"));
  EXPECT_TRUE(dir.read("file.bin.sha256-mismatch") == body);
}

TEST(ProgramGet, prints_each_event_as_a_line_of_JSON) {
  const ScriptedServer server(quick);
  const TempDir dir;
  std::istringstream lines(
      run({"get", "--events", "-o", dir / "file.bin", server.url("/a%0Ab")}).out);
  std::vector<std::string> names;
  for (std::string line; std::getline(lines, line);) {
    const auto event = nlohmann::json::parse(line, nullptr, false);
    ASSERT_TRUE(event.is_object()) << line;
    EXPECT_EQ(event.value("url", ""), server.url("/a%0Ab"));
    EXPECT_EQ(event.value("dest_file", ""), (dir / "file.bin").native());
    names.push_back(event.value("event", ""));
  }
  ASSERT_FALSE(names.empty());
  EXPECT_EQ(names.front(), "connecting");
  EXPECT_EQ(names.back(), "success");
  const std::set<std::string> all(names.begin(), names.end());
  const std::set<std::string> expected{"connecting", "files_are_created", "started", "downloading",
                                       "success"};
  EXPECT_EQ(all, expected);
}

TEST(ProgramGet, ends_its_events_with_the_fate_of_the_link) {
  const ScriptedServer server([](const Request& request) {
    return Reply{.body = body, .close_at_once = request.index == 0};
  });
  const TempDir dir;
  const auto last_words = [&](const std::vector<std::string>& arguments) {
    std::vector<std::string> command{"get", "-q", "--events", server.url()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::istringstream lines(run(command).out);
    std::string words;
    for (std::string line; std::getline(lines, line);) {
      const auto event = nlohmann::json::parse(line, nullptr, false);
      const auto name = event.value("event", "");
      if (name == "error")
        words += event.value("final", false) ? "error " : "retry ";
      else if (name == "success" || name == "cancelled")
        words += name + " ";
    }
    return words;
  };
  EXPECT_EQ(last_words({"-o", dir / "file.bin"}), "retry success ");
  EXPECT_EQ(last_words({"-o", dir / "other", "--sha256", std::string(64, 'a')}), "error ");
  EXPECT_EQ(last_words({"-o", dir.path()}), "error ") << "it is a directory";
  EXPECT_EQ(last_words({"-o", dir / "file.bin", "-c", "stop"}), "error ");
}

TEST(ProgramGet, ends_the_events_of_links_whose_name_it_was_asking_for) {
  const ScriptedServer server(Reply{.header_delay = 1h});
  const TempDir dir;
  Program asking({"get", "--events", "-j", "1", "-d", dir.path(), server.url("/a/"),
                  server.url("/b/"), server.url("/c")});
  server.wait_for_requests(1);
  asking.signal(SIGINT);
  EXPECT_EQ(asking.wait(), 130);
  const auto text = asking.out();
  EXPECT_EQ(std::ranges::count(text, '\n'), 3) << text;
  for (const char* link : {"/a/\"", "/b/\"", "/c\""})
    EXPECT_TRUE(says(text, link) && says(text, "cancelled")) << text;
}

TEST(ProgramGet, treats_a_file_that_is_there_as_it_is_told) {
  const ScriptedServer server(quick);
  const struct {
    const char* policy;
    int status;
    bool stays; // what was there
    int files;
  } cases[] = {{"resume", 0, true, 1},
               {"replace", 0, false, 1},
               {"keep_both", 0, true, 2},
               {"stop", 1, true, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.policy);
    const TempDir dir;
    dir.write("file.bin", "old");
    const auto ran = run({"get", "-q", "-c", c.policy, "-o", dir / "file.bin", server.url()});
    EXPECT_EQ(ran.status, c.status) << ran.err;
    EXPECT_EQ(dir.read("file.bin") == "old", c.stays);
    int files = 0;
    for (const auto& entry : fs::directory_iterator(dir.path())) {
      files += 1;
      EXPECT_TRUE(read(entry.path()) == "old" || read(entry.path()) == body) << entry.path();
    }
    EXPECT_EQ(files, c.files);
  }
}

TEST(ProgramGet, takes_names_of_any_bytes) {
  const ScriptedServer server([](const Request& request) {
    return request.target == "/moved"
               ? Reply{.status = 302, .headers = {{"Location", "/elsewhere"}}}
               : quick;
  });
  const TempDir dir;
  const std::pair<const char*, const char*> links[] = {
      {"/a%20b", "a b"},         {"/line%0Aend", "line_end"}, {"/%FF%C3", "\xFF\xC3"},
      {"/x%2F..%2Fy", "x_.._y"}, {"/moved", "moved"},         {"/q?name=r", "q"},
      {"/", "download"}};
  for (const auto& [link, name] : links) {
    const auto ran = run({"get", "-q", "-d", dir.path(), server.url(link)});
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_TRUE(fs::exists(dir / name) && dir.read(name) == body) << link;
  }
  for (const char* name : {"two\nlines", " \xFF\xFE ", "-dash", "$(touch x)"}) {
    const auto ran = run({"get", "-q", "-o", dir / name, server.url()});
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_TRUE(dir.read(name) == body) << name;
    const auto again = run({"get", "-c", "stop", "-o", dir / name, server.url()});
    EXPECT_EQ(again.status, 1);
    EXPECT_FALSE(says(again.err, name) &&
                 std::string_view(name).find_first_of("\n\xFF") != std::string_view::npos)
        << again.err;
  }
}

TEST(ProgramGet, takes_the_name_that_the_server_tells) {
  std::atomic<bool> hurry = false, busy = true;
  const ScriptedServer server([&](const Request& request) {
    if (request.target == "/lost" || (request.target == "/get" && busy.exchange(false)))
      return Reply{.status = request.target == "/lost" ? 404 : 503};
    auto reply = hurry ? quick : slow;
    reply.headers = {{"Content-Disposition", "attachment; filename*=UTF-8''movie%201.mkv"}};
    return reply;
  });
  const TempDir dir;
  const std::vector<std::string> command{"get", "-J",       "--events",
                                         "-d",  dir.path(), server.url("/get")};
  Program first(command);
  await_bytes(first);
  first.signal(SIGINT);
  EXPECT_EQ(first.wait(), 130) << first.err();
  EXPECT_TRUE(says(run({"status", dir / "movie 1.mkv"}).out, "can be continued"));
  hurry = true;
  EXPECT_EQ(run(command).status, 0);
  EXPECT_TRUE(dir.read("movie 1.mkv") == body);
  const auto get = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"get", "-q", "-d", dir.path()});
    return run(arguments).status;
  };
  EXPECT_EQ(get({"-o", "given", "-J", server.url("/get")}), 0);
  EXPECT_EQ(get({server.url("/link"), server.url("/"), server.url("/")}), 0);
  EXPECT_EQ(get({"-J", server.url("/lost"), server.url("/get")}), 1) << "and gets the other";
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir.path()))
    names.insert(entry.path().filename());
  EXPECT_EQ(names, (std::set<std::string>{"movie 1.mkv", "given", "link", "movie 1 (1).mkv"}));
}

TEST(ProgramGet, keeps_apart_links_of_one_name_though_one_was_not_known_at_first) {
  std::atomic<bool> all_answer = false;
  const ScriptedServer server([&](const Request& request) {
    if (request.target == "/0" && !all_answer)
      return Reply{.status = 500};
    return Reply{.headers = {{"Content-Disposition", "attachment; filename=same.bin"}},
                 .body = request.target};
  });
  const TempDir dir;
  std::vector<std::string> command{"get", "-q", "-J", "--retry", "0", "-d", dir.path()};
  for (const char* link : {"/0", "/1", "/2"})
    command.push_back(server.url(link));
  EXPECT_EQ(run(command).status, 1);
  all_answer = true;
  for (int runs = 0; runs < 2; ++runs) {
    EXPECT_EQ(run(command).status, 0);
    EXPECT_EQ(dir.read("same.bin"), "/1");
    EXPECT_EQ(dir.read("same (1).bin"), "/2");
    EXPECT_EQ(dir.read("same (2).bin"), "/0");
  }
}

TEST(ProgramGet, needs_no_descriptor_for_each_link_of_a_list) {
  const ScriptedServer server(Reply{.body = "body"});
  const TempDir dir;
  std::string links;
  for (int i = 0; i < 400; ++i)
    links += server.url("/" + std::to_string(i)) + "\n";
  const auto list = dir.write("list", links);
  Program all({"get", "-q", "-j", "2", "-d", dir.path(), "-i", list},
              {.wrapper = {"prlimit", "--nofile=128"}});
  EXPECT_EQ(all.wait(), 0) << all.err();
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 401);
}

TEST(ProgramGet, downloads_every_link_of_a_list_and_clear_removes_them) {
  const ScriptedServer server(quick);
  const TempDir dir;
  const auto list = dir.write("list", "# two\n" + server.url("/a") + "\r\n\n " + server.url("/b") +
                                          "\n" + server.url("/a"));
  EXPECT_EQ(run({"get", "-q", "-j", "1", "-d", dir.path(), "-i", list}).status, 0);
  for (const char* name : {"a", "b", "a (1)"})
    EXPECT_TRUE(dir.read(name) == body) << name;
  EXPECT_EQ(run({"clear", dir / "a", dir / "b", dir / "a (1)"}).status, 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 1) << "only the list is left";
}

TEST(ProgramManual, tells_every_option_and_every_exit_status) {
  const fs::path source = SOURCE_DIR;
  auto manual = read(source / "man" / "ravelin.1");
  std::erase(manual, '\\');
  const auto help = run({"get", "--help"}).out;
  const std::regex option(R"(--([a-z0-9-]+))");
  std::set<std::string> names;
  for (std::sregex_iterator at(help.begin(), help.end(), option), end; at != end; ++at)
    names.insert((*at)[1]);
  EXPECT_GT(names.size(), 15U);
  for (const auto& name : names) {
    EXPECT_TRUE(says(manual, "--" + name)) << name;
    for (const char* file : {"_ravelin", "ravelin.bash", "ravelin.fish"}) {
      const auto text = read(source / "completions" / file);
      EXPECT_TRUE(name == "help" || says(text, "--" + name) || says(text, "-l " + name))
          << name << " in " << file;
    }
  }
  const auto statuses = manual.substr(manual.find(".SH EXIT STATUS"));
  for (const char* status : {"0", "1", "2", "130", "143"})
    EXPECT_TRUE(says(statuses, std::string("\n.B ") + status + "\n")) << status;
}

} // namespace
} // namespace test
