#include "bramblekit/main_thread.h"
#include "platform/network/data_task.h"
#include "platform/network/receive_buffer.h"
#include "ravelin/main_queue.h"
#include "ravelin/options.h"
#include "ravelin/ravelin_operation.h"
#include "src/FileProcessor.h"
#include "src/PartialDataOpr.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <thread>

// The single steps that a download repeats. They run on a background thread while the main thread
// runs its queue, as in an application. Files are in TMPDIR.

namespace test {
namespace {

using namespace ravelin;
using namespace std::chrono_literals;
using bramblekit::main_sync;
using platform::Data;

constexpr std::int64_t file_size = 512LL << 20;
constexpr std::size_t socket_read = 16 * 1024; // bytes per write callback of libcurl

void hop_to_the_main_thread_and_back(benchmark::State& state) {
  for (auto _ : state)
    main_sync([] {});
}
BENCHMARK(hop_to_the_main_thread_and_back)->UseRealTime()->MeasureProcessCPUTime();

/// The destination of a running download.
struct Destination {
  Destination() {
    processor->split_count = 5;
    processor->content_len = file_size;
    processor->server_side_date = "Tue, 10 Nov 2026 08:12:55 GMT";
    processor->main_file_url = URL::file(dir / "file.bin");
    processor->setup();
  }
  ~Destination() {
    processor->bg_wait_for_writes();
    processor->main_file_handle->close_file();
  }
  const TempDir dir;
  RavelinOperation owner;
  std::shared_ptr<FileProcessor> processor = std::make_shared<FileProcessor>(owner);
};

/// Passes chunks through a request, whose server never responds, to the destination, in the way a
/// download does.
class Pipeline {
public:
  Pipeline() {
    buffer_->finish(); // no chunk is delayed
    request_->request(
        URL(server_.url()), std::nullopt, [this](const PartialDataOpr::Status& status) {
          if (const auto* const received = std::get_if<Event::did_receive_data>(&status.value))
            write(received->progress.data);
          else if (std::holds_alternative<Event::bg_after_receive_data>(status.value))
            destination_.processor->bg_wait_for_writes();
          else if (std::holds_alternative<Event::cancelled>(status.value))
            ended_.signal();
        });
    server_.wait_for_requests(1);
  }
  ~Pipeline() {
    request_->cancel();
    ended_.wait();
  }

  void pass_chunk(std::size_t bytes) {
    for (std::size_t done = 0; done < bytes; done += socket_read)
      buffer_->append({piece_.data(), socket_read});
    auto chunk = buffer_->take();
    platform::URLSessionDelegate& delegate = *request_;
    delegate.urlSession(*session_, *task_, std::move(*chunk));
  }

private:
  using Event = PartialDataOpr::Status;

  void write(const Data& chunk) {
    const auto size = static_cast<std::int64_t>(chunk.size());
    if (position_ + size > file_size)
      position_ = 0;
    destination_.processor->async_write_bytes(position_, chunk);
    position_ += size;
  }

  const ScriptedServer server_{Reply{.header_delay = 24h}};
  Destination destination_;
  platform::Semaphore ended_{0};
  std::shared_ptr<PartialDataOpr> request_ = std::make_shared<PartialDataOpr>();
  std::shared_ptr<platform::URLSession> session_ = platform::URLSession::make(
      platform::URLSessionConfiguration::ephemeral(platform::RequestSettings::snapshot()),
      request_);
  std::shared_ptr<platform::DataTask> task_ = session_->data_task(URL(server_.url()));
  std::shared_ptr<platform::ReceiveBuffer> buffer_ =
      std::make_shared<platform::ReceiveBuffer>([] {});
  const std::string piece_ = std::string(socket_read, 'x');
  std::int64_t position_ = 0;
};

void carry_a_chunk_from_buffer_to_disk(benchmark::State& state) {
  Pipeline pipeline;
  const auto size = static_cast<std::size_t>(state.range(0));
  for (auto _ : state)
    pipeline.pass_chunk(size);
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(carry_a_chunk_from_buffer_to_disk)
    ->ArgName("bytes")
    ->Arg(16 << 10)
    ->Arg(128 << 10)
    ->Arg(256 << 10)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

void save_the_record(benchmark::State& state) {
  Destination destination;
  for (auto _ : state)
    destination.processor->update_resume_file();
}
BENCHMARK(save_the_record)->UseRealTime()->MeasureProcessCPUTime();

} // namespace
} // namespace test

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 2;
  ravelin::Options values;
  values.idle_timeout = std::chrono::hours(24);
  ravelin::set_default_options(values);
  std::thread background([] {
    benchmark::RunSpecifiedBenchmarks();
    ravelin::MainQueue::stop();
  });
  ravelin::MainQueue::run();
  background.join();
  return 0;
}
