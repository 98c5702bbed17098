#include "tests/app/program.h"

#include <csignal>
#include <stdexcept>
#include <thread>

namespace test {
namespace {

using Clock = std::chrono::steady_clock;

bool holds_within(Clock::duration time, const std::function<bool()>& holds) {
  const auto limit = Clock::now() + time;
  while (!holds()) {
    if (Clock::now() > limit)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

} // namespace

Program::Program(const std::vector<std::string>& arguments, const Setting& setting) {
  // The shell becomes the program, so that its number is the program's.
  std::vector<std::string> command{
      "sh", "-c", R"(echo $$ >"$0/pid"; exec "$@" >"$0/out" 2>"$0/err")", dir_.path()};
  command.insert(command.end(), setting.wrapper.begin(), setting.wrapper.end());
  command.push_back(setting.program.empty() ? RAVELIN_PROGRAM : setting.program.native());
  command.insert(command.end(), arguments.begin(), arguments.end());
  dir_.write("pid", "");
  dir_.write("out", "");
  dir_.write("err", "");
  process_ = std::make_unique<ChildProcess>(command);
  await([this] { return dir_.read("pid").ends_with('\n'); });
  pid_ = std::stoi(dir_.read("pid"));
}

int Program::wait(std::chrono::seconds at_most) {
  std::optional<int> status;
  if (holds_within(at_most, [&] { return (status = process_->poll()).has_value(); }))
    return *status;
  signal(SIGKILL);
  process_->wait();
  return hung;
}

void Program::signal(int number) const {
  if (!process_->poll())
    ::kill(pid_, number);
}

void await(const std::function<bool()>& holds) {
  if (!holds_within(std::chrono::seconds(30), holds))
    throw std::runtime_error("what a test waits for does not come");
}

} // namespace test
