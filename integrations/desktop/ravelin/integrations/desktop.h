#pragma once

#include <ravelin/ravelin_operation.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

// What the adapters of <ravelin/integrations/qt_desktop.h> and <.../glib_desktop.h> share.

namespace ravelin {

/// The downloads of `RunningDownloads` taken together.
struct OverallProgress {
  std::int64_t running = 0; ///< number of downloads that have not ended
  /// Received bytes of all bytes, 0.0 to 1.0, rounded down to a thousandth. Downloads whose length
  /// is not known are left out; none if that leaves nothing.
  std::optional<double> progress;
  friend bool operator==(const OverallProgress&, const OverallProgress&) = default;
};

/// The running downloads of an application, as its desktop is told about them. What is complete
/// counts as received until all have ended, so that the end of one does not set the progress back;
/// what was cancelled or has failed counts no more.
///
/// Create it with `std::make_shared<RunningDownloads>()`.
///
/// Threads: main thread. Ownership: shared by the application, its downloads and the adapters.
class RunningDownloads : public std::enable_shared_from_this<RunningDownloads> {
public:
  /// One download, which runs from its creation until `end()` or its destruction.
  class Download {
  public:
    /// Use `add()`.
    explicit Download(std::shared_ptr<RunningDownloads> all) : all_(std::move(all)) {
      ++all_->running_;
      all_->notify();
    }
    ~Download() { end(false); } ///< counts as cancelled if it has not ended
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    /// Sets its bytes. Without effect after the end.
    void update(const Progress& progress) {
      const auto length = std::max<std::int64_t>(progress.content_length.value_or(0), 0);
      set_bytes(std::clamp<std::int64_t>(progress.received_bytes, 0, length), length);
    }
    /// Ends it. Without effect if it has ended.
    void end(bool is_complete) {
      set_bytes(is_complete ? length_ : 0, is_complete ? length_ : 0);
      if (const auto all = std::exchange(all_, nullptr))
        all->remove_one();
    }

  private:
    void set_bytes(std::int64_t received, std::int64_t length) {
      if (!all_ || (received == received_ && length == length_))
        return;
      all_->received_ += static_cast<double>(received) - static_cast<double>(received_);
      all_->length_ += static_cast<double>(length) - static_cast<double>(length_);
      received_ = received;
      length_ = length;
      std::shared_ptr(all_)->notify(); // a subscriber may end this download
    }

    std::shared_ptr<RunningDownloads> all_; // null after the end
    std::int64_t received_ = 0;             // bytes
    std::int64_t length_ = 0;               // bytes; 0 if not known
  };

  /// Adds a download.
  std::shared_ptr<Download> add() { return std::make_shared<Download>(shared_from_this()); }

  /// Adds a download that follows the events of one run. Pass the result to
  /// `RavelinOperation::resume`; it forwards each event to `callback`, which may be empty. The
  /// download ends after the final event, so that the callback can start the next one without a
  /// gap, or with the last copy of the result.
  RavelinOperation::StatusClosure watch(RavelinOperation::StatusClosure callback) {
    return [download = add(), callback = std::move(callback)](const Status& status) {
      if (const auto* const now = status.get_if<Status::downloading>())
        download->update(now->progress);
      const auto ending = status.is_final() ? download : nullptr; // the callback may drop this one
      const bool is_complete = status.holds<Status::success>();
      if (callback)
        callback(status);
      if (ending)
        ending->end(is_complete);
    };
  }

  /// The current state.
  OverallProgress overall() const {
    if (running_ == 0 || length_ < 1)
      return {running_, std::nullopt};
    return {running_, std::floor(std::clamp(received_ / length_, 0.0, 1.0) * 1000) / 1000};
  }

  /// Calls `on_change` after each change until the result is destroyed. It must not throw.
  [[nodiscard]] std::shared_ptr<void> subscribe(std::function<void()> on_change) {
    auto result = std::make_shared<std::function<void()>>(std::move(on_change));
    std::erase_if(subscribers_, [](const auto& subscriber) { return subscriber.expired(); });
    subscribers_.emplace_back(result);
    return result;
  }

private:
  void remove_one() {
    if (--running_ == 0)
      received_ = length_ = 0;
    notify();
  }
  void notify() {
    for (std::size_t i = 0; i < subscribers_.size(); ++i) // may grow meanwhile
      if (const auto subscriber = subscribers_[i].lock())
        (*subscriber)();
  }

  std::int64_t running_ = 0;
  double received_ = 0; // bytes; a double, because a server may state any length
  double length_ = 0;   // bytes
  std::vector<std::weak_ptr<std::function<void()>>> subscribers_;
};

/// A message bus.
enum class DesktopBus {
  session, ///< of the user's session
  system,  ///< of the computer
};

/// Shows the overall progress and the number of running downloads at the application's icon in the
/// dock or task bar, by the signal `com.canonical.Unity.LauncherEntry.Update`, which most of them
/// understand. Sent when something changes, at most ten times a second. At the end, and on
/// destruction, progress and number are hidden. Without a session bus, nothing happens.
///
/// Use `QtLauncherProgress` or `GlibLauncherProgress`.
///
/// Threads: main thread; never waits for the bus. Errors: none are reported.
template <class Desktop> class LauncherProgress {
public:
  /// `desktop_id`: the name of the application's installed .desktop file without the extension.
  LauncherProgress(std::shared_ptr<RunningDownloads> downloads, const std::string& desktop_id)
      : shown_(std::make_shared<Shown>(std::move(downloads),
                                       "application://" + desktop_id + ".desktop")) {
    const std::weak_ptr<Shown> weak = shown_;
    subscription_ = shown_->downloads->subscribe([weak] { refresh(weak.lock()); });
    Desktop::connect(DesktopBus::session, [weak](typename Desktop::Connection connection) {
      if (const auto shown = weak.lock()) {
        shown->connection = std::move(connection);
        refresh(shown);
      }
    });
  }
  ~LauncherProgress() {
    if (shown_->last != OverallProgress())
      Desktop::send_progress(*shown_->connection, shown_->uri, {});
  }
  LauncherProgress(const LauncherProgress&) = delete;
  LauncherProgress& operator=(const LauncherProgress&) = delete;

private:
  struct Shown {
    Shown(std::shared_ptr<RunningDownloads> all, std::string application)
        : downloads(std::move(all)), uri(std::move(application)) {}
    std::shared_ptr<RunningDownloads> downloads;
    std::string uri;
    typename Desktop::Connection connection{}; // null until connected
    OverallProgress last;                      // as sent
    bool is_too_soon = false;                  // a timer runs
  };

  static void refresh(const std::shared_ptr<Shown>& shown) {
    if (!shown || !shown->connection || shown->is_too_soon)
      return;
    const auto now = shown->downloads->overall();
    if (now == shown->last)
      return;
    Desktop::send_progress(*shown->connection, shown->uri, now);
    shown->last = now;
    shown->is_too_soon = true;
    Desktop::after(std::chrono::milliseconds(100), [weak = std::weak_ptr(shown)] {
      if (const auto again = weak.lock()) {
        again->is_too_soon = false;
        refresh(again);
      }
    });
  }

  std::shared_ptr<Shown> shown_;
  std::shared_ptr<void> subscription_;
};

/// Keeps the computer from going to sleep by itself from the first running download to the end of
/// the last one, or until destruction. Asks logind, or else the desktop portal; in a sandbox, the
/// portal first. If neither agrees or there is no bus, nothing happens; it asks again when the
/// next downloads start.
///
/// Use `QtSleepInhibitor` or `GlibSleepInhibitor`.
///
/// Threads: main thread; never waits for a bus. Errors: none are reported.
template <class Desktop> class SleepInhibitor {
public:
  /// `who`: the name of the application, `why`: the reason, both for people.
  SleepInhibitor(std::shared_ptr<RunningDownloads> downloads, std::string who, std::string why)
      : lock_(std::make_shared<Lock>(std::move(downloads), std::move(who), std::move(why))) {
    subscription_ =
        lock_->downloads->subscribe([weak = std::weak_ptr(lock_)] { refresh(weak.lock()); });
    refresh(lock_);
  }
  SleepInhibitor(const SleepInhibitor&) = delete;
  SleepInhibitor& operator=(const SleepInhibitor&) = delete;

  /// Whether sleep is inhibited now; false while the answer is awaited.
  bool is_active() const { return lock_->held != nullptr; }

private:
  struct Lock {
    Lock(std::shared_ptr<RunningDownloads> all, std::string name, std::string reason)
        : downloads(std::move(all)), who(std::move(name)), why(std::move(reason)) {}
    std::shared_ptr<RunningDownloads> downloads;
    std::string who, why;
    std::shared_ptr<void> held; // released with the last copy
    bool is_asking = false;
    bool is_refused = false;
  };

  static bool is_wanted(const Lock& lock) { return lock.downloads->overall().running > 0; }

  static void refresh(const std::shared_ptr<Lock>& lock) {
    if (!lock)
      return;
    if (!is_wanted(*lock)) { // an answer that is still to come is dropped then
      lock->held.reset();
      lock->is_refused = false;
    } else if (!lock->held && !lock->is_asking && !lock->is_refused) {
      lock->is_asking = true;
      std::error_code none;
      const bool is_sandboxed =
          std::filesystem::exists("/.flatpak-info", none) || std::getenv("SNAP");
      ask(lock, is_sandboxed, true);
    }
  }

  static void ask(const std::shared_ptr<Lock>& lock, bool portal, bool may_ask_other) {
    const auto on_answer = [=, weak = std::weak_ptr(lock)](std::shared_ptr<void> held) {
      if (const auto asked = weak.lock())
        on_answered(asked, std::move(held), portal, may_ask_other);
    };
    const auto bus = portal ? DesktopBus::session : DesktopBus::system;
    Desktop::connect(
        bus, [=, who = lock->who, why = lock->why](typename Desktop::Connection connection) {
          if (!connection)
            on_answer(nullptr);
          else if (portal)
            Desktop::ask_portal(*connection, why, on_answer);
          else
            Desktop::ask_logind(*connection, who, why, on_answer);
        });
  }

  static void on_answered(const std::shared_ptr<Lock>& lock, std::shared_ptr<void> held,
                          bool portal, bool may_ask_other) {
    if (!held && may_ask_other && is_wanted(*lock)) {
      ask(lock, !portal, false);
      return;
    }
    lock->is_asking = false;
    lock->is_refused = !held && is_wanted(*lock);
    if (is_wanted(*lock))
      lock->held = std::move(held);
  }

  std::shared_ptr<Lock> lock_;
  std::shared_ptr<void> subscription_;
};

} // namespace ravelin
