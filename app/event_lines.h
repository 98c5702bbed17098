#pragma once

#include <ravelin/ravelin.hpp>

#include <string>

namespace ravelin::app {

/// What an event line contains besides the status.
struct EventContext {
  std::string link;
  std::string dest_file;
  bool is_final = true; // false for an error that is retried
  RavelinOperation::Speed speed = {};
};

/// An event as a line of JSON without the newline: its name, the link, the destination, and the
/// fields of its payload.
std::string event_line(const Status& status, const EventContext& context);

} // namespace ravelin::app
