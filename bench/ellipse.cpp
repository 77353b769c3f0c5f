// Ellipse fits: the least-squares entry points and the direct fits, on n
// points of a whole ellipse (semi-axes 50 and 30, the major axis at 30
// degrees, centred as the shared sphere patch) moved along the normal by
// noise of 0.01, from a fixed seed. The planar sets lie in z = 0; the spatial
// ones in a plane tilted by 30 degrees about x and y, the noise also along
// the plane's normal. Compare each time with BM_one_pass at the same n.
#include "metrofit/features/ellipse.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>

#include "bench_points.h"
#include "metrofit/features/direct_ellipse.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kNoise = 0.01;
constexpr double kMajor = bench::kRadius, kMinor = 30.0, kAngle = kPi / 6.0;

class Noise {
   public:
    explicit Noise(std::uint64_t seed) : engine_(seed) {}
    double uniform() { return static_cast<double>(engine_() >> 11) * 0x1.0p-53; }
    // Box-Muller, sigma kNoise.
    double normal() {
        const double u1 = 1.0 - uniform(), u2 = uniform();
        return kNoise * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * kPi * u2);
    }

   private:
    std::mt19937_64 engine_;
};

// The ellipse's own coordinates of n noisy points; h receives noise for a
// height when given.
giPoint2coDynArr ellipse_frame_points(int n, std::uint64_t seed, doublecoDynArr* h = nullptr) {
    Noise noise(seed);
    giPoint2coDynArr points;
    points.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double t = 2.0 * kPi * noise.uniform(), e = noise.normal();
        const double nx = kMinor * std::cos(t), ny = kMajor * std::sin(t), len = std::hypot(nx, ny);
        points.append(
            giPoint2(kMajor * std::cos(t) + e * nx / len, kMinor * std::sin(t) + e * ny / len));
        if (h) h->append(noise.normal());
    }
    return points;
}

giPoint2coDynArr ellipse2(int n) {
    const double c = std::cos(kAngle), s = std::sin(kAngle);
    giPoint2coDynArr points;
    for (const giPoint2& p : ellipse_frame_points(n, 20240614))
        points.append(giPoint2(bench::kCentre.x + c * p.x() - s * p.y(),
                               bench::kCentre.y + s * p.x() + c * p.y()));
    return points;
}

// The tilted plane: in-plane axes u, v and normal n, z turned about x and
// then about y by 30 degrees.
struct Tilted {
    giUnitVec3 u, v, n;
};
Tilted tilted() {
    const double a = kPi / 6.0, c = std::cos(a), s = std::sin(a);
    const giUnitVec3 u(c, 0.0, -s);
    const giUnitVec3 v(s * s, c, s * c);
    return {u, v, giUnitVec3(cross(u, v))};
}

giPoint3coDynArr ellipse3(int n) {
    const Tilted f = tilted();
    const giPoint3 c(bench::kCentre.x, bench::kCentre.y, bench::kCentre.z);
    doublecoDynArr h;
    const giPoint2coDynArr flat = ellipse_frame_points(n, 20240615, &h);
    giPoint3coDynArr points;
    points.reserve(n);
    for (int i = 0; i < n; ++i)
        points.append(c + flat[i].x() * f.u + flat[i].y() * f.v + h[i] * f.n);
    return points;
}

void BM_evaluate_ellipse(benchmark::State& state) {
    const giPoint2coDynArr points = ellipse2(static_cast<int>(state.range(0)));
    giPoint2 centre;
    double a = 0.0, b = 0.0, angle = 0.0, error = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            tsLeastSquareEvaluator::evaluate_ellipse(points, centre, a, b, angle, error));
    }
}

void BM_evaluate_ellipse2(benchmark::State& state) {
    const giPoint3coDynArr points = ellipse3(static_cast<int>(state.range(0)));
    const Tilted f = tilted();
    const giPoint3 plane_point(bench::kCentre.x, bench::kCentre.y, bench::kCentre.z);
    giPoint3 centre;
    giUnitVec3 major_axis;
    double a = 0.0, b = 0.0, error = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tsLeastSquareEvaluator::evaluate_ellipse2(
            plane_point, f.u, f.v, points, centre, major_axis, a, b, error));
    }
}

void BM_tsDirectEllipse2(benchmark::State& state) {
    const giPoint2coDynArr points = ellipse2(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        const tsDirectEllipse2 fit(points);
        benchmark::DoNotOptimize(fit.semi_major());
    }
}

void BM_tsDirectEllipse3(benchmark::State& state) {
    const giPoint3coDynArr points = ellipse3(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        const tsDirectEllipse3 fit(points);
        benchmark::DoNotOptimize(fit.semi_major());
    }
}

}  // namespace

BENCHMARK(BM_evaluate_ellipse)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_ellipse2)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_tsDirectEllipse2)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_tsDirectEllipse3)->Arg(100)->Arg(1000)->Arg(10000);
