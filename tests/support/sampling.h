// Seeded samples of known features with noise, and rigid motions, for the
// feature tests. Every generator takes its own seed so that a test's data do
// not depend on the order tests run in.
#pragma once

#include <cmath>
#include <cstdint>

#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/xform.h"
#include "tests/support/random.h"

namespace testsupport {

constexpr double kPi = Rng::kPi;

// A rigid motion: rotation by `degrees` about a random axis through the
// origin, then a shift of length `offset` in a random direction.
inline giXform3 random_motion(double degrees, double offset, std::uint64_t seed) {
    Rng rng(seed);
    giVector3 axis(rng.normal(), rng.normal(), rng.normal());
    giVector3 shift(rng.normal(), rng.normal(), rng.normal());
    shift = shift * (offset / shift.length());
    return giXform3::translation(shift) *
           giXform3::rotation(giPoint3(giOrigin), axis, giAngle(1, degrees));
}

inline giPoint3coDynArr transformed(const giXform3& t, const giPoint3coDynArr& pts) {
    giPoint3coDynArr out;
    out.reserve(pts.size());
    for (const giPoint3& p : pts) out.append(t * p);
    return out;
}

// n points on the sphere (centre c, radius r) in the cap of half-angle
// `cap_degrees` around +z (180: the whole sphere), uniform in area, moved
// radially by normal noise sigma.
inline giPoint3coDynArr sphere_points(int n, const giPoint3& c, double r, double cap_degrees,
                                      double sigma, std::uint64_t seed) {
    Rng rng(seed);
    giPoint3coDynArr pts;
    const double zmin = std::cos(cap_degrees * kPi / 180.0);
    for (int i = 0; i < n; ++i) {
        const double z = rng.uniform(zmin, 1.0), phi = rng.uniform(0.0, 2 * kPi);
        const double s = std::sqrt(std::max(0.0, 1.0 - z * z)), rr = r + rng.normal(sigma);
        pts.append(giPoint3(c.x() + rr * s * std::cos(phi), c.y() + rr * s * std::sin(phi),
                            c.z() + rr * z));
    }
    return pts;
}

// n points on the arc of `arc_degrees` (centred on +x) of the circle (c, r)
// in the plane, moved radially by normal noise sigma; evenly spaced angles.
inline giPoint2coDynArr circle_points2(int n, const giPoint2& c, double r, double arc_degrees,
                                       double sigma, std::uint64_t seed) {
    Rng rng(seed);
    giPoint2coDynArr pts;
    const double arc = arc_degrees * kPi / 180.0;
    for (int i = 0; i < n; ++i) {
        const double t =
            arc_degrees >= 360.0 ? 2 * kPi * i / n : -0.5 * arc + arc * i / std::max(1, n - 1);
        const double rr = r + rng.normal(sigma);
        pts.append(giPoint2(c.x() + rr * std::cos(t), c.y() + rr * std::sin(t)));
    }
    return pts;
}

// The same arc in the plane z = 0 of space, each point also moved along z by
// normal noise sigma.
inline giPoint3coDynArr circle_points3(int n, double r, double arc_degrees, double sigma,
                                       std::uint64_t seed) {
    const giPoint2coDynArr flat = circle_points2(n, giPoint2(0, 0), r, arc_degrees, sigma, seed);
    Rng rng(seed + 1);
    giPoint3coDynArr pts;
    for (const giPoint2& p : flat) pts.append(giPoint3(p.x(), p.y(), rng.normal(sigma)));
    return pts;
}

// n points uniform on the rectangle [0, a] x [0, b] of the plane z = 0 with
// normal noise sigma along z.
inline giPoint3coDynArr plane_points(int n, double a, double b, double sigma, std::uint64_t seed) {
    Rng rng(seed);
    giPoint3coDynArr pts;
    for (int i = 0; i < n; ++i)
        pts.append(giPoint3(rng.uniform(0, a), rng.uniform(0, b), rng.normal(sigma)));
    return pts;
}

// n points along the x axis from 0 to length with normal noise sigma across
// it (y and z).
inline giPoint3coDynArr line_points3(int n, double length, double sigma, std::uint64_t seed) {
    Rng rng(seed);
    giPoint3coDynArr pts;
    for (int i = 0; i < n; ++i)
        pts.append(giPoint3(length * i / std::max(1, n - 1), rng.normal(sigma), rng.normal(sigma)));
    return pts;
}

// n points on the cylinder of radius r around the z axis, heights uniform in
// [0, length], angles uniform in the sector of `sector_degrees` centred on +x
// (360: the whole surface), moved radially by normal noise sigma. When
// normals is given it receives the outward unit normal of each point.
inline giPoint3coDynArr cylinder_points(int n, double r, double length, double sector_degrees,
                                        double sigma, std::uint64_t seed,
                                        giUnitVec3coDynArr* normals = nullptr) {
    Rng rng(seed);
    giPoint3coDynArr pts;
    const double half = 0.5 * sector_degrees * kPi / 180.0;
    for (int i = 0; i < n; ++i) {
        const double phi = rng.uniform(-half, half), z = rng.uniform(0.0, length);
        const double rho = r + rng.normal(sigma);
        pts.append(giPoint3(rho * std::cos(phi), rho * std::sin(phi), z));
        if (normals) normals->append(giUnitVec3(std::cos(phi), std::sin(phi), 0.0));
    }
    return pts;
}

// n points on the cone with its apex at the origin, opening along -z (so the
// axis pointing towards the apex is +z) with half angle `half_degrees`: slant
// distances from the apex uniform in [s0, s1], angles uniform in the sector
// of `sector_degrees` centred on +x, moved along the outward normal by normal
// noise sigma. When normals is given it receives those outward normals.
inline giPoint3coDynArr cone_points(int n, double half_degrees, double s0, double s1,
                                    double sector_degrees, double sigma, std::uint64_t seed,
                                    giUnitVec3coDynArr* normals = nullptr) {
    Rng rng(seed);
    giPoint3coDynArr pts;
    const double a = half_degrees * kPi / 180.0, sa = std::sin(a), ca = std::cos(a);
    const double half = 0.5 * sector_degrees * kPi / 180.0;
    for (int i = 0; i < n; ++i) {
        const double phi = rng.uniform(-half, half), s = rng.uniform(s0, s1);
        const double e = rng.normal(sigma), c = std::cos(phi), sn = std::sin(phi);
        pts.append(giPoint3(s * sa * c + e * ca * c, s * sa * sn + e * ca * sn, -s * ca + e * sa));
        if (normals) normals->append(giUnitVec3(ca * c, ca * sn, sa));
    }
    return pts;
}

}  // namespace testsupport
