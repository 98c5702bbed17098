// A window for many downloads: download_window [LINK...]

#include "download_window.h"

#include <ravelin/defaults.h>
#include <ravelin/integrations/qt.h>

#include <QApplication>
#include <QStandardPaths>

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QApplication::setApplicationName("download_window");
  QApplication::setApplicationDisplayName("Downloads");
  const ravelin::QtAdapter adapter; // from here on the library runs in the loop of Qt

  auto defaults = ravelin::defaults();
  defaults.reject_http_errors = true;
  defaults.require_exact_ranges = true;
  defaults.reject_changed_content = true;
  ravelin::set_defaults(defaults);

  const auto settings = QStandardPaths::writableLocation(QStandardPaths::AppConfigLocation);
  DownloadWindow window(settings + "/downloads.ini");
  window.show();
  for (const auto& link : QApplication::arguments().mid(1))
    window.add(link);
  return QApplication::exec();
}
