#pragma once

namespace ravelin::app {

/// What a command does while the main queue runs.
///
/// Threads: main thread.
class Job {
public:
  virtual ~Job() = default;
  /// Stops the main queue when the job has ended.
  virtual void start() = 0;
  /// A signal asks to stop. May be called again and after the end.
  virtual void interrupt(int signal) = 0;
  /// Called about every second if messages go to a terminal.
  virtual void refresh() = 0;
  /// After the end.
  virtual int exit_status() = 0;
};

} // namespace ravelin::app
