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
  await(0, "439.5 of 976.6 KiB");
  add("/b");
  await(1, "Waiting");
  click(part("toggle"));
  await(1, "439.5 of 976.6 KiB");
  window->close();
  await(1, "439.5 of 976.6 KiB, paused");
  EXPECT_FALSE(window->isVisible());
  window.emplace(settings).show();
  EXPECT_EQ(words(0) + words(1), "439.5 of 976.6 KiB, paused439.5 of 976.6 KiB, paused");
  EXPECT_EQ(part("bar")->property("value"), 450);
  click(part("toggle"));
  await(0, "878.9 of 976.6 KiB");
  click(part("toggle"));
  await(0, "878.9 of 976.6 KiB, paused");
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

TEST_F(Window, takes_links_that_are_dropped_or_pasted_on_it) {
  const auto link = [&](const char* name) { return QString(server.url(name).c_str()); };
  QMimeData files_only, browser;
  files_only.setUrls({QUrl("file:///a")});
  browser.setText("Title of the page");
  browser.setUrls({QUrl(link("/a")), QUrl("file:///a")});
  for (auto* const data : {&files_only, &browser}) {
    QDragEnterEvent enter({5, 5}, Qt::MoveAction, data, Qt::LeftButton, Qt::NoModifier);
    enter.ignore();
    QApplication::sendEvent(&*window, &enter);
    EXPECT_EQ(enter.isAccepted(), data == &browser);
  }
  QDropEvent drop({5, 5}, Qt::CopyAction | Qt::MoveAction, &browser, Qt::LeftButton,
                  Qt::NoModifier);
  static_cast<QObject&>(*window).event(&drop); // the application would want a real drag
  EXPECT_EQ(drop.dropAction(), Qt::CopyAction);
  await(0, "439.5 of 976.6 KiB");
  QApplication::clipboard()->setText("both " + link("/b") + "\nand " + link("/d"));
  QApplication::setActiveWindow(&*window);
  window->setFocus();
  QTest::keySequence(&*window, QKeySequence::Paste);
  await(2, "439.5 of 976.6 KiB");
  await(3, "no row");
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const Screen screen;
  const QApplication application(argc, argv);
  const ravelin::QtAdapter adapter;
  return RUN_ALL_TESTS();
}
