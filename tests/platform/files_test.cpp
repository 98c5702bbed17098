#include "platform/files/file_calls.h"
#include "platform/files/file_handle.h"
#include "platform/files/file_manager.h"
#include "platform/files/file_marks.h"
#include "tests/harness/temp_dir.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace ravelin::platform {
namespace {

namespace fs = std::filesystem;

/// A disk that is full at the nth call. Writes are interrupted and short as well.
class FullDisk : public FileCalls {
public:
  explicit FullDisk(int nth) : left_(nth) { set_file_calls(this); }
  ~FullDisk() override { set_file_calls(nullptr); }
  int open(const char* path, int flags, mode_t mode) override {
    return full() ? -1 : FileCalls::open(path, flags, mode);
  }
  ssize_t pwrite(int file, const void* bytes, std::size_t size, off_t at) override {
    if (interrupted_ = !interrupted_; interrupted_)
      return errno = EINTR, -1;
    return full() ? -1 : FileCalls::pwrite(file, bytes, std::min<std::size_t>(size, 4), at);
  }
  int fdatasync(int file) override { return full() ? -1 : FileCalls::fdatasync(file); }
  int fsync(int file) override { return full() ? -1 : FileCalls::fsync(file); }
  int ftruncate(int file, off_t n) override { return full() ? -1 : FileCalls::ftruncate(file, n); }
  int reserve(int file, off_t n) override { return full() ? -1 : FileCalls::reserve(file, n); }
  int unlink(const char* path) override { return full() ? -1 : FileCalls::unlink(path); }
  int rename(const char* a, const char* b) override {
    return full() ? -1 : FileCalls::rename(a, b);
  }

private:
  bool full() { return errno = ENOSPC, --left_ == 0; }
  int left_;
  bool interrupted_ = false;
};

/// Runs `work` and tells the code of its error, whose text must name the file.
int code_of(const URL& url, const std::function<void(const URL&)>& work) {
  try {
    return work(url), 0;
  } catch (const std::system_error& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("'" + url.path().native() + "'"));
    return e.code().value();
  }
}

void remove(const URL& url) {
  FileManager::default_manager().remove_item(url);
}
void replace(const URL& url) {
  write_text_atomically(url, "new text");
}
void write_in_place(const URL& url) {
  auto file = FileHandle::for_writing_to(url);
  file.reserve(1000);
  file.cut(2);
  file.write(2, Data::copy_of("abcdef"));
  file.synchronize();
}

TEST(FileCalls, may_fail_one_by_one_and_leave_whole_files_and_errors_that_name_them) {
  const std::tuple<void (*)(const URL&), std::string, int> cases[] = {
      {replace, "new text", 7}, {remove, "gone", 1}, {write_in_place, "olabcdef", 6}};
  for (const auto& [work, after, calls] : cases)
    for (int nth = 1; nth <= calls + 1; ++nth) {
      SCOPED_TRACE(after + ", call " + std::to_string(nth));
      const test::TempDir dir;
      const auto url = URL::file(dir.write("f", "old text"));
      const FullDisk disk(nth);
      const bool reserves = work == write_in_place && nth == 2; // once more, and finds room then
      EXPECT_EQ(nth > calls || reserves ? 0 : ENOSPC, code_of(url, work));
      const auto text = fs::exists(dir / "f") ? dir.read("f") : "gone";
      const bool as_before =
          text == "old text" || (work == write_in_place && after.starts_with(text));
      EXPECT_TRUE(text == after || (nth <= calls && as_before)) << text;
      EXPECT_FALSE(fs::exists(dir / "f.tmp"));
    }
}

TEST(FileManager, follows_no_link_and_removes_only_files_and_links) {
  const test::TempDir dir;
  dir.write("victim", "untouched");
  dir.write("f", "old");
  dir.write(".hidden", "other\nf\n");
  fs::create_directory(dir / "directory");
  ASSERT_EQ(0, mkfifo((dir / "pipe").c_str(), 0600));
  for (const auto* link : {"f.tmp", "link"})
    fs::create_symlink("victim", dir / link);
  EXPECT_EQ(0, code_of(URL::file(dir / "f"), replace));
  EXPECT_EQ("new text", read_text(URL::file(dir / "f"), 8));
  const auto read = [](const URL& url) { read_text(url, 7); };
  EXPECT_EQ(EFBIG, code_of(URL::file(dir / "f"), read));
  EXPECT_EQ(EINVAL, code_of(URL::file(dir / "pipe"), read)) << "and no waiting for a writer";
  EXPECT_EQ(ENXIO, code_of(URL::file(dir / "pipe"), write_in_place));
  const std::pair<const char*, int> cases[] = {
      {"f", 0}, {"f.tmp", ENOENT}, {"link", 0}, {"directory", EISDIR}, {"pipe", EPERM}};
  for (const auto& [name, code] : cases) {
    EXPECT_EQ(code, code_of(URL::file(dir / name), remove)) << name;
    EXPECT_EQ(code == EISDIR || code == EPERM, fs::exists(fs::symlink_status(dir / name))) << name;
  }
  EXPECT_EQ("untouched", dir.read("victim"));
  EXPECT_EQ("other\n", dir.read(".hidden"));
}

TEST(FileHandle, writes_anywhere_reserves_unseen_and_cuts) {
  const test::TempDir dir;
  const auto url = URL::file(dir.write("f", "0123456789"));
  auto file = FileHandle::for_writing_to(url);
  file.reserve(1 << 20);
  EXPECT_EQ("0123456789", dir.read("f")) << "room reserved must not show";
  EXPECT_NE(0, code_of(url, [&](const URL&) { file.reserve(INT64_MAX / 2); }));
  file.cut(100);
  file.write(8, Data::copy_of("abcd"));
  EXPECT_EQ("01234567abcd", dir.read("f"));
  file.cut(3);
  file.write(5, Data::copy_of("z"));
  EXPECT_EQ(std::string("012\0\0z", 6), dir.read("f"));
  file.close_file();
  EXPECT_EQ(EBADF, code_of(url, [&](const URL&) { file.write(0, Data::copy_of("a")); }));
  EXPECT_EQ(ENOENT, code_of(URL::file(dir / "none"), write_in_place));
}

TEST(HiddenList, changes_by_one_line_and_goes_when_empty_and_ours) {
  // The file's name, the list made by others, the list with the file hidden, and shown again.
  const std::array<std::string, 4> cases[] = {
      {"a b\xff", "no list", "a b\xff\n", "no list"},
      {"a", "z\n\nb", "z\n\nb\na\n", "z\n\nb\n"},
      {"a", "z\na\nb", "z\na\nb", "z\nb"},
      {"a", "z\r\n a\nab\n", "z\r\n a\nab\na\n", "z\r\n a\nab\n"},
      {"a", "a", "a", ""},
      {"a", "", "a\n", ""},
      {"two\nlines", "two\n", "two\n", "two\n"},
      {".by_name", "no list", "no list", "no list"},
      {"directory", "no list", "no list", "no list"}};
  for (const auto& [name, before, hidden, shown] : cases) {
    SCOPED_TRACE(name + ": " + before);
    const test::TempDir dir;
    const auto list = [&] { return fs::exists(dir / ".hidden") ? dir.read(".hidden") : "no list"; };
    name == "directory" ? void(fs::create_directory(dir / name)) : void(dir.write(name, ""));
    if (before != "no list")
      dir.write(".hidden", before);
    set_hidden(URL::file(dir / name), true);
    EXPECT_EQ(hidden, list());
    set_hidden(URL::file(dir / name), false);
    EXPECT_EQ(shown, list());
  }
  const test::TempDir dir;
  dir.write(".hidden.tmp", "a process was killed before it put this in place");
  set_hidden(URL::file(dir / "f"), false);
  EXPECT_FALSE(fs::exists(dir / ".hidden.tmp"));
  fs::create_symlink(dir.write("elsewhere", "z\n"), dir / ".hidden");
  set_hidden(URL::file(dir.write("a", "")), true);
  EXPECT_TRUE(fs::is_symlink(dir / ".hidden") && dir.read("elsewhere") == "z\n");
}

} // namespace
} // namespace ravelin::platform
