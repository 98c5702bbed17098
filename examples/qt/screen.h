#pragma once

#include "tests/harness/child_process.h"
#include "tests/harness/temp_dir.h"

#include <chrono>
#include <cstdlib>
#include <regex>
#include <stdexcept>
#include <thread>

/// A virtual X server for the windows of this process.
class Screen {
public:
  Screen() {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const std::regex number("(^|\n)([0-9]+)\n"); // the display, printed when the server is ready
    for (std::smatch found;;) {
      const auto output = dir_.read("output");
      if (std::regex_search(output, found, number)) {
        setenv("DISPLAY", (":" + found.str(2)).c_str(), 1);
        setenv("QT_QPA_PLATFORM", "xcb", 1);
        setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/dev/null", 1);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/dev/null", 1);
        setenv("XDG_RUNTIME_DIR", dir_.path().c_str(), 1);
        return;
      }
      if (server_.poll() || std::chrono::steady_clock::now() > limit)
        throw std::runtime_error("Xvfb did not start: " + output);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

private:
  test::TempDir dir_;
  test::ChildProcess server_{
      {"Xvfb", "-displayfd", "1", "-screen", "0", "1600x1200x24", "-nolisten", "tcp"},
      dir_.write("output", "")}; // exists before the first read
};
