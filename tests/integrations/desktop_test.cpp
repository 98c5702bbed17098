// What both adapters for the desktop say on a real bus. Run by dbus-run-session.

#include "tests/harness/child_process.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>
#include <ravelin/integrations/glib_desktop.h>
#include <ravelin/integrations/qt_desktop.h>
#include <ravelin/main_queue.h>

using namespace ravelin;

template <class Desktop> struct OnTheDesktop : testing::Test {
  OnTheDesktop() { await("ready\n"); }
  void pump() {
    QCoreApplication::processEvents();
    g_main_context_iteration(nullptr, FALSE);
    MainQueue::drain();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  void await(const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition() && std::chrono::steady_clock::now() < limit)
      pump();
    EXPECT_TRUE(condition()) << dir.read("said");
  }
  // Awaits the next lines of the desktop, and takes them.
  void await(const std::string& lines) {
    SCOPED_TRACE(lines);
    await([&] { return dir.read("said").size() >= taken + lines.size(); });
    EXPECT_EQ(dir.read("said").substr(taken, lines.size()), lines);
    taken += lines.size();
  }
  const test::TempDir dir;
  const test::ChildProcess desktop{{FAKE_DESKTOP}, dir.write("said", "")};
  std::size_t taken = 0;
  const std::shared_ptr<RunningDownloads> downloads = std::make_shared<RunningDownloads>();
};
using Desktops = testing::Types<QtDesktop, GlibDesktop>;
TYPED_TEST_SUITE(OnTheDesktop, Desktops);

Progress received(std::int64_t bytes, std::optional<std::int64_t> length) {
  return {std::nullopt, bytes, false, length};
}

TYPED_TEST(OnTheDesktop, a_launcher_shows_the_progress_of_all_downloads) {
  std::optional<LauncherProgress<TypeParam>> launcher(std::in_place, this->downloads, "app");
  auto first = this->downloads->add();
  this->await("application://app.desktop 0.000,0 1,1\n");
  first->update(received(30, 100));
  this->await("application://app.desktop 0.300,1 1,1\n");
  auto second = this->downloads->add();
  second->update(received(5000, std::nullopt));
  this->await("application://app.desktop 0.300,1 2,1\n");
  second->update(received(70, 900));
  this->await("application://app.desktop 0.100,1 2,1\n");
  first->end(true);
  this->await("application://app.desktop 0.170,1 1,1\n");
  second.reset();
  this->await("application://app.desktop 0.000,0 0,0\n");
  second = this->downloads->add();
  second->update(received(1, std::numeric_limits<std::int64_t>::max()));
  this->await("application://app.desktop 0.000,1 1,1\n");
  launcher.reset();
  this->await("application://app.desktop 0.000,0 0,0\n");
}

TYPED_TEST(OnTheDesktop, a_launcher_is_told_at_most_ten_times_a_second) {
  const LauncherProgress<TypeParam> launcher(this->downloads, "app");
  const auto download = this->downloads->add();
  this->await("application://app.desktop 0.000,0 1,1\n");
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i <= 300; ++i) {
    download->update(received(i, 300));
    this->pump();
  }
  this->await([&] { return this->dir.read("said").ends_with(" 1.000,1 1,1\n"); });
  const auto said = this->dir.read("said").substr(this->taken);
  EXPECT_LE(std::ranges::count(said, '\n'),
            1 + (std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(100));
}

TYPED_TEST(OnTheDesktop, sleep_is_inhibited_while_a_download_runs) {
  std::optional<SleepInhibitor<TypeParam>> inhibitor(std::in_place, this->downloads, "app", "why");
  auto first = this->downloads->add();
  this->await("inhibit sleep,app,why,block\n");
  this->await([&] { return inhibitor->is_active(); });
  auto second = this->downloads->add();
  first.reset();
  EXPECT_TRUE(inhibitor->is_active());
  second->end(true);
  this->await("released\n");
  first = this->downloads->add();
  first.reset(); // before the answer
  this->await("inhibit sleep,app,why,block\nreleased\n");
  first = this->downloads->add();
  this->await("inhibit sleep,app,why,block\n");
  this->await([&] { return inhibitor->is_active(); });
  inhibitor.reset();
  this->await("released\n");
}

TYPED_TEST(OnTheDesktop, the_portal_is_asked_in_a_sandbox_or_if_logind_refuses) {
  const SleepInhibitor<TypeParam> inhibitor(this->downloads, "stranger", "why");
  auto download = this->downloads->add();
  this->await("refused sleep,stranger,why,block\nportal 4,why\n");
  this->await([&] { return inhibitor.is_active(); });
  download.reset();
  this->await("close /request/7\n");
  setenv("SNAP", "/snap/app", 1);
  download = this->downloads->add();
  this->await("portal 4,why\n");
  unsetenv("SNAP");
}

TYPED_TEST(OnTheDesktop, a_watched_run_is_followed_to_its_end) {
  const auto body = test::pattern(1000);
  const test::ScriptedServer server([&](const test::Request& request) {
    return test::Reply{.body = body, .stall_after = request.target == "/stall" ? 400U : 1000U};
  });
  const LauncherProgress<TypeParam> launcher(this->downloads, "app");
  bool stalls = false, ended = false;
  const auto start = [&](const std::string& name) {
    const auto operation = std::make_shared<RavelinOperation>();
    operation->resume(URL(server.url("/" + name)), URL::file(this->dir / name), false,
                      OnConflict::resume, this->downloads->watch([&](const Status& status) {
                        if (const auto* const now = status.get_if<Status::downloading>())
                          stalls = now->progress.received_bytes == 400;
                        else if (status.is_final())
                          ended = true;
                      }));
    return operation;
  };
  const auto operation = start("stall");
  this->await([&] { return stalls; });
  EXPECT_EQ(this->downloads->overall(), (OverallProgress{1, 0.4}));
  start("whole");
  this->await([&] { return ended; });
  EXPECT_EQ(this->downloads->overall(), (OverallProgress{1, 0.7}));
  operation->cancel();
  this->await([&] { return this->downloads->overall() == OverallProgress(); });
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", std::getenv("DBUS_SESSION_BUS_ADDRESS"), 1);
  const QCoreApplication application(argc, argv);
  return RUN_ALL_TESTS();
}
