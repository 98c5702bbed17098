// Clicks through the real window on a screen of its own.

#include "download_window.h"
#include "screen.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"

#include <ravelin/integrations/qt.h>

#include <QApplication>
#include <QDir>
#include <QFrame>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QSpinBox>
#include <QTest>
#include <QToolButton>
#include <atomic>
#include <gtest/gtest.h>
#include <optional>

namespace {

using test::Reply;

const std::string body = test::pattern(1'000'000);

struct Window : testing::Test {
  Window() { open(); }

  void open() {
    window.emplace(QString::fromStdString(dir / "downloads.ini"));
    window->set_directory(QString::fromStdString(files.path()));
    window->show();
    EXPECT_TRUE(QTest::qWaitForWindowExposed(&*window));
  }

  template <class Condition> void await(Condition condition) {
    ASSERT_TRUE(QTest::qWaitFor(condition, 30'000)) << words(0) << "; " << words(1);
  }
  void click(QWidget* widget) {
    ASSERT_TRUE(widget && widget->isVisible() && widget->isEnabled());
    QTest::mouseClick(widget, Qt::LeftButton);
  }
  void click(const char* name, int row) { click(part<QToolButton>(name, row)); }
  void add(const std::string& link) {
    QTest::keyClicks(window->findChild<QLineEdit*>("link"), QString::fromStdString(link));
    click(window->findChild<QPushButton*>("add"));
  }
  void answer(const QString& button_text) {
    await([this] { return window->findChild<QMessageBox*>() != nullptr; });
    auto* const box = window->findChild<QMessageBox*>();
    for (auto* const button : box->buttons())
      if (button->text() == button_text)
        click(button);
    await([this] { return window->findChild<QMessageBox*>() == nullptr; });
  }

  QList<QFrame*> rows() { return window->findChildren<QFrame*>("row"); }
  template <class Part> Part* part(const char* name, int row) {
    return row < rows().size() ? rows()[row]->findChild<Part*>(name) : nullptr;
  }
  std::string words(int row) {
    const auto* const label = part<QLabel>("words", row);
    return label ? label->text().toStdString() : "no row";
  }
  int bar(int row) {
    const auto* const found = part<QProgressBar>("bar", row);
    return found ? found->value() : -1;
  }
  void await_words(int row, const std::string& start) {
    await([=, this] { return words(row).starts_with(start); });
  }
  void await_half(int row) {
    await([=, this] { return bar(row) >= 400; });
  }
  int files_left() {
    return static_cast<int>(QDir(QString::fromStdString(files.path()))
                                .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)
                                .size());
  }

  test::TempDir dir, files;
  std::atomic<bool> hurry = false;
  test::ScriptedServer server{[this](const test::Request&) {
    return Reply{.body = body,
                 .stall_after = hurry ? std::nullopt : std::optional<std::size_t>(90'000)};
  }};
  std::optional<DownloadWindow> window;
};

TEST_F(Window, pauses_a_download_continues_it_and_finishes) {
  add(server.url());
  await_half(0);
  EXPECT_NE(words(0).find(" of 976.6 KiB"), std::string::npos) << words(0);
  click("toggle", 0);
  await_words(0, "Paused");
  EXPECT_GE(bar(0), 400);
  const auto seen = server.requests().size();
  hurry = true;
  click("toggle", 0);
  await_words(0, "Done");
  EXPECT_EQ(bar(0), 1000);
  EXPECT_TRUE(files.read("file.bin") == body);
  const auto requests = server.requests();
  for (auto i = seen; i < requests.size(); ++i) {
    const auto range = requests[i].header("Range").value_or("bytes=1");
    EXPECT_NE(std::stol(range.substr(6)) % 200'000, 0) << range << " begins anew";
  }
}

TEST_F(Window, asks_what_to_do_about_a_file_that_is_there) {
  hurry = true;
  const struct {
    const char* button;
    std::string old, copy;
    int rows;
  } cases[] = {{"Stop", "old", "", 0},
               {"Keep both", "old", body, 1},
               {"Resume", "old", body, 2},
               {"Replace", body, body, 2}};
  files.write("file.bin", "old");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.button);
    add(server.url());
    answer(c.button);
    ASSERT_EQ(rows().size(), c.rows);
    for (int row = 0; row < c.rows; ++row)
      await_words(row, "Done");
    EXPECT_TRUE(files.read("file.bin") == c.old);
    EXPECT_TRUE(c.copy.empty() || files.read("file (1).bin") == c.copy);
  }
}

TEST_F(Window, removes_a_download_with_its_files) {
  add(server.url("/half"));
  await_half(0);
  click("remove", 0);
  await([this] { return rows().empty(); });
  EXPECT_EQ(files_left(), 0);
  hurry = true;
  for (const auto& [button, left] : {std::pair{"Keep it", 1}, {"Delete it", 0}}) {
    add(server.url("/whole"));
    if (left == 0)
      answer("Resume");
    await_words(0, "Done");
    click("remove", 0);
    answer(button);
    await([this] { return rows().empty(); });
    EXPECT_EQ(files_left(), left) << button;
  }
}

TEST_F(Window, finds_its_downloads_again) {
  add(server.url());
  await_half(0);
  window->close();
  await([this] { return !window->isVisible(); });
  window.reset();
  const auto seen = server.requests().size();
  open();
  ASSERT_EQ(rows().size(), 1);
  EXPECT_EQ(words(0), "Paused");
  EXPECT_GE(bar(0), 400);
  EXPECT_EQ(server.requests().size(), seen);
  hurry = true;
  click("toggle", 0);
  await_words(0, "Done");
  EXPECT_TRUE(files.read("file.bin") == body);
}

TEST_F(Window, runs_as_many_at_once_as_it_is_told) {
  auto* const limit = window->findChild<QSpinBox*>("limit");
  limit->setFocus();
  limit->selectAll();
  QTest::keyClicks(limit, "1");
  add(server.url("/a"));
  await_half(0);
  add(server.url("/b"));
  await_words(1, "Waiting");
  click("toggle", 0);
  await_half(1);
  EXPECT_EQ(words(0), "Paused");
}

} // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const Screen screen;
  const QApplication application(argc, argv);
  const ravelin::QtAdapter adapter;
  return RUN_ALL_TESTS();
}
