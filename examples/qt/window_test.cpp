// Clicks through the real window on a screen of its own.

#include "download_window.h"
#include "screen.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"

#include <QTest>
#include <QtWidgets>
#include <gtest/gtest.h>
#include <ravelin/integrations/qt.h>

const std::string body = test::pattern(1'000'000);

struct Window : testing::Test {
  Window() { window->set_directory(QString::fromStdString(files.path())); }
  void SetUp() override { window->show(); }
  QWidget* part(const char* name, int row = 0) {
    return window->findChildren<QWidget*>(name).value(row); // each row has one
  }
  std::string words(int row) {
    auto* const label = part("words", row);
    return label ? label->property("text").toString().toStdString() : "no row";
  }
  void await(int row, const std::string& start) {
    ASSERT_TRUE(QTest::qWaitFor([&] { return words(row).starts_with(start); }, 30'000)) << start;
  }
  void click(QWidget* widget) {
    ASSERT_TRUE(widget && widget->isVisible() && widget->isEnabled());
    QTest::mouseClick(widget, Qt::LeftButton);
  }
  void add(const char* path) {
    QTest::keyClicks(part("link"), server.url(path).c_str());
    click(part("add"));
  }
  void answer(const QString& text) {
    for (auto* const button : window->findChildren<QMessageBox*>().last()->buttons())
      if (button->text() == text)
        click(button);
  }
  const test::TempDir dir, files;
  const QString settings = QString::fromStdString(dir / "downloads.ini");
  const test::ScriptedServer server{[](const test::Request& request) {
    return test::Reply{.body = body, .stall_after = request.target == "/c" ? 1'000'000 : 90'000};
  }};
  std::optional<DownloadWindow> window{settings};
};

TEST_F(Window, runs_pauses_and_continues_its_downloads_and_finds_them_again) {
  part("limit")->setProperty("value", 1);
  add("/a");
  await(0, "439.5 KiB of 976.6 KiB");
  add("/b");
  await(1, "Waiting");
  click(part("toggle"));
  await(1, "439.5 KiB of 976.6 KiB");
  window->close();
  await(1, "Paused");
  EXPECT_FALSE(window->isVisible());
  window.emplace(settings).show();
  EXPECT_EQ(words(0) + words(1), "PausedPaused");
  EXPECT_EQ(part("bar")->property("value"), 450);
  click(part("toggle"));
  await(0, "878.9 KiB of 976.6 KiB");
  click(part("toggle"));
  await(0, "Paused");
  click(part("toggle"));
  await(0, "Done");
  EXPECT_TRUE(files.read("a") == body);
  click(part("remove", 1));
  await(1, "no row");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(files.path()), {}), 1);
}

TEST_F(Window, asks_what_to_do_about_a_file_that_is_there) {
  files.write("c", "old");
  for (const auto& [button, row] :
       {std::pair{"Stop", -1}, {"Keep both", 0}, {"Resume", 1}, {"Replace", 1}}) {
    EXPECT_EQ(files.read("c"), "old");
    add("/c");
    answer(button);
    await(row, row < 0 ? "no row" : "Done");
    await(row + 1, "no row");
  }
  EXPECT_TRUE(files.read("c") == body && files.read("c (1)") == body);
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const Screen screen;
  const QApplication application(argc, argv);
  const ravelin::QtAdapter adapter;
  return RUN_ALL_TESTS();
}
