#pragma once

#include <cmath>
#include <optional>

namespace ravelin {

/// Whether a progress report is at a snap point, and the value of the next one.
struct SnapRule {
  bool is_at_snap_point;
  float next;
};

/// `next` is the largest multiple of `interval` that does not exceed `value` plus a little more
/// than one interval, so a value just below a multiple skips it. Uses 32-bit floats only, so that
/// all builds report at the same values.
inline SnapRule snap_rule(std::optional<float> value, float due, float interval) {
  if (!value || !(*value == 1.0F || due <= *value))
    return {false, due};
  const float x = *value + interval * 1.01F;
  return {true, x - std::fmod(x, interval)};
}

} // namespace ravelin
