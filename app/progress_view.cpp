#include "app/progress_view.h"

#include "app/columns.h"
#include "app/naming.h"
#include "app/output.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sys/ioctl.h>
#include <unistd.h>

namespace ravelin::app {
namespace {

constexpr auto redraw_interval = std::chrono::milliseconds(100);

std::size_t terminal_width() {
  winsize size{};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : 80;
}

std::size_t terminal_height() {
  winsize size{};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
  return known ? size.ws_row : 24;
}

bool use_colours() {
  const auto* const no_colour = std::getenv("NO_COLOR");
  return (!no_colour || !*no_colour) && isatty(STDERR_FILENO);
}

std::string time_left(const std::optional<std::chrono::seconds>& time) {
  return time && time->count() < 360'000 ? human_time(*time) : "--:--";
}

std::string bar(double share, std::size_t width) {
  const auto filled =
      static_cast<std::size_t>(std::clamp(share, 0.0, 1.0) * static_cast<double>(width));
  std::string text = "[" + std::string(filled, '=') + std::string(width - filled, ' ') + "]";
  if (filled > 0 && filled < width)
    text[filled] = '>';
  return text;
}

} // namespace

std::string first_that_fits(const std::vector<std::string>& texts) {
  const auto width = isatty(STDERR_FILENO) ? terminal_width() : std::string::npos;
  const auto fits = [&](const auto& text) { return display_width(text) < width; };
  const auto found = std::ranges::find_if(texts, fits);
  return found == texts.end() ? texts.back() : *found;
}

ProgressView::ProgressView(bool quiet) : quiet_(quiet) {
  const auto* const terminal = std::getenv("TERM");
  live_ = !quiet && isatty(STDERR_FILENO) && terminal && std::string(terminal) != "dumb";
}

std::size_t ProgressView::add(std::string name, std::function<RavelinOperation::Speed()> speed) {
  auto& row = rows_.emplace_back();
  row.name = printable(name);
  row.speed = std::move(speed);
  return rows_.size() - 1;
}

void ProgressView::rename(std::size_t row, std::string name) {
  rows_[row].name = printable(name);
}

void ProgressView::show_state(std::size_t row, std::string state) {
  rows_[row].state = std::move(state);
  rows_[row].finished = false;
  draw(false);
}

void ProgressView::show_progress(std::size_t row, const Progress& progress) {
  auto& shown = rows_[row];
  shown.progress = progress;
  shown.state.clear();
  if (live_)
    draw(false);
  else if (!quiet_ && progress.is_at_snap_point)
    print_plain(shown);
}

void ProgressView::print_plain(const Row& row) const {
  const auto& progress = *row.progress;
  if (progress.prog_value && progress.content_length)
    print_to_stderr(fmt::format("{}: {:.0f}% ({} of {})\n", row.name, *progress.prog_value * 100,
                                human_size(progress.received_bytes),
                                human_size(*progress.content_length)));
}

void ProgressView::finish(std::size_t row, const std::string& summary) {
  rows_[row].finished = true;
  rows_[row].state = summary;
  if (live_)
    draw(true);
  else if (!quiet_)
    print_to_stderr(fmt::format("{}: {}\n", rows_[row].name, summary));
}

void ProgressView::print_message(const std::string& line) {
  erase();
  print_to_stderr(fmt::format("{}\n", line));
  draw(true);
}

void ProgressView::close() {
  closed_ = true;
  draw(true);
  drawn_.clear();
}

void ProgressView::erase() {
  // A terminal that has become narrower has wrapped them.
  const auto width = std::max<std::size_t>(terminal_width(), 1);
  std::size_t lines = 0;
  for (const auto columns : drawn_)
    lines += columns == 0 ? 1 : (columns - 1) / width + 1;
  if (lines > 0)
    print_to_stderr(fmt::format("\x1b[{}A\r\x1b[J", std::min(lines, terminal_height())));
  drawn_.clear();
}

std::string ProgressView::describe_row(const Row& row, std::size_t width) const {
  const auto name_width = std::clamp<std::size_t>(width / 4, 8, 40);
  const auto name = fitted(row.name, name_width);
  if (!row.progress || !row.state.empty())
    return shortened(name + " " + row.state, width);
  const auto& progress = *row.progress;
  const auto size = human_size(progress.received_bytes);
  const auto speed = row.speed();
  const auto rate =
      fmt::format("{}/s", human_size(static_cast<std::int64_t>(speed.bytes_per_second)));
  if (!progress.prog_value || !progress.content_length)
    return shortened(fmt::format("{} {:>10} {:>12}", name, size, rate), width);
  const double share = static_cast<double>(*progress.prog_value);
  const auto numbers =
      fmt::format(" {:3.0f}% {:>20} {:>12} {}", std::floor(share * 100),
                  size + "/" + human_size(*progress.content_length), rate,
                  time_left(speed.left)); // fixed width, so that the bars are aligned
  const auto room =
      width > name_width + numbers.size() + 4 ? width - name_width - numbers.size() - 4 : 0;
  if (room < 5)
    return shortened(name + fmt::format(" {:3.0f}% {}", std::floor(share * 100), size), width);
  const auto drawn = bar(share, std::min<std::size_t>(room, 60));
  return name + " " + (use_colours() ? "\x1b[32m" + drawn + "\x1b[0m" : drawn) + numbers;
}

std::string ProgressView::describe_total() const {
  std::int64_t bytes = 0;
  double rate = 0;
  std::size_t done = 0;
  for (const auto& row : rows_) {
    bytes += row.progress ? row.progress->received_bytes : 0;
    rate += row.finished ? 0 : row.speed().bytes_per_second;
    done += row.finished ? 1 : 0;
  }
  return fmt::format("{} of {} files, {}, {}/s", done, rows_.size(), human_size(bytes),
                     human_size(static_cast<std::int64_t>(rate)));
}

void ProgressView::draw(bool now) {
  if (!live_ || (!now && Clock::now() - drawn_at_ < redraw_interval))
    return;
  drawn_at_ = Clock::now();
  const auto width = terminal_width() - 1; // a full line would wrap
  const auto max_rows = std::max<std::size_t>(terminal_height(), 4) - 3;
  erase();
  std::string output;
  // If not all rows fit, show the running ones.
  std::vector<const Row*> shown;
  for (const bool finished : {false, true})
    for (const auto& row : rows_)
      if (row.finished == finished && shown.size() < max_rows)
        shown.push_back(&row);
  std::ranges::sort(shown);
  const auto add = [&](const std::string& text) {
    output += text + "\n";
    drawn_.push_back(display_width(text));
  };
  for (const auto* const row : shown)
    add(describe_row(*row, width));
  if (rows_.size() > 1 && !closed_)
    add(shortened(describe_total(), width));
  print_to_stderr(output);
}

} // namespace ravelin::app
