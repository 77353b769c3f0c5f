#include "metrofit/platform/surface/unit_vector_differentiator.h"

#include <cmath>

void srkUnitVectorDifferentiator3::set_unusual(const giVector3& w) {
    // The zero vector, and a w with an infinite or NaN coordinate, keep the
    // zero state; so does a vector too short for 1 / |w| to be finite.
    // An unset vector (-DBL_MAX) is finite but no direction either.
    if (!w.is_set() || !w.is_finite()) return;
    const double length = w.length();  // scaled: neither overflows nor underflows
    if (!(length > 0.0) || !std::isfinite(1.0 / length)) return;
    length_ = length;
    inv_length_ = 1.0 / length;
    // Rare cases: divide, which rounds once.
    unit_.become(w.x() / length, w.y() / length, w.z() / length);
}
