// A server that downloads on request: asio_server DIRECTORY [PORT]
//
// It listens on the loopback interface and prints its port. A client sends one line, "LINK NAME",
// and gets a line for each tenth of the download and "done" or the reason of the failure. A client
// that leaves stops its download, and the same request continues it.

#include <ravelin/defaults.h>
#include <ravelin/integrations/asio.h>
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

/// One client and its download. Lives while something is under way for it.
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
    // Only the last piece: no client names a place outside the directory.
    const auto file = directory_ / std::filesystem::path(name).filename();
    operation_->resume(URL(link), URL::file(file), true, OnConflict::resume,
                       [self = shared_from_this()](const Status& s) { self->on_status(s); });
    watch_for_leaving();
  }

  void on_status(const Status& status) {
    if (const auto* now = status.get_if<Status::downloading>()) {
      if (now->progress.is_at_snap_point)
        say(std::to_string(static_cast<int>(100 * now->progress.prog_value.value_or(0))) + " %");
    } else if (status.holds<Status::success>()) {
      say_last("done");
    } else if (const auto* failed = status.get_if<Status::error>()) {
      say_last(failed->custom_error.text());
    }
  }

  void watch_for_leaving() {
    asio::async_read(socket_, input_, [self = shared_from_this()](std::error_code, std::size_t) {
      self->operation_->cancel(); // it does nothing to a download that has ended
    });
  }

  void say_last(const std::string& line) {
    last_ = true;
    say(line);
  }

  void say(const std::string& line) {
    waiting_ += line + '\n';
    if (writing_.empty())
      write();
  }

  void write() {
    writing_.swap(waiting_);
    asio::async_write(socket_, asio::buffer(writing_),
                      [self = shared_from_this()](std::error_code error, std::size_t) {
                        self->writing_.clear();
                        if (!error && !self->waiting_.empty())
                          self->write();
                        else if (self->last_)
                          self->socket_.close(error);
                      });
  }

  tcp::socket socket_;
  std::filesystem::path directory_;
  asio::streambuf input_{4096};
  std::string writing_;
  std::string waiting_;
  bool last_ = false;
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
  Defaults values;
  values.reject_http_errors = true; // or the page of a 404 is kept as the file
  set_defaults(values);
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
