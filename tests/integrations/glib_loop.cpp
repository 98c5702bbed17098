#include <memory>
#include <ravelin/integrations/glib.h>

std::function<void()> make_loop() {
  return [adapter = std::make_shared<ravelin::GlibAdapter>()] {
    g_main_context_iteration(nullptr, TRUE);
  };
}
