// Takes a picture of the window with some downloads: window_picture FILE [dark]

#include "download_window.h"
#include "screen.h"
#include "tests/harness/nginx.h"

#include <ravelin/integrations/qt.h>
#include <ravelin/options.h>

#include <QApplication>
#include <QFrame>
#include <QPalette>
#include <QPixmap>
#include <QTest>
#include <QToolButton>
#include <cstdio>
#include <filesystem>
#include <fstream>

QPalette dark_palette() {
  QPalette palette(QColor(0x31363B), QColor(0x2B2F33)); // buttons, windows
  palette.setColor(QPalette::Base, QColor(0x1D2023));
  palette.setColor(QPalette::PlaceholderText, QColor(0x8C939A));
  return palette;
}

int main(int argc, char** argv) {
  const bool is_dark = argc == 3 && argv[2] == std::string("dark");
  if (argc != 2 && !is_dark) {
    std::fprintf(stderr, "usage: window_picture FILE [dark]\n");
    return 2;
  }
  const Screen screen;
  setenv("QT_SCALE_FACTOR", "2", 1);
  const QApplication application(argc, argv);
  if (is_dark)
    QApplication::setPalette(dark_palette());
  const ravelin::QtAdapter adapter;
  ravelin::set_default_options(ravelin::Options::careful());

  const test::Nginx server({.limit_rate = "2500k"});
  const std::pair<const char*, std::uintmax_t> files[] = {{"notes.pdf", 2'400'000},
                                                          {"holiday.mp4", 290'000'000},
                                                          {"songs.zip", 61'000'000},
                                                          {"measurements.tar", 133'000'000},
                                                          {"lost.mkv", 0},
                                                          {"atlas.iso", 700'000'000},
                                                          {"garden.iso", 500'000'000}};
  for (const auto& [name, size] : files)
    if (size > 0) {
      std::ofstream(server.root() / name);
      std::filesystem::resize_file(server.root() / name, size); // sparse
    }
  const test::TempDir dir;
  DownloadWindow window(QString::fromStdString(dir / "downloads.ini"));
  window.set_directory(QString::fromStdString(dir.path()));
  window.resize(640, 550);
  window.show();
  for (const auto& [name, size] : files)
    window.add(QString::fromStdString(server.url(std::string("/") + name)));
  QTest::qWait(4000);
  window.findChildren<QFrame*>("row").at(2)->findChild<QToolButton*>("toggle")->click();
  QTest::qWait(2000);
  window.set_directory("/home/ada/Downloads");
  return window.grab().save(argv[1]) ? 0 : 1;
}
