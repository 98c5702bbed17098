enum class platform { an_enumeration_of_the_application };
enum class bramblekit { another };

#include <ravelin/ravelin.h>
#include <ravelin/ravelin.hpp>

#include <cstdio>

using namespace ravelin;

// No server is needed to see the main queue, the network and the library's exception types, which
// must be the same on both sides of a shared library, at work together.
int main() {
  bool right = false;
  std::make_shared<RavelinOperation>()->resume(
      URL("gopher://127.0.0.1/"), URL::file("never"), true, OnConflict::resume,
      [&](const Status& status) {
        const auto* const end = status.get_if<Status::error>();
        if (!end)
          return;
        const auto* const other = end->custom_error.get_if<CustomError::other>();
        right = other && other->error.is<URLLoadingError>() &&
                other->error.code() == URLError::unsupported_url;
        MainQueue::stop();
      });
  MainQueue::run();
  std::printf("ravelin %s: %s\n", ravelin_version(), right ? "right" : "wrong");
  return right ? 0 : 1;
}
