#include "metrofit/features/sphere.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/frame/input_checks.h"
#include "metrofit/platform/geometry/box.h"
#include "metrofit/platform/maths/least_squares.h"
#include "metrofit/platform/maths/random.h"

namespace {

constexpr double kPivotFloor = 1e-20;     // smaller pivots leave their column alone
constexpr double kStartRadiusFactor = 3;  // R0 = 3 range()
constexpr int kAttempts = 20;
constexpr int kCandidates = 100;
constexpr int kCandidatesPerSpread = 30;  // spreads R0, 2 R0, 3 R0, 4 R0
constexpr double kEarlyStop = 0.001;      // attempt 0 suffices below 0.001 R0

// Sum of squared distances at p, which becomes the model's current vector.
double sum_of_squares(tsLeastSquareSphere& model, const mlVector& p) {
    model.set_parameters(p);
    double sum = 0.0;
    for (int i = 0; i < model.n_points(); ++i) {
        double d = 0.0;
        model.get_distance(d, i);
        sum += d * d;
    }
    return sum;
}

// The centroid and the diagonal of the points' bounding box in one pass; the
// same values as the model's centroid() and range() (the same sums in the
// same order, the same box). False when a sum is not finite: a coordinate is
// not finite, or the sum overflows.
bool centroid_and_range(const giPoint3coDynArr& points, giPoint3& centroid, double& range) {
    double sx = 0, sy = 0, sz = 0;
    giBox3 box;
    for (const giPoint3& p : points) {
        sx += p.x();
        sy += p.y();
        sz += p.z();
        box.merge(p);
    }
    if (!std::isfinite(sx) || !std::isfinite(sy) || !std::isfinite(sz)) return false;
    const double k = 1.0 / points.size();
    centroid = giPoint3(sx * k, sy * k, sz * k);
    range = box.diagonal();
    return true;
}

// The random multi-start of both sphere fits, from the centroid c and
// R0 = 3 range(). The generator's draws run on across attempts, so every call
// on the same points repeats the same candidates. Returns 0 when no solver
// run gave a finite value.
int multi_start_sphere(tsLeastSquareSphere& model, const giPoint3& c, double range,
                       giPoint3& centre, double& radius, double& error) {
    const double r0 = kStartRadiusFactor * range;
    double best = DBL_MAX;
    mlVector kept, start, result, candidate(mlVectorZero, 4);
    mlRandom random(1);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (attempt == 0) {
            start = mlVector{c.x(), c.y(), c.z(), r0};
        } else {
            double best_score = DBL_MAX;
            for (int j = 0; j < kCandidates; ++j) {
                const double s = (j / kCandidatesPerSpread + 1) * r0;
                const double x = random.uniform(c.x() - s, c.x() + s);
                const double y = random.uniform(c.y() - s, c.y() + s);
                const double z = random.uniform(c.z() - s, c.z() + s);
                const double r = random.uniform(0.0, s);
                candidate[0] = x;
                candidate[1] = y;
                candidate[2] = z;
                candidate[3] = r;
                model.normalize_parameters(candidate);
                const double score = sum_of_squares(model, candidate);
                if (score < best_score) {
                    best_score = score;
                    start = candidate;
                }
            }
        }
        result.become(mlVectorZero, 4);
        mlLevenbergMarquardt solver(model);
        const double value = solver.fit(start, result);
        if (value < best) {
            best = value;
            kept = result;
        }
        if (attempt == 0 && kEarlyStop * r0 > best) break;
    }
    if (kept.size() != 4) return 0;
    centre = giPoint3(kept[0], kept[1], kept[2]);
    radius = kept[3];
    error = std::sqrt(best);
    return 1;
}

}  // namespace

tsSphereFit::tsSphereFit(const giPoint3coDynArr& points) : points_(points) {
    const int n = points.size();
    if (n < 4) return;  // status 1
    if (!ts_all_finite(points)) {
        status_ = 2;
        return;
    }
    double sx = 0, sy = 0, sz = 0, sxx = 0, syy = 0, szz = 0, sxy = 0, sxz = 0, syz = 0;
    double ss = 0, ssx = 0, ssy = 0, ssz = 0;
    for (const giPoint3& p : points) {
        const double x = p.x(), y = p.y(), z = p.z();
        const double s = x * x + y * y + z * z;
        sx += x;
        sy += y;
        sz += z;
        sxx += x * x;
        syy += y * y;
        szz += z * z;
        sxy += x * y;
        sxz += x * z;
        syz += y * z;
        ss += s;
        ssx += s * x;
        ssy += s * y;
        ssz += s * z;
    }
    double m[4][5] = {{sxx, sxy, sxz, sx, -ssx},
                      {sxy, syy, syz, sy, -ssy},
                      {sxz, syz, szz, sz, -ssz},
                      {sx, sy, sz, static_cast<double>(n), -ss}};
    matrix_rowred(&m[0][0], 4, 5);
    const double cx = -0.5 * m[0][4], cy = -0.5 * m[1][4], cz = -0.5 * m[2][4];
    centre_ = giPoint3(cx, cy, cz);
    // A negative radicand (degenerate points) gives NaN, which is reported.
    radius_ = std::sqrt(cx * cx + cy * cy + cz * cz - m[3][4]);
    status_ = 5;
}

int tsSphereFit::fit(const giPoint3coDynArr& points, giPoint3& centre, double& radius) {
    const tsSphereFit sphere(points);
    if (sphere.status() != 5) return 0;
    centre = sphere.centre();
    radius = sphere.radius();
    return 1;
}

void tsSphereFit::matrix_rowred(double* m, int rows, int cols) {
    const int k_end = std::min(rows, cols);
    double* const a = m;
    const auto at = [a, cols](int r, int c) -> double& { return a[r * cols + c]; };
    for (int k = 0; k < k_end; ++k) {
        // The last row below k whose entry beats the diagonal as it stood.
        const double diagonal = std::abs(at(k, k));
        int pivot = -1;
        for (int r = k + 1; r < rows; ++r)
            if (std::abs(at(r, k)) > diagonal) pivot = r;
        if (pivot >= 0)
            for (int c = 0; c < cols; ++c) std::swap(at(k, c), at(pivot, c));
        const double p = at(k, k);
        if (!(std::abs(p) > kPivotFloor)) continue;
        for (int i = 0; i < rows; ++i) {
            if (i == k || !(std::abs(at(i, k)) > kPivotFloor)) continue;
            const double f = at(i, k) / p;
            for (int c = k; c < cols; ++c) at(i, c) -= f * at(k, c);
        }
    }
    for (int k = 0; k < k_end; ++k) {
        const double p = at(k, k);
        if (!(std::abs(p) > kPivotFloor)) continue;
        for (int c = k; c < cols; ++c) at(k, c) /= p;
    }
}

double tsSphereFit::chi() const {
    if (status_ != 5) return DBL_MAX;
    double sum = 0.0;
    for (const giPoint3& p : points_) {
        const double d = distance(p, centre_) - radius_;
        sum += d * d;
    }
    return std::sqrt(sum / points_.size());
}

tsLeastSquareSphere::tsLeastSquareSphere(const giPoint3coDynArr& points)
    : tsLeastSquareDistance3(4, points) {}

void tsLeastSquareSphere::set_parameters(const mlVector& p) {
    mlDistanceLeastSquares::set_parameters(p);
    const bool whole = p.size() == 4;  // anything else gives NaN distances
    cx_ = whole ? p[0] : NAN;
    cy_ = whole ? p[1] : NAN;
    cz_ = whole ? p[2] : NAN;
    r_ = whole ? p[3] : NAN;
}

void tsLeastSquareSphere::normalize_parameters(mlVector&) const {}

void tsLeastSquareSphere::grow_gradient(mlVector& g) { g.expand(4); }

void tsLeastSquareSphere::get_distance_and_gradient(double& d, mlVector& g, int i) const {
    distance_and_gradient(i, -r_, d, g);
}

void tsLeastSquareSphere::get_distance(double& d, int i) const { d = shifted_distance(i, -r_); }

double tsLeastSquareSphere::evaluate_radius(const giPoint3& centre) const {
    const int n = n_points();
    if (n == 0) return 0.0;
    double sum = 0.0;
    for (int i = 0; i < n; ++i) sum += distance_squared(point(i), centre);
    return std::sqrt(sum / n);
}

tsLeastSquareProbedSphere::tsLeastSquareProbedSphere(const giPoint3coDynArr& points,
                                                     const doublecoDynArr& probe_radii, int inside)
    : tsLeastSquareSphere(points) {
    const int n = n_points();
    offsets_.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double rho = i < probe_radii.size() ? probe_radii[i] : 0.0;
        offsets_.append(inside == 0 ? -rho : rho);
    }
}

void tsLeastSquareProbedSphere::get_distance_and_gradient(double& d, mlVector& g, int i) const {
    distance_and_gradient(i, offsets_[i] - radius_parameter(), d, g);
}

void tsLeastSquareProbedSphere::get_distance(double& d, int i) const {
    d = shifted_distance(i, offsets_[i] - radius_parameter());
}

int tsLeastSquareEvaluator::evaluate_sphere(const giPoint3coDynArr& points, giPoint3& centre,
                                            double& radius, double& error) {
    giPoint3 c;
    double range = 0.0;
    if (points.size() < 4 || !centroid_and_range(points, c, range)) return 0;
    tsLeastSquareSphere model(points);
    return multi_start_sphere(model, c, range, centre, radius, error);
}

int tsLeastSquareEvaluator::evaluate_probed_sphere(const giPoint3coDynArr& points,
                                                   const doublecoDynArr& probe_radii, int inside,
                                                   giPoint3& centre, double& radius,
                                                   double& error) {
    giPoint3 c;
    double range = 0.0;
    if (points.size() < 4 || probe_radii.size() != points.size() || !ts_all_finite(probe_radii) ||
        !centroid_and_range(points, c, range))
        return 0;
    tsLeastSquareProbedSphere model(points, probe_radii, inside);
    return multi_start_sphere(model, c, range, centre, radius, error);
}
