// A window for many downloads: download_window [LINK...]

#include "download_window.h"

#include <ravelin/integrations/qt.h>
#include <ravelin/options.h>

#include <QApplication>
#include <QIcon>
#include <QStandardPaths>

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QApplication::setApplicationName("download_window");
  QApplication::setApplicationDisplayName("Downloads");
  QApplication::setDesktopFileName("invalid.ravelin.downloads"); // as in desktop/
  QApplication::setWindowIcon(QIcon::fromTheme(QApplication::desktopFileName()));
  const ravelin::QtAdapter adapter; // runs the library in Qt's event loop

  ravelin::set_default_options(ravelin::Options::careful());

  const auto settings = QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation);
  DownloadWindow window(settings + "/downloads.ini");
  window.show();
  for (const auto& link : QApplication::arguments().mid(1))
    window.add(link);
  return QApplication::exec();
}
