// Cone start values on n points of the whole surface of a cone (half angle
// 20 degrees, slant distances 40 to 140 from the apex, axis through the
// shared centre tilted by 30 degrees) with normal noise of 0.01 along the
// surface normal, from a fixed seed. Compare each time with BM_one_pass at the
// same n.
//
// - BM_get_guess_fixed_axis_fit: one call of the fixed-axis strategy (200
//   random axes, each with a two-parameter solver run), no reference cone. The
//   generator is made once, so successive iterations draw other axes, as the
//   six calls of one sweep of the cone fit do.
#include "metrofit/features/cone_guess.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>

#include "bench_points.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kNoise = 0.01;
constexpr double kHalfAngle = 20.0 * kPi / 180.0;

giPoint3coDynArr cone(int n) {
    std::mt19937_64 engine(20240615);
    const auto uniform = [&engine] { return static_cast<double>(engine() >> 11) * 0x1.0p-53; };
    const double tilt = kPi / 6.0;
    const giUnitVec3 w(std::sin(tilt), 0.0, std::cos(tilt));  // towards the apex
    const giUnitVec3 u = w.any_normal();
    const giUnitVec3 v(cross(w, u));
    const giPoint3 apex(bench::kCentre.x, bench::kCentre.y, bench::kCentre.z);
    const double sa = std::sin(kHalfAngle), ca = std::cos(kHalfAngle);
    giPoint3coDynArr points;
    points.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double t = 2.0 * kPi * uniform(), s = 40.0 + 100.0 * uniform();
        const double u1 = 1.0 - uniform(), u2 = uniform();
        const double e = kNoise * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * kPi * u2);
        const giVector3 radial = std::cos(t) * u + std::sin(t) * v;
        // On the nappe s along the generatrix, then e along the outward normal.
        points.append(apex + (s * sa + e * ca) * radial + (e * sa - s * ca) * w);
    }
    return points;
}

const giUnitVec3coDynArr kNoNormals;

void BM_get_guess_fixed_axis_fit(benchmark::State& state) {
    const giPoint3coDynArr points = cone(static_cast<int>(state.range(0)));
    tsConeGuessGenerator generator(points, giVector3(), giAngle(1, 180.0), kNoNormals);
    mlVector guess;
    for (auto _ : state) benchmark::DoNotOptimize(generator.get_guess_fixed_axis_fit(guess));
}

}  // namespace

BENCHMARK(BM_get_guess_fixed_axis_fit)->Arg(100)->Arg(1000)->Arg(10000);
