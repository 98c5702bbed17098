#include "ravelin/defaults.h"

#include <mutex>

namespace ravelin {
namespace {

struct Store {
  std::mutex mutex; // set by the application's thread, read by those that start requests
  Defaults values;
};

Store& store() {
  static auto& instance = *new Store;
  return instance;
}

} // namespace

Defaults defaults() {
  const std::lock_guard lock(store().mutex);
  return store().values;
}

void set_defaults(Defaults values) {
  const std::lock_guard lock(store().mutex);
  store().values = std::move(values);
}

} // namespace ravelin
