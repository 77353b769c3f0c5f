#include <cmath>

#include "metrofit/frame/least_square_evaluator.h"

int tsLeastSquareEvaluator::evaluate_plane(const giPoint3coDynArr& points, giPoint3& point,
                                           giUnitVec3& normal, double& error) {
    if (points.size() < 3) return 0;
    giPoint3 centroid;
    mlVector sv;
    mlMatrix V;
    if (!principal_axes(points, centroid, sv, V)) return 0;
    // The normal is the axis of least spread; the first wins a tie.
    int k = 0;
    for (int j = 1; j < sv.size(); ++j)
        if (std::abs(sv[j]) < std::abs(sv[k])) k = j;
    const giUnitVec3 n(V(0, k), V(1, k), V(2, k));
    if (!n.is_set()) return 0;
    double sum = 0.0;
    for (const giPoint3& p : points) {
        const double d = dot(n, p - centroid);
        sum += d * d;
    }
    point = centroid;
    normal = n;
    error = std::sqrt(sum / points.size());
    return 1;
}
