// Downloads many links, a few at a time: many_links LIMIT DIRECTORY LINK...

#include <ravelin/ravelin.hpp>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

using namespace ravelin;

namespace {

// No lock, since everything runs on the main thread.
int downloading = 0;
int failed = 0;

void end(const std::string& name, const std::string& result) {
  std::printf("%s: %s\n", name.c_str(), result.c_str());
  if (--downloading == 0)
    MainQueue::stop();
}

void start(const std::string& link, const std::filesystem::path& directory) {
  const std::filesystem::path name = link.substr(link.rfind('/') + 1);
  // The library keeps the operation alive while it runs.
  const auto operation = std::make_shared<RavelinOperation>();
  ++downloading;
  operation->resume(
      URL(link), URL::file(directory / name), true, OnConflict::resume,
      [name = name.string()](const Status& status) {
        status.visit(match{
            [&](const Status::pending&) { std::printf("%s: waiting\n", name.c_str()); },
            [&](const Status::connecting&) { std::printf("%s: connecting\n", name.c_str()); },
            [&](const Status::downloading& now) {
              if (now.progress.is_at_snap_point)
                std::printf("%s: %3.0f %%\n", name.c_str(),
                            100 * now.progress.prog_value.value_or(0));
            },
            [&](const Status::success&) { end(name, "done"); },
            [&](const Status::cancelled&) { end(name, "cancelled"); },
            [&](const Status::error& e) {
              ++failed;
              end(name, e.custom_error.text());
            },
            [](const Status::renamed&) {},
            [](const Status::files_are_created&) {},
            [](const Status::started&) {},
            [](const Status::cancelling&) {},
        });
      });
}

} // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: many_links LIMIT DIRECTORY LINK...\n");
    return 2;
  }
  set_default_options(Options::careful()); // reject error pages and changed content
  RavelinOperation::set_max_simultaneous_download_count(std::atoi(argv[1]));
  for (int i = 3; i < argc; ++i)
    start(argv[i], argv[2]);
  MainQueue::run();
  return failed == 0 ? 0 : 1;
}
