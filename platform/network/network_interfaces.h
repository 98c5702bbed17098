#pragma once

namespace ravelin::platform {

/// Whether any interface but loopback is up with an address.
bool any_network_is_up();

} // namespace ravelin::platform
