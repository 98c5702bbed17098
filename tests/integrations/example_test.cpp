#include "tests/harness/child_process.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

#ifdef ASIO_SERVER
#include <asio.hpp>
#endif

namespace test {
// The link and the file come behind each command.
const std::vector<std::vector<std::string>> one_file_examples = {
    {TEN_LINES},
    {C_DOWNLOAD},
#ifdef PYTHON_DOWNLOAD
    {"env", "RAVELIN_LIBRARY=" SHARED_LIBRARY, PYTHON, PYTHON_DOWNLOAD},
#endif
};

TEST(Example, downloads_one_file_or_says_why_not) {
  const auto body = pattern(1'000'000);
  const ScriptedServer server([&](const Request& request) {
    return request.target == "/none"   ? Reply{.close_at_once = true}
           : request.target == "/file" ? Reply{.body = body}
                                       : Reply{.status = 404, .body = "no such page"};
  });
  for (const auto& example : one_file_examples) {
    SCOPED_TRACE(example.back());
    const TempDir dir;
    const auto output_for = [&](const char* target) {
      auto command = example;
      command.insert(command.end(), {server.url(target), dir / "file"});
      const bool well = ChildProcess(command, dir / "output").wait() == 0;
      EXPECT_EQ(well, target == std::string("/file"));
      return dir.read("output");
    };
    output_for("/absent");
    EXPECT_FALSE(std::filesystem::exists(dir / "file")) << "an error page was kept";
    const auto failure = output_for("/none");
    EXPECT_NE(failure.find("connection was lost"), failure.npos) << failure;
    const auto success = output_for("/file");
    EXPECT_NE(success.find('%'), success.npos) << success;
    EXPECT_TRUE(dir.read("file") == body);
  }
}

TEST(Example, downloads_many_links_a_few_at_a_time) {
  const auto body = pattern(300'000);
  const ScriptedServer server({.body = body});
  const TempDir dir;
  ChildProcess process(
      {MANY_LINKS, "2", dir.path(), server.url("/a"), server.url("/b"), server.url("/c")},
      dir / "output");
  EXPECT_EQ(process.wait(), 0);
  for (const auto* const name : {"a", "b", "c"})
    EXPECT_TRUE(dir.read(name) == body) << name;
  EXPECT_NE(dir.read("output").find("c: waits"), std::string::npos) << dir.read("output");
}

#ifdef ASIO_SERVER
TEST(Example, serves_downloads_from_an_asio_server) {
  const auto body = pattern(1'000'000);
  const ScriptedServer server({.body = body});
  const TempDir dir;
  mkfifo((dir / "output").c_str(), 0600);
  const int output = open((dir / "output").c_str(), O_RDONLY | O_NONBLOCK);
  ChildProcess process({ASIO_SERVER, dir.path()}, dir / "output");
  fcntl(output, F_SETFL, 0);
  const std::unique_ptr<FILE, int (*)(FILE*)> printed(fdopen(output, "r"), fclose);
  char port[8] = "";
  ASSERT_TRUE(std::fgets(port, sizeof port, printed.get()));

  asio::ip::tcp::iostream client("127.0.0.1", std::string(port, std::strcspn(port, "\n")));
  client << server.url() << " file" << std::endl;
  std::string said;
  for (std::string line; std::getline(client, line);)
    said = line;
  EXPECT_EQ(said, "done");
  EXPECT_TRUE(dir.read("file") == body);
  process.stop();
  EXPECT_EQ(process.wait(), 0);
}
#endif

} // namespace test
