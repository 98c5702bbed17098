#pragma once

#include <ravelin/ravelin_operation.h>

#include <QString>
#include <cstdint>

/// "12.3 MiB".
QString describe_size(std::int64_t bytes);

/// "2.1 MiB/s, 1:05 left"; empty if nothing arrives.
QString describe_speed(const ravelin::RavelinOperation::Speed& speed);
