#pragma once

namespace ravelin::platform {

/// Whether any interface other than loopback is up and has an address.
bool any_network_is_up();

} // namespace ravelin::platform
