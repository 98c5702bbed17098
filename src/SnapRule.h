#pragma once

#include <cmath>
#include <optional>

namespace ravelin {

/// Whether a progress report falls on a snap point, and where the next one is due.
struct SnapRule {
  bool is_at_snap_point;
  float next;
};

/// `next` is the largest multiple of `interval` that does not exceed `value` plus a little more
/// than one interval: a value just short of a multiple moves past it. All in 32-bit floats, so
/// that every build reports at the same values.
inline SnapRule snap_rule(std::optional<float> value, float due, float interval) {
  if (!value || !(*value == 1.0F || due <= *value))
    return {false, due};
  const float x = *value + interval * 1.01F;
  return {true, x - std::fmod(x, interval)};
}

} // namespace ravelin
