#pragma once

#include <mutex>
#include <utility>

namespace ravelin::platform {

/// A value that is set on one thread and read on others.
template <class T> class Guarded {
public:
  T get() const {
    const std::lock_guard lock(mutex_);
    return value_;
  }
  void set(T value) {
    const std::lock_guard lock(mutex_);
    value_ = std::move(value);
  }

private:
  mutable std::mutex mutex_; // nothing else orders the writer and the readers
  T value_{};
};

} // namespace ravelin::platform
