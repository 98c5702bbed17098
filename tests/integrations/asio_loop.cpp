#include <asio.hpp>
#include <ravelin/integrations/asio.h>

std::function<void()> make_loop() {
  const auto context = std::make_shared<asio::io_context>();
  using Adapter = ravelin::AsioAdapter<asio::posix::stream_descriptor>;
  return [context, adapter = std::make_shared<Adapter>(*context)] { context->run_one(); };
}
