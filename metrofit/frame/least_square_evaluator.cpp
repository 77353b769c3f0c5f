#include "metrofit/frame/least_square_evaluator.h"

#include <cmath>

#include "metrofit/platform/maths/svd.h"

// The centred n x 3 matrix is decomposed directly rather than through its
// 3 x 3 scatter matrix: forming the scatter squares the condition number,
// which costs the direction of a thin strip or a short segment its digits.
int tsLeastSquareEvaluator::principal_axes(const giPoint3coDynArr& points, giPoint3& centroid,
                                           mlVector& singular_values, mlMatrix& V) {
    const int n = points.size();
    if (n < 2) return 0;
    // Two partial sums per coordinate (even and odd points), so that the
    // additions of consecutive points do not wait on each other.
    const giPoint3* const pts = points.data();
    double ax = 0, ay = 0, az = 0, bx = 0, by = 0, bz = 0;
    int i = 0;
    for (; i + 1 < n; i += 2) {
        ax += pts[i].x();
        ay += pts[i].y();
        az += pts[i].z();
        bx += pts[i + 1].x();
        by += pts[i + 1].y();
        bz += pts[i + 1].z();
    }
    if (i < n) {
        ax += pts[i].x();
        ay += pts[i].y();
        az += pts[i].z();
    }
    const double sx = ax + bx, sy = ay + by, sz = az + bz;
    // A non-finite coordinate makes its sum non-finite; so does a sum that
    // overflows, which would leave no finite centroid either.
    if (!std::isfinite(sx) || !std::isfinite(sy) || !std::isfinite(sz)) return 0;
    const giPoint3 c(sx / n, sy / n, sz / n);
    mlMatrix centred(mlMatrixZero, n, 3);
    double* row = centred.data();
    for (const giPoint3& p : points) {
        row[0] = p.x() - c.x();
        row[1] = p.y() - c.y();
        row[2] = p.z() - c.z();
        row += 3;
    }
    const mlSingularValueDecomposition svd(centred, mlJOB_V);
    if (!svd.status()) return 0;
    centroid = c;
    singular_values = svd.diagonal();
    V = svd.V();
    return 1;
}
