#include "tests/app/program.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"

#include <gtest/gtest.h>
#include <regex>

namespace test {

TEST(Example, does_what_it_shows) {
  const auto body = pattern(400'000);
  const ScriptedServer server([&](const Request& request) {
    return Reply{.status = request.target == "/absent" ? 404 : 200,
                 .body = body,
                 .close_at_once = request.target == "/none"};
  });
  const std::string any = "(.|\r|\n)*";
  const auto expect = [&](const std::string& line, const std::string& output) {
    SCOPED_TRACE(line);
    const TempDir dir;
    const auto ran = run(dir.path(), line, server.url(""));
    EXPECT_TRUE(std::regex_match(ran.out + ran.err, std::regex(output))) << ran.out << ran.err;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
      EXPECT_TRUE(dir.read(entry.path()) == body) << entry.path();
  };
  for (const std::string example : {ONE_FILE_EXAMPLES})
    expect("exec 2>&1; " + example + " $at/absent f || ls; " + example + " $at/none f || " +
               example + " $at/file f && ls",
           any + "status 404" + any + "connection was lost" + any + "%" + any + "f\n");
  expect("many_links 2 . $at/a $at/b $at/c; ls", any + "c: waiting" + any + "\na\nb\nc\n");
  expect("coproc asio_server .; read port <&${COPROC[0]}; exec 4<>/dev/tcp/127.0.0.1/$port; echo "
         "$at/f f >&4; tail -n1 <&4; kill $COPROC_PID; wait $COPROC_PID; echo $?; ls",
         "done\n0\nf\n");
}

} // namespace test
