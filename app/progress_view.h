#pragma once

#include "ravelin/status.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ravelin::app {

/// What a person sees of the downloads while they run: live lines on a terminal, a plain line now
/// and then elsewhere.
///
/// Threads: main thread.
class ProgressView {
public:
  /// `quiet` shows nothing at all.
  explicit ProgressView(bool quiet);

  std::size_t add(std::string name);
  void rename(std::size_t row, std::string name);
  void show_state(std::size_t row, std::string state);
  void show_progress(std::size_t row, const Progress& progress);
  /// The row's last word, in place of its bar.
  void finish(std::size_t row, const std::string& word);
  /// A line for people on standard error, above the live lines.
  void say(const std::string& line);
  /// Leaves the live lines as they stand.
  void close();

private:
  using Clock = std::chrono::steady_clock;
  struct Row {
    std::string name;
    std::string state = "waiting";
    std::optional<Progress> progress;
    double rate = 0; // bytes per second, smoothed
    std::int64_t rated_bytes = 0;
    Clock::time_point rated_at{};
    bool finished = false;
  };

  void update_rate(Row& row, std::int64_t bytes);
  void print_plain(const Row& row) const;
  void draw(bool now);
  void wipe();
  std::string text_of(const Row& row, std::size_t width) const;
  std::string total_text() const;

  bool quiet_;
  bool live_;
  std::vector<Row> rows_;
  std::size_t drawn_lines_ = 0;
  Clock::time_point drawn_at_{};
};

/// `text` cut or filled with blanks to `columns` terminal columns.
std::string fitted(const std::string& text, std::size_t columns);

} // namespace ravelin::app
