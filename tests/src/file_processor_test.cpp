#include "platform/threads/semaphore.h"
#include "src/FileProcessor.h"
#include "tests/src/transfer_fixture.h"

#include <atomic>

#include <unistd.h>

namespace test {
namespace {
using ravelin::platform::Data;

class FileProcessorTest : public TransferTest {
protected:
  std::shared_ptr<FileProcessor> processor(std::optional<std::int64_t> split_count = 5,
                                           std::optional<std::int64_t> length = 1000) {
    auto made = std::make_shared<FileProcessor>(owner_);
    made->split_count = split_count;
    made->content_len = length;
    made->server_side_date = "today";
    made->main_file_url = file();
    return made;
  }
  std::shared_ptr<FileProcessor> ready() {
    auto made = processor();
    made->setup();
    return made;
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
  std::pair<std::int64_t, std::int64_t> saved() const {
    const auto record = FileProcessor::read_resume_data(file());
    return {record->parts.at(0)->curr_bytes, record->parts.at(4)->curr_bytes};
  }
  using Counts = std::pair<std::int64_t, std::int64_t>;

private:
  RavelinOperation owner_;
};

TEST_F(FileProcessorTest, continues_only_what_fits_and_else_begins_anew) {
  const std::string fits = R"("content_length":1000,"is_splitted":true,"parts":[]})";
  const std::string whole = R"("content_length":1000,"is_splitted":false,"parts":[]})";
  const std::string unknown = R"("is_splitted":true,"parts":[]})";
  const std::optional<std::int64_t> none;
  const struct {
    const char* name;
    bool has_main;
    std::string record; // empty: there is none
    std::optional<std::int64_t> split_count;
    std::optional<std::int64_t> length;
    bool continued;
  } cases[] = {{"nothing there", false, "", 5, 1000, false},
               {"no record", true, "", 5, 1000, false},
               {"no file", false, fits, 5, 1000, false},
               {"both", true, fits, 5, 1000, true}, // of another day, with other parts
               {"both, but not to be split", true, fits, none, 1000, false},
               {"both, length not known now", true, fits, 5, none, false},
               {"both, whole", true, whole, 5, 1000, false},
               {"both, other length", true, fits, 5, 1003, false},
               {"both, length not known then", true, unknown, 5, 1000, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FileProcessor::delete_resume_file(file());
    if (c.has_main)
      dir.write("file.bin", std::string(1200, 'x'));
    if (!c.record.empty())
      dir.write(record_of(), R"({"server_side_date":"earlier",)" + c.record);
    const auto opened = processor(c.split_count, c.length);
    opened->setup();
    EXPECT_TRUE(opened->main_file_handle);
    EXPECT_EQ(opened->resume_data->to_json(), dir.read(record_of()));
    EXPECT_EQ(opened->resume_data->server_side_date, c.continued ? "earlier" : "today");
    EXPECT_EQ(fs::file_size(file().path()), c.continued ? 1000U : 0U);
    EXPECT_EQ(marks_of(file()), c.continued ? 0 : 2);
    FileProcessor::delete_main_file(file());
    EXPECT_FALSE(fs::exists(dir / ".hidden")) << "the list of hidden names was made for this file";
  }
}

TEST_F(FileProcessorTest, refuses_a_record_that_cannot_be_read) {
  const std::string start = R"({"server_side_date":"","is_splitted":true,)";
  const std::string contents[] = {"",
                                  "{",
                                  "[]",
                                  "null",
                                  "\xff\xfe",
                                  "{\"server_side_date\":\"\xff\"}",
                                  start + R"("parts":[)",
                                  start + R"("parts":{}})",
                                  start + R"("content_length":9223372036854775808,"parts":[]})",
                                  std::string(2'000'000, ' '),
                                  std::string(100'000, '[')};
  const std::string message = "Couldn't create resume data from file content: \n";
  serve(Reply{.body = pattern(1000)});
  for (const auto& content : contents) {
    SCOPED_TRACE(content.substr(0, 100));
    dir.write("file.bin", "old");
    dir.write(record_of(), content);
    const auto refused = processor();
    try {
      refused->setup();
      ADD_FAILURE() << "accepted";
    } catch (const TextError& error) {
      EXPECT_TRUE(std::string(error.what()).starts_with(message)) << error.what();
    }
    EXPECT_FALSE(refused->main_file_handle || refused->resume_data);
    EXPECT_EQ(FileProcessor::read_resume_data(file()), nullptr);
    EXPECT_EQ(RavelinOperation::get_progress(file()), Progress(0.0F, 0, false));
    const auto& run = download({});
    EXPECT_EQ(run.story(), "connecting error");
    EXPECT_TRUE(run.error_text().starts_with(message)) << run.error_text();
    EXPECT_EQ(run.content(), "old");
    EXPECT_EQ(dir.read(record_of()), content);
  }
}

TEST_F(FileProcessorTest, writes_in_the_order_queued) {
  const auto opened = ready();
  opened->async_write_bytes(801, Data::copy_of("bbb"));
  opened->async_write_bytes(800, Data::copy_of("aa"));
  opened->async_write_bytes(0, Data::copy_of("first"));
  wait_for_disk(*opened);
  EXPECT_EQ(dir.read("file.bin"), "first" + std::string(795, '\0') + "aabb");
  // Of a part that is cancelled before it waits, while another one, done with the queue, waits.
  opened->async_write_bytes(0, Data::copy_of("last!"));
  std::thread other([&] { opened->file_write_grp.wait(); });
  opened->start_writes();
  other.join();
  EXPECT_TRUE(dir.read("file.bin").starts_with("last!"));
}

TEST_F(FileProcessorTest, saves_no_byte_that_is_not_flushed) {
  const auto opened = ready();
  receive(*opened, 0, "0123456789");
  opened->async_update_resume_file(); // runs when the main thread lets it, after what follows
  receive(*opened, 0, "abc");
  receive(*opened, 4, "0123");
  wait_for_disk(*opened);
  EXPECT_EQ(saved(), Counts(10, 0));
  ravelin::platform::Semaphore reached(0);
  ravelin::platform::Semaphore go_on(0);
  const HookedCalls calls([&](std::string_view call, const std::string& path) {
    if (call == "fdatasync" && path.ends_with(".bin")) {
      reached.signal();
      go_on.wait();
    }
    return false;
  });
  receive(*opened, 0, "de");
  receive(*opened, 4, "4567");
  std::thread writer([&] { opened->bg_wait_for_writes(); });
  reached.wait();
  opened->update_resume_file(); // the first write is not flushed and the second not begun
  EXPECT_EQ(saved(), Counts(13, 4));
  go_on.signal();
  go_on.signal();
  writer.join();
  opened->update_resume_file();
  EXPECT_EQ(saved(), Counts(15, 8));
}

TEST_F(FileProcessorTest, keeps_the_error_of_a_queued_save_until_the_next_setup) {
  const auto opened = ready();
  const auto before = dir.read(record_of());
  receive(*opened, 0, "0123456789");
  {
    const HookedCalls calls([](std::string_view call, const auto&) { return call == "rename"; });
    opened->async_update_resume_file();
    wait_for_disk(*opened);
    EXPECT_THROW(opened->update_resume_file(), TextError);
  }
  EXPECT_EQ(dir.read(record_of()), before);
  opened->async_update_resume_file();
  wait_for_disk(*opened);
  EXPECT_EQ(saved(), Counts(10, 0));
  ASSERT_TRUE(opened->exception.get());
  EXPECT_TRUE(opened->exception.get()->text().starts_with("Couldn't update resume file: \n"));
  opened->setup();
  EXPECT_FALSE(opened->exception.get());
}

TEST_F(FileProcessorTest, deletes_what_is_there_and_is_silent_about_what_is_not) {
  FileProcessor::delete_main_file(file());
  FileProcessor::delete_resume_file(file());
  const auto opened = ready();
  opened->delete_resume_file();
  opened->delete_resume_file();
  FileProcessor::delete_main_file(file());
  EXPECT_TRUE(fs::is_empty(dir.path()));
  fs::create_directories(file().path());
  fs::create_directories(dir / record_of());
  EXPECT_THROW(FileProcessor::delete_main_file(file()), std::system_error);
  EXPECT_THROW(FileProcessor::delete_resume_file(file()), std::system_error);
}

// The files after each failure are such that the next run completes them.
TEST_F(FileProcessorTest, survives_the_failure_of_each_single_call) {
  const auto body = pattern(1000);
  serve(Reply{.body = body});
  std::atomic<int> left = -1;
  std::string failed;
  const HookedCalls calls([&](std::string_view call, const std::string& path) {
    const bool vital = path.ends_with(".bin") && (call == "pwrite" || call == "fdatasync");
    const bool mark = path.find(".hidden") != path.npos; // which may stay, then
    if (vital || mark || left-- != 0)
      return false;
    failed = std::string(call) + " " + path;
    return true;
  });
  for (int nth = 0; nth == 0 || !failed.empty(); ++nth) {
    const auto name = std::to_string(nth) + ".bin";
    failed.clear();
    left = nth;
    auto& run = download({.name = name});
    left = -1;
    auto& next = download({.name = name});
    SCOPED_TRACE(failed + ": " + run.story() + " " + run.error_text());
    EXPECT_TRUE(next.story().ends_with("success")) << next.story() << next.error_text();
    EXPECT_EQ(next.content(), body);
  }
}

using FileProcessorDeathTest = FileProcessorTest;

TEST_F(FileProcessorDeathTest, ends_the_process_where_bytes_cannot_be_kept) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto download_failing_to = [&](std::string_view failing) {
    serve(Reply{.body = pattern(1000)});
    const HookedCalls calls([&](std::string_view call, const std::string& path) {
      return call == failing && path.ends_with("file.bin");
    });
    download({});
  };
  const auto write = [](FileProcessor& processor, std::int64_t offset) {
    processor.async_write_bytes(offset, Data::copy_of("x"));
    wait_for_disk(processor);
  };
  EXPECT_DEATH(download_failing_to("pwrite"), "write to '.*/file.bin': Input/output error");
  EXPECT_DEATH(download_failing_to("fdatasync"), "flush '.*/file.bin': Input/output error");
  EXPECT_DEATH(write(*processor(), 0), "not open");
  EXPECT_DEATH(write(*ready(), -1), "a write before the start");
}

} // namespace
} // namespace test
