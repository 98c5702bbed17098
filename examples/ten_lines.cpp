// Downloads one link to one file: ten_lines LINK FILE

#include <ravelin/ravelin.hpp>

#include <cstdio>

using namespace ravelin;

int main(int argc, char** argv) {
  if (argc != 3)
    return std::puts("usage: ten_lines LINK FILE"), 2;
  bool good = false;
  const auto download = std::make_shared<RavelinOperation>(Options::careful());
  download->resume(URL(argv[1]), URL::file(argv[2]), true, OnConflict::resume,
                   [&good](const Status& s) {
                     if (const auto* now = s.get_if<Status::downloading>())
                       std::printf("%3.0f %%\n", 100 * now->progress.prog_value.value_or(0));
                     else if (const auto* failed = s.get_if<Status::error>())
                       std::puts(failed->custom_error.text().c_str());
                     else if (s.holds<Status::success>())
                       good = true;
                     if (good || s.holds<Status::error>())
                       MainQueue::stop();
                   });
  MainQueue::run();
  return good ? 0 : 1;
}
