// Levenberg-Marquardt on the sphere model from a start 20% off (centre moved
// by 0.2 r on each axis, radius 1.2 r). Reports the iterations (normal-equation
// builds) per fit; the time per iteration divided by one_pass at the same n is
// the cost ratio kept in RESULTS.md.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "bench_points.h"
#include "metrofit/platform/maths/least_squares.h"

namespace {

// p = (cx, cy, cz, r), d = |Q - C| - r, gradient (-(Q - C) / |Q - C|, -1).
class SphereModel : public mlDistanceLeastSquares {
   public:
    explicit SphereModel(const std::vector<bench::Point>& points)
        : mlDistanceLeastSquares(4, static_cast<int>(points.size())), points_(points) {}
    void set_parameters(const mlVector& v) override {
        mlDistanceLeastSquares::set_parameters(v);
        c_ = {v[0], v[1], v[2]};
        r_ = v[3];
    }
    void get_distance(double& d, int i) const override {
        const bench::Point& q = points_[i];
        const double dx = q.x - c_.x, dy = q.y - c_.y, dz = q.z - c_.z;
        d = std::sqrt(dx * dx + dy * dy + dz * dz) - r_;
    }
    void get_distance_and_gradient(double& d, mlVector& g, int i) const override {
        const bench::Point& q = points_[i];
        const double dx = q.x - c_.x, dy = q.y - c_.y, dz = q.z - c_.z;
        const double l = std::sqrt(dx * dx + dy * dy + dz * dz);
        d = l - r_;
        const double inv = l > 1e-7 ? 1.0 / l : 0.0;
        g[0] = -dx * inv;
        g[1] = -dy * inv;
        g[2] = -dz * inv;
        g[3] = -1.0;
    }

   private:
    const std::vector<bench::Point>& points_;
    bench::Point c_{0, 0, 0};
    double r_ = 0.0;
};

void BM_levenberg_marquardt(benchmark::State& state) {
    const auto points = bench::sphere_patch(static_cast<int>(state.range(0)));
    SphereModel model(points);
    const double off = 0.2 * bench::kRadius;
    const mlVector start = {bench::kCentre.x + off, bench::kCentre.y + off, bench::kCentre.z + off,
                            1.2 * bench::kRadius};
    mlVector result;
    int iterations = 0;
    for (auto _ : state) {
        mlLevenbergMarquardt solver(model);
        benchmark::DoNotOptimize(solver.fit(start, result));
        iterations = solver.iterations();
    }
    state.counters["iterations"] = iterations;
    state.counters["per_iteration"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * iterations,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

}  // namespace

BENCHMARK(BM_levenberg_marquardt)->Arg(100)->Arg(1000)->Arg(10000);
