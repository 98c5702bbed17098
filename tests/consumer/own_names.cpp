// An application's own `platform`, with names that the library uses inside its own.
#include <string>

namespace platform {

class Semaphore {
public:
  explicit Semaphore(unsigned value);
  ~Semaphore();
  void wait();
  std::string name;
};

Semaphore::Semaphore(unsigned value) : name(std::to_string(value)) {}
Semaphore::~Semaphore() = default;
void Semaphore::wait() {
  name += "waited";
}

} // namespace platform

namespace bramblekit {

void bg_async(double, const std::string& text) {
  platform::Semaphore(7).name += text;
}

} // namespace bramblekit

std::string own_name() {
  platform::Semaphore semaphore(5);
  semaphore.wait();
  bramblekit::bg_async(0, "x");
  return semaphore.name;
}
