// A server that downloads on request: asio_server DIRECTORY [PORT]
//
// It listens on the loopback interface and prints its port. A client sends one line, "LINK NAME",
// and receives a line for each tenth of the download and then "done" or the error. If the client
// disconnects, its download is stopped; the same request resumes it.

#include <ravelin/integrations/asio.h>
#include <ravelin/options.h>
#include <ravelin/ravelin_operation.h>

#include <asio.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <istream>
#include <string>

using asio::ip::tcp;
using namespace ravelin;

namespace {

/// One client and its download. Kept alive by its callbacks.
class Session : public std::enable_shared_from_this<Session> {
public:
  Session(tcp::socket socket, std::filesystem::path directory)
      : socket_(std::move(socket)), directory_(std::move(directory)) {}

  void read_request() {
    asio::async_read_until(socket_, input_, '\n',
                           [self = shared_from_this()](std::error_code error, std::size_t) {
                             if (!error)
                               self->start();
                           });
  }

private:
  void start() {
    std::string link;
    std::string name;
    std::istream(&input_) >> link >> name;
    // The last component only: a client must not write outside the directory.
    const auto file = directory_ / std::filesystem::path(name).filename();
    operation_->resume(URL(link), URL::file(file), true, OnConflict::resume,
                       [self = shared_from_this()](const Status& s) { self->on_status(s); });
    watch_for_disconnect();
  }

  void on_status(const Status& status) {
    if (const auto* now = status.get_if<Status::downloading>()) {
      if (now->progress.is_at_snap_point)
        send(std::to_string(static_cast<int>(100 * now->progress.prog_value.value_or(0))) + " %");
    } else if (status.holds<Status::success>()) {
      send_last("done");
    } else if (const auto* failed = status.get_if<Status::error>()) {
      send_last(failed->custom_error.text());
    }
  }

  void watch_for_disconnect() {
    asio::async_read(socket_, input_, [self = shared_from_this()](std::error_code, std::size_t) {
      self->operation_->cancel(); // harmless if the download has ended
    });
  }

  void send_last(const std::string& line) {
    is_last_queued_ = true;
    send(line);
  }

  void send(const std::string& line) {
    queued_ += line + '\n';
    if (sending_.empty())
      send_queued();
  }

  void send_queued() {
    sending_.swap(queued_);
    asio::async_write(socket_, asio::buffer(sending_),
                      [self = shared_from_this()](std::error_code error, std::size_t) {
                        self->sending_.clear();
                        if (!error && !self->queued_.empty())
                          self->send_queued();
                        else if (self->is_last_queued_)
                          self->socket_.close(error);
                      });
  }

  tcp::socket socket_;
  std::filesystem::path directory_;
  asio::streambuf input_{4096};
  std::string sending_;
  std::string queued_;
  bool is_last_queued_ = false;
  std::shared_ptr<RavelinOperation> operation_ = std::make_shared<RavelinOperation>();
};

void accept(tcp::acceptor& acceptor, const std::filesystem::path& directory) {
  acceptor.async_accept([&acceptor, directory](std::error_code error, tcp::socket socket) {
    if (!error)
      std::make_shared<Session>(std::move(socket), directory)->read_request();
    accept(acceptor, directory);
  });
}

} // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: asio_server DIRECTORY [PORT]\n");
    return 2;
  }
  Options options;
  options.reject_http_errors = true; // otherwise the page of a 404 would be saved as the file
  set_default_options(options);
  asio::io_context loop(1);
  const AsioAdapter<asio::posix::stream_descriptor> adapter(loop);
  const auto port = static_cast<unsigned short>(argc > 2 ? std::atoi(argv[2]) : 0);
  tcp::acceptor acceptor(loop, {asio::ip::address_v4::loopback(), port});
  accept(acceptor, argv[1]);
  asio::signal_set signals(loop, SIGINT, SIGTERM);
  signals.async_wait([&](std::error_code, int) { loop.stop(); });
  std::printf("%d\n", acceptor.local_endpoint().port());
  std::fflush(stdout);
  loop.run();
}
