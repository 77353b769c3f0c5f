#include "metrofit/features/axial_common.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

namespace {

constexpr double kNewPointFactor = 10.0;
constexpr double kNewPointFloor = 0.001;
constexpr double kGrowthFactor = 1.1;
constexpr double kGrowthFloor = 1e-6;
constexpr int kQuantileAbove = 20;  // more points: the old points' largest residual
constexpr double kQuantile = 0.9;

double largest_distance(const tsLeastSquareDistance3& model, int from, int to) {
    double largest = 0.0;
    for (int i = from; i < to; ++i) {
        double d = 0.0;
        model.get_distance(d, i);
        largest = std::fmax(largest, std::fabs(d));
    }
    return largest;
}

}  // namespace

int tsRefineWithAddedPoints(tsLeastSquareDistance3& model, mlLevenbergMarquardt& solver,
                            const mlVector& previous, int n_added, mlVector& result,
                            double& value) {
    const int n = model.n_points();
    if (n_added > 0 && n_added >= n) return 0;
    model.set_parameters(previous);
    const double range = model.range();
    std::vector<double> old;
    if (n_added > 0) {
        old.reserve(n - n_added);
        for (int i = 0; i < n - n_added; ++i) {
            double d = 0.0;
            model.get_distance(d, i);
            old.push_back(std::fabs(d));
        }
        std::sort(old.begin(), old.end());
        const int last = static_cast<int>(old.size()) - 1;
        const int k = n > kQuantileAbove ? last : static_cast<int>(last * kQuantile);
        const double limit = std::fmax(kNewPointFactor * old[k], kNewPointFloor * range);
        if (!(largest_distance(model, n - n_added, n) < limit)) return 0;
    }
    mlVector refined;
    const double v = solver.fit(previous, refined);
    if (!(v < DBL_MAX)) return 0;
    if (n_added > 0) {
        model.set_parameters(refined);
        const double limit = std::fmax(kGrowthFactor * old.back(), kGrowthFloor * range);
        if (!(largest_distance(model, 0, n) < limit)) return 0;
    }
    result = refined;
    value = v;
    return 1;
}

bool ts_normals_fit_points(const giPoint3coDynArr& points, const giUnitVec3coDynArr& normals) {
    if (normals.size() == 0) return true;
    if (normals.size() != points.size()) return false;
    for (const giUnitVec3& v : normals)
        if (!v.is_set() || !v.is_finite()) return false;
    return true;
}

bool ts_radii_fit_points(const giPoint3coDynArr& points, const doublecoDynArr& radii) {
    if (radii.size() != points.size()) return false;
    for (const double r : radii)
        if (!std::isfinite(r)) return false;
    return true;
}

void ts_unit_axis(mlVector& p) {
    const double length = std::sqrt(p[3] * p[3] + p[4] * p[4] + p[5] * p[5]);
    if (length > 0.0) {
        p[3] /= length;
        p[4] /= length;
        p[5] /= length;
    } else {
        p[3] = 1.0;
        p[4] = p[5] = 0.0;
    }
}

double ts_axis_point_to_origin(mlVector& p) {
    const double t = p[3] * p[0] + p[4] * p[1] + p[5] * p[2];
    p[0] -= t * p[3];
    p[1] -= t * p[4];
    p[2] -= t * p[5];
    return t;
}
