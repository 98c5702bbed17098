#include "platform/threads/semaphore.h"
#include "src/Splitting.h"
#include "tests/src/transfer_fixture.h"

namespace test {
namespace {

using ravelin::platform::Data;
using OptionalNumber = std::optional<std::int64_t>;

class FileProcessorTest : public TransferTest {
protected:
  std::shared_ptr<FileProcessor> processor(OptionalNumber split_count = 5,
                                           OptionalNumber length = 500) {
    auto made = std::make_shared<FileProcessor>(owner_);
    made->split_count = split_count;
    made->content_len = length;
    made->server_side_date = "today";
    made->main_file_url = file();
    return made;
  }
  // "whole" or "split", as this library writes it.
  void write_record(const std::string& what) {
    ResumeData record;
    record.server_side_date = "earlier";
    record.is_splitted = what != "whole";
    record.content_length = 500;
    record.parts = split_into_parts(500, record.is_splitted ? 5 : 1);
    record.parts[0]->curr_bytes = 7;
    dir.write(".file.lgresume", record.to_json());
  }
  static void wait_for_disk(FileProcessor& processor) {
    in_background([&] { processor.bg_wait_for_writes(); });
  }
  // What arrives for a part is counted in memory and queued for the disk, as the driver does.
  static void receive(FileProcessor& processor, std::size_t index, const std::string& bytes) {
    auto& part = *processor.resume_data->parts.at(index);
    processor.async_write_bytes(part.begin_pos + part.curr_bytes, Data::copy_of(bytes));
    part.curr_bytes += static_cast<std::int64_t>(bytes.size());
  }
  // What the record on disk counts of the first and of the last part.
  std::string saved() const {
    const auto parts = FileProcessor::read_resume_data(file())->parts;
    return std::to_string(parts.at(0)->curr_bytes) + " " + std::to_string(parts.at(4)->curr_bytes);
  }

private:
  RavelinOperation owner_;
};

TEST_F(FileProcessorTest, continues_only_what_fits) {
  const std::tuple<bool, std::string, OptionalNumber, OptionalNumber, bool> cases[] = {
      {false, "", 5, 500, false},      {true, "", 5, 500, false},
      {false, "split", 5, 500, false}, {true, "split", 5, 500, true},
      {true, "split", {}, 500, false}, {true, "split", 5, {}, false},
      {true, "split", 5, 503, false},  {true, "whole", 5, 500, false}};
  for (const auto& [has_main, record, count, len, continued] : cases) {
    SCOPED_TRACE(record + (has_main ? " beside a file" : ""));
    if (has_main)
      dir.write("file.bin", std::string(1200, 'x'));
    if (!record.empty())
      write_record(record);
    const auto opened = processor(count, len);
    opened->setup();
    EXPECT_EQ(opened->resume_data->to_json(), dir.read(".file.lgresume"));
    EXPECT_EQ(opened->resume_data->server_side_date, continued ? "earlier" : "today");
    EXPECT_EQ(fs::file_size(dir / "file.bin"), continued ? 500U : 0U);
    EXPECT_EQ(marks_of(file()), continued ? 0 : 2);
    for (const bool own : {true, false}) { // and there is nothing the second time
      dir.write(".file.lgresume.tmp", "of a process that was killed");
      FileProcessor::delete_main_file(file());
      own ? opened->delete_resume_file() : FileProcessor::delete_resume_file(file());
      EXPECT_TRUE(fs::is_empty(dir.path()));
    }
  }
}

TEST_F(FileProcessorTest, saves_no_byte_that_is_not_flushed_and_keeps_the_error_of_a_save) {
  const auto opened = processor();
  opened->setup();
  receive(*opened, 0, "0123456789");
  opened->async_update_resume_file(); // runs when the main thread lets it, after what follows
  receive(*opened, 0, "abc");
  receive(*opened, 4, "0123");
  wait_for_disk(*opened);
  EXPECT_EQ(saved(), "10 0");
  ravelin::platform::Semaphore reached(0), go_on(0);
  bool fails = false;
  const FaultyFiles calls([&](std::string_view call, const std::string& path) {
    if (call == "fdatasync" && path.ends_with(".bin")) {
      reached.signal();
      go_on.wait();
    }
    return fails && call == "rename" ? EIO : 0;
  });
  receive(*opened, 0, "de");
  receive(*opened, 4, "4567");
  reached.wait();
  opened->update_resume_file(); // the first write is not flushed and the second not begun
  EXPECT_EQ(saved(), "13 4");
  go_on.signal();
  go_on.signal();
  wait_for_disk(*opened);
  fails = true;
  EXPECT_THROW(opened->update_resume_file(), std::exception);
  opened->async_update_resume_file();
  wait_for_disk(*opened);
  EXPECT_TRUE(opened->exception.get()->text().starts_with("Couldn't update resume file: \n"));
  EXPECT_EQ(saved(), "13 4");
  fails = false;
  opened->update_resume_file();
  EXPECT_EQ(saved(), "15 8");
  EXPECT_EQ(dir.read("file.bin"), "0123456789abcde" + std::string(385, '\0') + "01234567");
  opened->setup();
  EXPECT_FALSE(opened->exception.get());
}

using FileProcessorDeathTest = FileProcessorTest;

TEST_F(FileProcessorDeathTest, ends_the_process_where_bytes_cannot_be_kept) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto write = [this](std::string_view failing, std::int64_t offset) {
    const FaultyFiles calls([&](std::string_view call, const std::string& path) {
      return call == failing && path.ends_with("file.bin") ? EIO : 0;
    });
    const auto opened = processor();
    opened->setup();
    opened->async_write_bytes(offset, Data::copy_of("x"));
    wait_for_disk(*opened);
  };
  EXPECT_DEATH(write("pwrite", 0), "write to '.*/file.bin': Input/output error");
  EXPECT_DEATH(write("fdatasync", 0), "flush '.*/file.bin': Input/output error");
  EXPECT_DEATH(write("", -1), "a write before the start");
}

} // namespace
} // namespace test
