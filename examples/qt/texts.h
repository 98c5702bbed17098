#pragma once

#include <ravelin/ravelin_operation.h>

#include <QString>
#include <cstdint>

/// "12.3 MiB".
QString describe_size(std::int64_t bytes);

/// "3.1 of 12.3 MiB", or what was received if the length is not known.
QString describe_bytes(const ravelin::Progress& progress);

/// "2.1 MiB/s, 1:05 left"; empty if nothing arrives.
QString describe_speed(const ravelin::RavelinOperation::Speed& speed);
