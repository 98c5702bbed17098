#include "tests/app/program.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"

#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <numeric>
#include <regex>
#include <set>

// The program as people and scripts meet it.

namespace test {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string body = pattern(400'003);
const std::string sum = std::string(43, 'A') + "="; // of nothing here
const Headers etag = {{"ETag", "\"0\""}};
const std::map<std::string, Reply> replies = {
    {"ok", {.headers = etag, .body = body}},
    {"slow", // two seconds in five parts
     {.headers = etag, .body = body, .piece = 2000, .piece_delay = 50ms}},
    {"slower", {.headers = etag, .body = body, .piece = 2000, .piece_delay = 300ms}}, // twelve
    {"v1", {.headers = {{"ETag", "\"1\""}}, .body = body, .piece = 2000, .piece_delay = 50ms}},
    {"w1", {.headers = {{"ETag", "\"1\""}}, .body = body}},
    {"v2",
     {.headers = {{"ETag", "\"2\""}, {"Last-Modified", "Thu, 01 Jan 1970 00:01:40 GMT"}},
      .body = body}},
    {"digest", {.status = 302, .headers = {{"Location", "/"}, {"Digest", "sha-256=" + sum}}}},
    {"cut", {.body = body, .cut_after = 5000}},
    {"cut1", {.headers = {{"ETag", "\"1\""}}, .body = body, .cut_after = 5000}},
    {"bare", {.body = body}},
    {"barely", {.body = body, .piece = 2000, .piece_delay = 50ms}},
    {"other", {.body = body.substr(9) + body.substr(0, 9)}},
    {"older", {.body = pattern(body.size(), 2), .piece = 2000, .piece_delay = 50ms}},
    {"whole", {.body = body, .accept_ranges = false}},
    {"empty", {.accept_ranges = false}},
    {"short", {.body = "not found", .accept_ranges = false}},
    {"mute", {.header_delay = 1h}},
    {"lost", {.close_at_once = true}},
    {"moved", {.status = 302, .headers = {{"Location", "/elsewhere"}}}},
    {"gone", {.status = 302, .headers = {{"Location", "http://127.0.0.1:1"}}}}, // refused there
    {"named", {.headers = {{"Content-Disposition", "filename*=UTF-8''b%201"}}, .body = body}},
    {"in7s", {.status = 503, .headers = {{"Retry-After", "7"}}}}};

// The query of a link tells what its server does. Of "first,later" the first request gets the one,
// of "first+later" all those before the second one without a range.
Script links() {
  return [seen = std::map<std::string, int>(), asked = 0L](const Request& request) mutable {
    const auto& link = request.target;
    auto query = link.find('?') == link.npos ? "ok" : link.substr(link.find('?') + 1);
    const auto header = [&](const char* name) { return request.header(name).value_or(""); };
    if (const auto mark = query.find_first_of(",+"); mark != query.npos) {
      seen[link] += query[mark] == ',' || header("Range").empty() ? 1 : 0;
      query = seen[link] <= 1 ? query.substr(0, mark) : query.substr(mark + 1);
    }
    if (const auto range = header("Range"); !range.empty() && query == "ok")
      asked += 1 - std::stol(range.substr(6)) + std::stol(range.substr(range.find('-') + 1));
    if (query == "asked")
      return Reply{.body = std::to_string(asked), .accept_ranges = false};
    if (query == "any")
      return Reply{.headers = {{"ETag", '"' + std::to_string(++asked) + '"'}},
                   .body = body,
                   .piece = 2000,
                   .piece_delay = 5ms};
    if (query == "echo")
      return Reply{.headers = {{"Content-Disposition", "attachment; filename=same"}},
                   .body = header("X") + header("Y") + header("User-Agent") + link,
                   .accept_ranges = false};
    if (const auto known = replies.find(query); known != replies.end())
      return known->second;
    return Reply{.status = std::stoi(query), .body = "error page", .accept_ranges = false};
  };
}

// `begin` returns when the first bytes have come, and `stop` with the exit status.
const std::string commands = R"(
get() { ravelin get -q "$@"; }
get_for_1s() { timeout --foreground --preserve-status -s INT 1 ravelin get -q "$@"; }
begin() { rm -f "$0/log"; env --default-signal=INT ravelin get --events "$@" >"$0/log" &
  until grep -qs downloading "$0/log"; do sleep 0.01; done; }
saved() { until grep -qs 'curr_bytes":[1-9]' .f.lgresume; do sleep 0.01; done; }
stop() { kill -$1 $!; { wait $!; } 2>/dev/null; }
)";
const std::string wrong_sum = " --sha256 $(printf %064d 1)";

// The names of the events that are printed, each of which is one line of JSON.
std::string names_of(const std::string& events) {
  std::string names;
  std::istringstream in(events);
  for (std::string line; std::getline(in, line);) {
    const auto event = nlohmann::json::parse(line);
    names += event.at("event").get<std::string>() + (event.value("final", true) ? " " : "... ");
  }
  return names;
}

// The regular files below a directory, each with what it holds where that is not `body`.
std::string files_in(const TempDir& dir) {
  std::set<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(dir.path()))
    if (const auto name = entry.path().lexically_relative(dir.path()); entry.is_regular_file())
      files.insert(name.native() +
                   (dir.read(name) == body ? " " : ":" + dir.read(name).substr(0, 30) + " "));
  return std::accumulate(files.begin(), files.end(), std::string());
}

struct Row {
  std::string line;
  int status;
  std::string says;    // a pattern in its output, or the names of its events, and its errors
  std::string files{}; // what is there afterwards
};

void check(const std::vector<Row>& rows) {
  in_parallel([&](int number) {
    if (number >= std::ssize(rows))
      return false;
    const auto& row = rows[static_cast<std::size_t>(number)];
    SCOPED_TRACE(row.line);
    const TempDir dir;
    const ScriptedServer server(links());
    const auto ran = run(dir.path(), commands + row.line, server.url(""));
    const auto said = (ran.out.starts_with('{') ? names_of(ran.out) : ran.out) + ran.err;
    EXPECT_EQ(ran.status, row.status) << said;
    EXPECT_TRUE(std::regex_search(said, std::regex(row.says))) << row.says << "\nsays: " << said;
    EXPECT_EQ(files_in(dir), row.files);
    return true;
  });
}

std::string fails(const std::string& why) { // for good, and in one sentence
  return "ravelin: .* -> .*" + why + ".*\n$";
}
std::string tries(const std::string& wait, const std::string& which = "1 of 1") {
  return "ravelin: .*; retrying in " + wait + " s \\(" + which + "\\)\n";
}

TEST(Program, refuses_a_command_line_that_it_does_not_understand) {
  const std::string complaint = "^ravelin: (.|\n)*\nTry 'ravelin --help'.\n$";
  std::vector<Row> rows;
  for (const std::string words : {"", "got", "get", "get ''", "status", "get -i /dev/null"})
    rows.push_back({"ravelin " + words, 2, complaint});
  for (const std::string options :
       {"--nonsense", "-c maybe", "-j 0", "--retry -1", "--retry x", "--timeout 0", "--timeout nan",
        "--limit-rate 0", "--limit-rate fast", "--sha256 abc", "--sha256 ''", "-H A", "-H ': b'",
        "-H $'A: b\\nC: d'", "-o f g", "-o ''", "g --sha256 $(printf %064d 1)", "-i /nowhere",
        "-i ''"})
    rows.push_back({"ravelin get h " + options, 2, complaint});
  for (const std::string options : {"g", "-c stop", "--on-change fail", "--same-file", "--events"})
    rows.push_back({"ravelin get h -o - " + options, 2, complaint});
  check(rows);
}

TEST(Program, does_what_the_command_line_says) {
  const std::string old = "echo -n old >f; ravelin get $at/f -c ";
  check(
      {{"ravelin --version", 0, "^ravelin \\d.*\n$"},
       {"ravelin $at/f", 0,
        "^(f: \\d+% .* of 390.6 KiB\\)\n)+f: done, 390.6 KiB in .* s \\(.*/s\\)\n$", "f "},
       {"TERM=xterm script -qec 'ravelin get $at/f?slow' x; rm x", 0, "\x1b\\[1A\r.*=> .*%", "f "},
       {"TERM=xterm script -qec 'stty cols 40; ravelin get $at/f $at/g' x; rm x", 0,
        "\n2 files: 2 done; 781.3 KiB\r\n$", "f g "},
       {"get $at/f && ravelin get $at/f", 0, "^f: already complete\n$", "f "},
       {"ravelin get $at/f?empty", 0, "^f: done, 0 B in .*\n$", "f: "},
       {"get -R --xattr ${at/'//'/'//u:p@'}/f?v2 && stat -c %Y f && python3 -c 'import os; "
        "print(os.getxattr(\"f\", \"user.xdg.origin.url\").decode())'",
        0, "^100\nhttp://127[^@?]*/f\n$", "f "},
       {"mkdir d; get -d d -o g $at/f; get -d d $at/f", 0, "^$", "d/f d/g "},
       {old + "resume", 1, "has 3 bytes, but .* has 400003", "f:old "},
       {old + "replace", 0, "done", "f "},
       {"ravelin status f", 1, "^f: no such download\n$"},
       {"ravelin status .", 1, "^ravelin: '.' is a directory"},
       {"get $at/f; ravelin status f; ravelin clear f none; ravelin clear --complete f", 0,
        "^f: complete(.|\n)*f: deleted\n(.*\n)*.*--complete.*\n.*does not exist\n$"},
       {"get -H 'X:  a b ' -HY:c -A me $at/f?echo", 0, "^$", "f:a b cme/f?echo "},
       {"get -A me -x $at http://h/f?echo", 0, "^$", "f:mehttp://h/f?echo "},
       {"http_proxy=$at get -A me h/f?echo", 0, "^$", "f:mehttp://h/f?echo "},
       {"timeout -s INT 1 ravelin --limit-rate 100k $at/f 2>&1 | tail -n1; ravelin clear f", 0,
        "^f: interrupted; run the same .*\n"},
       {"get $at/f; x=$(sha256sum f); get -c replace --sha256 ${x::64} $at/f", 0, "^$", "f "},
       {"get $at/f" + wrong_sum, 1, "got [0-9a-f]{64};", "f.sha256-mismatch "},
       {"get $at/f; get $at/f" + wrong_sum, 1, "kept as .*f'\n", "f "},
       {"get $at/g; cat g >f; rm g; ravelin get $at/f; get $at/f" + wrong_sum, 1,
        "^f: already complete\n.*kept as .*f'\n$", "f "},
       {"get $at/f?digest; get --no-safeguards $at/g?digest", 0, "mismatch",
        "f.sha256-mismatch g "},
       {"get $at/f; sha256sum f >list; get --sha256-from list -o g $at/f && "
        "get --sha256-from list $at/h; get --sha256-from none $at/h; rm list",
        0, "^.*no checksum of this file\n.*'none'.*No such file.*\n$", "f g "},
       {"echo $at/a $(printf %064d 1) | ravelin get $at/b -i -", 1,
        "failed: a\n2 files: 1 done, 1 failed; 781.3 KiB in .*\n$", "a.sha256-mismatch b "},
       {"get --no-safeguards $at/f?404", 0, "^$", "f:error page "},
       {R"(printf '\xef\xbb\xbf%s\r\n' '# 2' $at/a '' " $at/b" $at/a | get -j 1 -i -)", 0, "^$",
        "a a (1) b "},
       {"printf '%s\n' $at/a \"$at/b $(printf %063d 1)\" | get -i -", 2,
        "line 2 of '-' is '.*/b 00"},
       {"printf '%s\\0' $at/a $at/b | get -i -", 2, "line 1 of '-'"},
       {"mkdir d; seq -f $at/%g?echo 400 >list; ulimit -n 128; get -j 2 -d d -i list && ls d | "
        "wc -l; rm -r d list",
        0, "^400\n$"},
       {"get --events $at/f >/dev/full; get --events $at/f >&-", 1, "(standard output.*\n.*){2}",
        "f "},
       {"for to in '2>&-' '2>/dev/full' '2> >(true)' '0<&- >&- 2>&-'; do eval get $to; echo $?; "
        "eval get $at/g?404 $to; echo $?; eval ravelin get -c replace $at/f $to; echo $?; done; "
        "ravelin get $at/h?slow <&- >&- 2>&- & until [ -e .h.lgresume ]; do sleep 0.01; done; "
        "readlink /proc/$!/fd/[0-2]; wait",
        0, "^(2\n1\n0\n){4}(/dev/null\n){3}$", "f h "},
       {"x=${at/http/https}/f; get --cacert /no1 $x; CURL_CA_BUNDLE=/no2 get $x; CURL_CA_BUNDLE= "
        "SSL_CERT_FILE=/no3 get $x",
        1, "^.*/no1\n.*/no2\n.*/no3\n$"}});
}

TEST(Program, names_its_files_safely) {
  check({{"get $at/a%20b $at/line%0Aend $at/%FF%C3 $at/x%2F..%2Fy $at/m?moved $at/", 0, "^$",
          "a b download line_end m x_.._y \uFFFD\uFFFD "},
         {"get $at/f -o '$(touch x)' && get -o ./-f $at/f", 0, "^$", "$(touch x) -f "},
         {"get -J $at/f?503,named && get -J $at/f", 0, "503", "b 1 f "},
         {"get $at/?named; get -J $at/other?named", 1, "from another link", "b 1 "},
         {"get -J $at/f?404 $at/f?named; get -J -o g $at/f?named", 0, "404", "b 1 g "},
         {"for i in 0 1 5; do get -J -A me --retry $i $at/0?500,echo $at/{1,2}?echo; done", 0,
          "500", "same (1):me/2?echo same (2):me/0?500,echo same:me/1?echo "}});
}

TEST(Program, tries_again_what_may_pass) {
  const std::string again = "get --retry 1 $at/f?", wait = "0\\.[2-5]";
  check({{again + "404", 1, "^" + fails("404")},
         {again + "500", 1, tries(wait) + fails("500")},
         {again + "lost", 1, tries(wait) + fails("lost")},
         {again + "mute --timeout 0.2", 1, tries(wait) + fails("timed out")},
         {again + "lost,ok", 0, tries(wait) + "$", "f "},
         {"get --retry 3 $at/f?500", 1,
          tries(wait, "1 of 3") + tries("(0\\.[5-9]|1.0)", "2 of 3") + tries("[12]\\..", "3 of 3")},
         {"get_for_1s --retry 1 $at/f?in7s", 130, tries("7.0")},
         {"get --retry 2 --patience 0 $at/f?cut+gone; ravelin clear f", 0,
          tries(wait, "1 of 2") + ".*connect.*2 of 2"},
         {"get ftp://h/f; get file:///f", 1, "^(.*only http and https.*\n){2}$"},
         {"get $at/f -o .; get $at/f -o a/b; get $at/f -d /dev/null", 1,
          "^.* is a directory.*\n.*'a' does not exist.*\n.*could not create .*'/dev/null': .*\n$"},
         {"(ulimit -f 100; get $at/f); ravelin clear f", 0, "does not allow files of this size\n$"},
         {"get $at/f -o $(printf %0241d 1)", 1, "^" + fails("shorter one with --output")},
         {"mkfifo p; get $at/f -o p", 1, "^" + fails("a pipe or a device")},
         {"get http://127.0.0.1:1/f", 1, "^" + fails("connect")}});
}

TEST(Program, writes_to_standard_output_in_order) {
  const std::string pipe = "get -o - $at/f?", count = " | wc -c; echo ${PIPESTATUS[0]}";
  const std::string wrote = " 5000 bytes have already been written .*\n$";
  check(
      {{"get $at/f; get -R --xattr -d d --connections 3 -o - $at/g | cmp - f", 0, "^$", "f "},
       {"get $at/f; " + pipe + "cut1,w1 | cmp - f", 0, "^" + tries("0\\..", "1 of 5") + "$", "f "},
       {pipe + "cut1,bare" + count, 0, "^5000\n1\n.*\n.*\"1\" and is now missing;" + wrote},
       {pipe + "cut,ok" + count, 0, "^5000\n1\n.*offers no strong ETag;" + wrote},
       {pipe + "lost,empty" + count, 0, "^0\n0\n" + tries("0\\..", "1 of 5") + "$"},
       {pipe + "404" + count, 0, "^0\n1\n.*404\n$"},
       {pipe + "digest" + count, 0, "^400003\n1\n.*mismatch: got .*; 400003 bytes"},
       {pipe + "ok" + wrong_sum + count, 0, "^400003\n1\n.*mismatch"},
       {pipe + "ok | head -c 9 | wc -c; echo ${PIPESTATUS[0]}", 0, "^9\n1\n.*Broken pipe.*\n$"},
       {pipe + "ok >/dev/full; " + pipe + "ok >&-", 1, "^.*No space.*\n.*Bad file.*\n$"},
       {"{ get_for_1s --quiet=false -o - $at/f; echo $? >s; } | until [ -s s ]; do sleep 0.01; "
        "done; cat s; rm s",
        0, "^130\nravelin: .*interrupted; .* incomplete\n$"},
       {"for q in ok echo; do script -qec \"ravelin -o - $at/f?$q\" x; rm x; done", 0,
        "^ravelin: .*is binary.*\r\nravelin/.*/f\\?echo$"}});
}

TEST(Program, prints_what_happens_as_lines_of_JSON) {
  const std::string get = "get --events $at/f", old = "echo -n old >f; " + get;
  const std::string start = "connecting files_are_created started (downloading )+";
  check({{get, 0, "^" + start + "success $", "f "},
         {get + "?lost,ok", 0, "^connecting error... " + start + "success ravelin", "f "},
         {get + wrong_sum, 1, start + "error ravelin", "f.sha256-mismatch "},
         {old + " -c stop", 1, "^error ravelin: .* -> f: the file already exists\n$", "f:old "},
         {old + " -c keep_both", 0, "^renamed " + start, "f (1) f:old "},
         {get + " $at/g -j 1", 0, "pending .*success connecting", "f g "},
         {"get_for_1s --events $at/f?mute", 130, "^connecting cancelling cancelled $"},
         {"get_for_1s --events -j1 $at/{a,b}/?mute $at/c", 130, "^(cancelled ){3}$"},
         {"timeout --preserve-status 1 ravelin -J $at/f?mute; timeout --preserve-status 1 ravelin "
          "--sha256-from $at/f?mute $at/f",
          143, "^.*interrupted before.*\n.*: interrupted\n$"}});
}

TEST(Program, stops_and_continues) {
  std::vector<Row> rows = {
      {"begin --no-split $at/f?slow; stop TERM; ravelin status f; ravelin clear f", 0,
       "restart.*\nf: deleted\n$"},
      {"begin $at/f?slower; get $at/f; get -o f.b $at/f; stop KILL; echo $?; get -o f.b $at/f; "
       "get $at/f && get -o f.b $at/f",
       0, "^137\n(.*another download.*\n){2}.*unfinished file 'f'.*\n$", "f f.b "},
      {"begin $at/f?slow; stop INT; x=$(ravelin status f); x=${x#*(}; get $at/f; "
       "get -o g $at/?asked; echo $((${x%% *} + $(cat g))); rm g",
       0, "^400003\n$", "f "},
      {"for i in INT TERM HUP; do begin $at/$i?slow; stop $i; echo $?; ravelin status $i; get "
       "$at/$i; done",
       0, "^130\n.*can be resumed\n143\n.*resumed\n130\n.*resumed\n$", "HUP INT TERM "},
      {"begin $at/f?v1+403; saved; stop KILL; get $at/f?v1+403; get -o f $at/g?v2; "
       "get -o f $at/h?w1",
       0, "status 403; if the link has expired.* -o 'f' LINK\n.*another link, .*ETag was.*\n$",
       "f "},
      {"begin $at/f?slow; saved; stop KILL; get -o f $at/g?bare; get --same-file -o f $at/g?other; "
       "get --same-file -o f $at/g?bare",
       0, "^.*unknown .*same; use --same-file .*\n.*are different.*\n$", "f "},
      {"begin $at/f?barely; saved; stop KILL; get --on-change fail $at/f?other; get $at/f?bare", 0,
       "^.*changed: bytes .* are different.*\n$", "f "},
      {"begin $at/f?barely; saved; stop KILL; truncate -s 9 f; get --same-file -o f $at/g?bare; "
       "get $at/f?bare",
       0, "^.*shorter than its record.*\n$", "f "},
      {"begin $at/f?v1+v2; saved; stop KILL; get --on-change fail $at/f?v1+v2; get $at/f?v1+v2", 0,
       "changed.*--on-conflict replace.*\n.*changed.*; downloading it again\n$", "f "},
      {"begin $at/f?v1+named; saved; stop KILL; get --on-change fail $at/f?short; get $at/f?bare",
       0, "^.*changed: its length was 400003 and is now 9;.*\n$", "f "},
      {"begin $at/f?older+bare; saved; stop KILL; get --on-change fail $at/f?older+bare; "
       "get $at/f?older+bare",
       0, "^.*: bytes .* are different; use.*\n.*different; downloading it again\n$", "f "},
      {"begin $at/f?v1+whole; saved; stop KILL; get --on-change fail $at/f?v1+whole; "
       "get $at/f?v1+whole",
       0, "^.*no longer offers byte ranges; use.*\n.*ranges; downloading it again\n$", "f "},
      {"begin $at/f?barely+bare; saved; stop KILL; >f; get $at/f?barely+bare", 0, "^$", "f "},
      {"get $at/f?any; get --no-split $at/f?any", 0,
       "it again\n.*; try again, with --no-split .*\n$", "f "},
      {"ln -s g .f.lgresume.lock; get $at/f", 0, "^$", "f "}};
  for (const std::string harm : {"rm f", "rm .f.lgresume", ">f", "truncate -s 900000 f"})
    rows.push_back({"begin $at/f?slow; saved; stop KILL; " + harm + "; get $at/f", 0, "^$", "f "});
  for (const std::string harm :
       {">", "echo x >", "cp f", "sed -i 's/40000/30000/'", "sed -i 's/_bytes\":[1-9]/&99/g'",
        "sed -i 's/_bytes\":/&-/g'", "sed -i 's/_expected\":8/_expected\":7/'"})
    rows.push_back({"begin $at/f?slow; saved; stop KILL; " + harm +
                        " .f.lgresume; get $at/f; echo $?; "
                        "get -c replace $at/f",
                    0, "^1\n.*resume data.*--on-conflict replace .*\n$", "f "});
  check(rows);
}

TEST(Program, has_every_option_and_exit_status_in_its_manual_and_completions) {
  check({{"cd " SOURCE_DIR
          "; set -- $(ravelin get --help | grep -oE -e '--[a-z0-9-]+' | grep -v help); echo $#; "
          "for word; do for file in man/ravelin.1 completions/*; do tr -d '\\\\' <$file | "
          "grep -qE -e \"(--|-l )${word#--}\\b\" || echo $word in $file; done; done; "
          "for status in 0 1 2 130 143; do sed '1,/EXIT STATUS/d' man/ravelin.1 | "
          "grep -qxF \".B $status\" || echo $status; done",
          0, "^[1-9][0-9]\n$"}});
}

} // namespace
} // namespace test
