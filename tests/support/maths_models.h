// Seeded sphere data and a sphere model for the least-squares driver's tests.
// The model mirrors the library's sphere fit: p = (cx, cy, cz, r),
// d = |Q - C| - r (positive outside), gradient (-(Q - C) / |Q - C|, -1), and
// (0, 0, 0, -1) for a point at the centre.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "metrofit/platform/maths/least_squares.h"
#include "tests/support/random.h"

namespace testsupport {

struct Xyz {
    double x, y, z;
};

// n points uniform in area on the cap of half-angle cap (radians; pi for the
// whole sphere) around +z, each moved radially by normal noise sigma.
inline std::vector<Xyz> sphere_cap_points(int n, const Xyz& c, double radius, double cap,
                                          double sigma, std::uint64_t seed = 7) {
    Rng rng(seed);
    std::vector<Xyz> points;
    for (int i = 0; i < n; ++i) {
        const double cz = rng.uniform(std::cos(cap), 1.0), phi = rng.uniform(0.0, 2 * Rng::kPi);
        const double sz = std::sqrt(std::max(0.0, 1.0 - cz * cz)), r = radius + rng.normal(sigma);
        points.push_back(
            {c.x + r * sz * std::cos(phi), c.y + r * sz * std::sin(phi), c.z + r * cz});
    }
    return points;
}

class SphereModel : public mlDistanceLeastSquares {
   public:
    explicit SphereModel(const std::vector<Xyz>& points)
        : mlDistanceLeastSquares(4, static_cast<int>(points.size())), points_(points) {}
    void get_distance(double& d, int i) const override {
        double v[3];
        d = length(i, v) - parameters()[3];
    }
    void get_distance_and_gradient(double& d, mlVector& gradient, int i) const override {
        double v[3];
        const double l = length(i, v);
        d = l - parameters()[3];
        for (int k = 0; k < 3; ++k) gradient[k] = l > 1e-7 ? -v[k] / l : 0.0;
        gradient[3] = -1.0;
    }

   protected:
    // Fills v = Q - C and returns |Q - C|.
    double length(int i, double* v) const {
        const mlVector& p = parameters();
        v[0] = points_[i].x - p[0];
        v[1] = points_[i].y - p[1];
        v[2] = points_[i].z - p[2];
        return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    }
    const std::vector<Xyz>& points_;
};

}  // namespace testsupport
