#pragma once

#include "ravelin/status.h"

#include <string>

namespace ravelin::app {

/// One event as one line of JSON, without the line end: its name, the link, the destination, and
/// the fields of its payload under their own names. An error tells whether it is the last word on
/// the link, or another attempt follows.
std::string event_line(const Status& status, const std::string& link, const std::string& dest_file,
                       bool is_final = true);

} // namespace ravelin::app
