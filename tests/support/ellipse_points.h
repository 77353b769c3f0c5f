// Seeded samples of a known ellipse in the plane for the ellipse tests.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"
#include "tests/support/random.h"

namespace testsupport {

// n points of the ellipse with centre c, semi-axes a (along `angle`, radians
// from x) and b, at evenly spaced parameters t over the arc of `arc_degrees`
// centred on t = 0 (360: the whole ellipse), each moved along the ellipse's
// unit normal by normal noise sigma. `params` receives the t of each point.
inline giPoint2coDynArr ellipse_points(int n, const giPoint2& c, double a, double b, double angle,
                                       double arc_degrees, double sigma, std::uint64_t seed,
                                       doublecoDynArr* params = nullptr) {
    Rng rng(seed);
    giPoint2coDynArr pts;
    const double arc = arc_degrees * Rng::kPi / 180.0, ca = std::cos(angle), sa = std::sin(angle);
    for (int i = 0; i < n; ++i) {
        const double t =
            arc_degrees >= 360.0 ? 2 * Rng::kPi * i / n : -0.5 * arc + arc * i / std::max(1, n - 1);
        const double nx = b * std::cos(t), ny = a * std::sin(t), len = std::hypot(nx, ny);
        const double e = rng.normal(sigma);
        const double x = a * std::cos(t) + e * nx / len, y = b * std::sin(t) + e * ny / len;
        pts.append(giPoint2(c.x() + ca * x - sa * y, c.y() + sa * x + ca * y));
        if (params) params->append(t);
    }
    return pts;
}

// Difference of two axis angles, ignoring the axes' sense: in [0, pi / 2].
inline double axis_angle_gap(double t1, double t2) {
    return std::fabs(std::remainder(t1 - t2, Rng::kPi));
}

}  // namespace testsupport
