#pragma once

#include <ravelin/ravelin.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ravelin::app {

/// The first of the texts that fits into a line of the terminal that messages go to, or else the
/// last one. Always the first one if they do not go to a terminal.
std::string first_that_fits(const std::vector<std::string>& texts);

/// Shows the progress of the downloads on standard error: live on a terminal, otherwise in a few
/// plain lines.
///
/// Threads: main thread.
class ProgressView {
public:
  /// `quiet`: show no progress, only messages.
  explicit ProgressView(bool quiet);

  /// `speed` is called while the row is shown as running.
  std::size_t add(std::string name, std::function<RavelinOperation::Speed()> speed);
  void rename(std::size_t row, std::string name);
  void show_state(std::size_t row, std::string state);
  void show_progress(std::size_t row, const Progress& progress);
  /// Redraws, so that the rates drop if nothing arrives.
  void refresh() { draw(false); }
  /// Replaces the bar of the row by `summary`.
  void finish(std::size_t row, const std::string& summary);
  /// Prints a line above the live lines.
  void print_message(const std::string& line);
  /// Draws a last time, without the total.
  void close();

private:
  using Clock = std::chrono::steady_clock;
  struct Row {
    std::string name;
    std::string state = "waiting";
    std::optional<Progress> progress;
    std::function<RavelinOperation::Speed()> speed;
    bool finished = false;
  };

  void print_plain(const Row& row) const;
  void draw(bool now);
  void erase();
  std::string describe_row(const Row& row, std::size_t width) const;
  std::string describe_total() const;

  bool quiet_;
  bool live_;
  bool closed_ = false;
  std::vector<Row> rows_;
  std::vector<std::size_t> drawn_; // columns of each line
  Clock::time_point drawn_at_{};
};

} // namespace ravelin::app
