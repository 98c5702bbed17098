#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <asio.hpp>
#include <gtest/gtest.h>
#include <ravelin/integrations/asio.h>
#include <ravelin/integrations/asio_download.h>
#include <ravelin/main_queue.h>

std::function<void()> make_loop() {
  const auto context = std::make_shared<asio::io_context>();
  using Adapter = ravelin::AsioAdapter<asio::posix::stream_descriptor>;
  return [context, adapter = std::make_shared<Adapter>(*context)] { context->run_one(); };
}

namespace test {
namespace {
using namespace ravelin;

using Operation = std::shared_ptr<RavelinOperation>;
using OnEnd = std::function<void(const Status&)>;

struct Coroutine { // runs at once, and on its own
  struct promise_type {
    Coroutine get_return_object() { return {}; }
    std::suspend_never initial_suspend() noexcept { return {}; }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() {}
    void unhandled_exception() { std::terminate(); }
  };
};

Coroutine wait_in_coroutine(Operation operation, DownloadRequest request, OnEnd on_end) {
  on_end(co_await download(operation, request));
}

enum Way { coroutine, future, handler, bound_handler };
void start(Way way, asio::thread_pool& pool, const Operation& operation,
           const DownloadRequest& request, const OnEnd& on_end) {
  if (way == coroutine)
    wait_in_coroutine(operation, request, on_end);
  else if (way == future)
    std::thread([=, end = download_future(operation, request)]() mutable {
      on_end(end.get());
    }).detach();
  else if (way == handler)
    async_download(pool.get_executor(), operation, request, on_end);
  else
    async_download(asio::system_executor(), operation, request,
                   asio::bind_executor(pool.get_executor(), on_end));
}

TEST(Download, can_be_waited_for_in_each_way_whatever_its_end) {
  const ScriptedServer server([](const Request& request) {
    return Reply{.body = "body",
                 .stall_after = request.target == "/mute" ? Position(2) : Position(),
                 .close_at_once = request.target == "/lost"};
  });
  asio::thread_pool pool(1);
  for (const auto way : {coroutine, future, handler, bound_handler})
    for (const std::string path : {"/whole", "/lost", "/mute"}) {
      SCOPED_TRACE(path + std::to_string(way));
      const TempDir dir;
      const auto operation = std::make_shared<RavelinOperation>();
      DownloadRequest request(URL(server.url(path)), URL::file(dir / "file"));
      request.on_event = [&](const Status& status) {
        EXPECT_FALSE(status.is_final());
        if (status.holds<Status::downloading>() && path == "/mute")
          operation->cancel();
      };
      std::optional<Status> end;
      start(way, pool, operation, request, [&, way](const Status& status) {
        EXPECT_EQ(MainQueue::is_main_thread(), way == coroutine);
        EXPECT_EQ(pool.get_executor().running_in_this_thread(), way >= handler);
        end = status;
        MainQueue::stop();
      });
      MainQueue::run();
      const auto* const error = end->get_if<Status::error>();
      EXPECT_EQ(end->holds<Status::success>() && dir.read("file") == "body", path == "/whole");
      EXPECT_EQ(end->holds<Status::cancelled>(), path == "/mute");
      EXPECT_EQ(error && error->custom_error.holds<CustomError::network_connection_lost>(),
                path == "/lost");
    }
}

} // namespace
} // namespace test
