#include <QCoreApplication>
#include <ravelin/integrations/qt.h>

std::function<void()> make_loop() {
  static int none = 0;
  static const QCoreApplication application(none, nullptr);
  return [adapter = std::make_shared<ravelin::QtAdapter>()] {
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
  };
}
