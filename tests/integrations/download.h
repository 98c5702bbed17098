#pragma once

#include "ravelin/main_queue.h"
#include "ravelin/ravelin_operation.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <thread>

namespace test {

using namespace ravelin;

// One download from a server of its own, started by and told to the thread that makes it.
struct Download {
  Download(std::optional<std::size_t> stall_after, std::function<void(const Status&)> on_status)
      : server({.body = body, .stall_after = stall_after}) {
    operation->resume(URL(server.url()), URL::file(dir / "a"), true, OnConflict::resume,
                      [this, on_status, own = std::this_thread::get_id()](const Status& status) {
                        if (status.holds<Status::files_are_created>())
                          return;
                        EXPECT_EQ(std::this_thread::get_id(), own);
                        if (is_final(status))
                          last = status;
                        on_status(status);
                      });
  }
  static bool is_final(const Status& status) {
    return status.holds<Status::success>() || status.holds<Status::cancelled>() ||
           status.holds<Status::error>();
  }
  bool succeeded() const { return last && last->holds<Status::success>() && dir.read("a") == body; }

  const std::string body = pattern(1'000'000);
  ScriptedServer server;
  TempDir dir;
  std::shared_ptr<RavelinOperation> operation = std::make_shared<RavelinOperation>();
  std::optional<Status> last;
};

} // namespace test
