// The point sets every benchmark runs on, so that timings of different
// programs compare: n points on a sphere patch (centre (10, -20, 30),
// radius 50, the cap of half-angle 60 degrees around +z) with radial noise of
// 0.01, from a fixed seed. Plain triples of doubles, not the library's point
// type, so the baseline pass depends on nothing but the standard library.
#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace bench {

struct Point {
    double x, y, z;
};

constexpr Point kCentre = {10.0, -20.0, 30.0};
constexpr double kRadius = 50.0;

inline std::vector<Point> sphere_patch(int n, std::uint64_t seed = 20240611) {
    std::mt19937_64 engine(seed);
    const auto uniform = [&engine] { return static_cast<double>(engine() >> 11) * 0x1.0p-53; };
    const double pi = 3.14159265358979323846;
    std::vector<Point> points;
    points.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double cz = 0.5 + 0.5 * uniform();  // cos 60 deg .. 1, uniform in area
        const double phi = 2.0 * pi * uniform();
        const double sz = std::sqrt(1.0 - cz * cz);
        // Box-Muller with the fixed engine: radial noise, sigma 0.01.
        const double u1 = 1.0 - uniform(), u2 = uniform();
        const double r = kRadius + 0.01 * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * pi * u2);
        points.push_back({kCentre.x + r * sz * std::cos(phi), kCentre.y + r * sz * std::sin(phi),
                          kCentre.z + r * cz});
    }
    return points;
}

}  // namespace bench
