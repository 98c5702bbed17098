#include "ravelin/integrations/qt.h"
#include "tests/integrations/host_loop.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <utility>

namespace test {

struct QtLoop final : HostLoop {
  void run() override {
    QEventLoop nested;
    auto* const outer = std::exchange(loop, &nested);
    nested.exec();
    loop = outer;
  }
  void leave() override { loop->quit(); }
  void start_timer() override { QTimer::singleShot(5, on_timer); }

  int argc = 0;
  QCoreApplication application{argc, nullptr};
  QEventLoop* loop = nullptr;
  ravelin::QtAdapter adapter;
};

INSTANTIATE_TEST_SUITE_P(Qt, EventLoop, testing::Values(LoopKind{"qt", make<QtLoop>}));

} // namespace test
