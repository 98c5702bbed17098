#pragma once

#include <mutex>
#include <utility>

namespace ravelin::platform {

/// A value that one thread sets while others look at it.
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
  mutable std::mutex mutex_; // writer and readers have no other order between them
  T value_{};
};

} // namespace ravelin::platform
