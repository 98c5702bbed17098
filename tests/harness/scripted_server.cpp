#include "tests/harness/scripted_server.h"

#include "tests/harness/compose.h"
#include "tests/harness/loopback_socket.h"

#include <asio.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace test {
namespace {

using Tcp = asio::ip::tcp;
using asio::awaitable;
using asio::use_awaitable;
using namespace std::chrono_literals;

// Clients leave in the middle of everything; only other errors are worth a noise.
void ignore_broken_connection(const std::exception_ptr& failure) {
  try {
    if (failure) {
      std::rethrow_exception(failure);
    }
  } catch (const asio::system_error&) {
  }
}

// Not a broken connection, whatever a script throws: this ends the program with a message.
Reply call(const Script& script, const Request& request) noexcept {
  return script(request);
}

void rethrow(const std::exception_ptr& failure) {
  if (failure) {
    std::rethrow_exception(failure);
  }
}

awaitable<void> pause(Tcp::socket& socket, std::chrono::milliseconds time) {
  if (time > 0ms) {
    asio::steady_timer timer(socket.get_executor(), time);
    co_await timer.async_wait(use_awaitable);
  }
}

awaitable<void> send(Tcp::socket& socket, std::string_view text) {
  co_await asio::async_write(socket, asio::buffer(text), use_awaitable);
}

// Reading is how a departed client is noticed: it throws.
awaitable<void> stay_silent(Tcp::socket& socket) {
  std::array<char, 256> unwanted;
  for (;;) {
    co_await socket.async_read_some(asio::buffer(unwanted), use_awaitable);
  }
}

// A reset throws away what the peer's system has not acknowledged yet, hence the wait.
awaitable<void> reset(Tcp::socket& socket) {
  int unsent = 0;
  while (ioctl(socket.native_handle(), SIOCOUTQ, &unsent) == 0 && unsent > 0) {
    co_await pause(socket, 1ms);
  }
  socket.set_option(asio::socket_base::linger(true, 0));
  socket.close();
}

} // namespace

struct ScriptedServer::Impl {
  explicit Impl(Script s) : script(std::move(s)) {
    asio::co_spawn(io, listen(), rethrow);
    // One thread for a script that takes its time and one for everything else.
    for (auto& thread : threads) {
      thread = std::thread([this] { io.run(); });
    }
  }

  // Connections that wait for something go down with the io_context.
  ~Impl() {
    io.stop();
    for (auto& thread : threads) {
      thread.join();
    }
  }

  awaitable<void> listen();
  awaitable<void> serve(Tcp::socket socket);
  awaitable<Reply> ask(Request& request);
  awaitable<bool> answer(Tcp::socket& socket, const Reply& reply, const Request& request);
  awaitable<void> send_body(Tcp::socket& socket, const Reply& reply, const Answer& answer);
  awaitable<void> send_counted(Tcp::socket& socket, std::string_view part);

  asio::io_context io;
  asio::strand<asio::io_context::executor_type> script_strand{io.get_executor()};
  LoopbackSocket listener{LoopbackSocket::Use::listen};
  const unsigned short port = listener.port();
  Tcp::acceptor acceptor{io, Tcp::v4(), listener.release()};
  Script script;
  mutable std::mutex mutex;
  std::condition_variable arrived;
  std::vector<Request> requests; // guarded by mutex
  std::atomic<std::int64_t> sent{0};
  std::array<std::thread, 2> threads;
};

awaitable<void> ScriptedServer::Impl::listen() {
  for (;;) {
    co_await acceptor.async_wait(Tcp::acceptor::wait_read, use_awaitable);
    // Not Asio's accept: programs started by a test would inherit the connection, and keep it open.
    const int number = accept4(acceptor.native_handle(), nullptr, nullptr, SOCK_CLOEXEC);
    if (number >= 0) {
      const asio::any_io_executor executor = asio::make_strand(io);
      asio::co_spawn(executor, serve(Tcp::socket(executor, Tcp::v4(), number)),
                     ignore_broken_connection);
    } else if (errno != EAGAIN && errno != ECONNABORTED && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "accept");
    }
  }
}

awaitable<void> ScriptedServer::Impl::serve(Tcp::socket socket) {
  socket.set_option(Tcp::no_delay(true));
  std::string input;
  for (bool more = true; more;) {
    const std::size_t size = co_await asio::async_read_until(socket, asio::dynamic_buffer(input),
                                                             "\r\n\r\n", use_awaitable);
    Request request = parse_request(std::string_view(input).substr(0, size));
    input.erase(0, size);
    const Reply reply = co_await ask(request);
    more = co_await answer(socket, reply, request);
  }
}

awaitable<Reply> ScriptedServer::Impl::ask(Request& request) {
  {
    const std::lock_guard lock(mutex);
    request.index = static_cast<int>(requests.size());
    requests.push_back(request);
  }
  arrived.notify_all();
  // A strand rather than a lock: a script that blocks then holds up no other thread.
  co_await asio::post(asio::bind_executor(script_strand, use_awaitable));
  Reply reply = call(script, request);
  co_await asio::post(use_awaitable);
  co_return reply;
}

// Tells whether the connection may carry another request.
awaitable<bool> ScriptedServer::Impl::answer(Tcp::socket& socket, const Reply& reply,
                                             const Request& request) {
  co_await pause(socket, reply.header_delay);
  if (reply.close_at_once) {
    co_return false;
  }
  if (reply.raw) {
    co_await send(socket, *reply.raw);
    co_return false;
  }
  const Answer answer = compose(reply, request);
  co_await send(socket, answer.head);
  co_await send_body(socket, reply, answer);
  if (answer.end == End::stall) {
    co_await stay_silent(socket);
  } else if (answer.end == End::reset) {
    co_await reset(socket);
  }
  const bool whole = answer.end == End::complete;
  co_return whole&& answer.keep_open;
}

awaitable<void> ScriptedServer::Impl::send_body(Tcp::socket& socket, const Reply& reply,
                                                const Answer& answer) {
  const std::size_t piece = std::max<std::size_t>(reply.piece, 1);
  for (std::size_t at = 0; at < answer.body.size(); at += piece) {
    co_await pause(socket, at == 0 ? 0ms : reply.piece_delay);
    const std::string_view part = answer.body.substr(at, piece);
    if (reply.chunked) {
      std::array<char, 20> size;
      const int used = std::snprintf(size.data(), size.size(), "%zx\r\n", part.size());
      co_await send(socket, {size.data(), static_cast<std::size_t>(used)});
    }
    co_await send_counted(socket, part);
    if (reply.chunked) {
      co_await send(socket, "\r\n");
    }
  }
  if (reply.chunked && answer.end == End::complete) {
    co_await send(socket, "0\r\n\r\n");
  }
}

// Counts beforehand, so that nobody can have received a byte that is not yet counted.
awaitable<void> ScriptedServer::Impl::send_counted(Tcp::socket& socket, std::string_view part) {
  sent += static_cast<std::int64_t>(part.size());
  asio::error_code failure;
  const std::size_t done = co_await asio::async_write(socket, asio::buffer(part),
                                                      asio::redirect_error(use_awaitable, failure));
  sent -= static_cast<std::int64_t>(part.size() - done);
  if (failure) {
    throw asio::system_error(failure);
  }
}

ScriptedServer::ScriptedServer(Script script) : impl_(std::make_unique<Impl>(std::move(script))) {}

ScriptedServer::ScriptedServer(Reply reply)
    : ScriptedServer(Script([reply = std::move(reply)](const Request&) { return reply; })) {}

ScriptedServer::~ScriptedServer() = default;

unsigned short ScriptedServer::port() const {
  return impl_->port;
}

std::string ScriptedServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(port()) + std::string(path);
}

std::vector<Request> ScriptedServer::requests() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->requests;
}

void ScriptedServer::wait_for_requests(std::size_t n) const {
  std::unique_lock lock(impl_->mutex);
  if (!impl_->arrived.wait_for(lock, 10s, [&] { return impl_->requests.size() >= n; })) {
    throw std::runtime_error("only " + std::to_string(impl_->requests.size()) + " of " +
                             std::to_string(n) + " requests arrived");
  }
}

std::int64_t ScriptedServer::bytes_sent() const {
  return impl_->sent;
}

} // namespace test
