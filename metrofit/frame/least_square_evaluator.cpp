#include "metrofit/frame/least_square_evaluator.h"

#include "metrofit/frame/input_checks.h"
#include "metrofit/platform/maths/svd.h"

// The centred n x 3 matrix is decomposed directly rather than through its
// 3 x 3 scatter matrix: forming the scatter squares the condition number,
// which costs the direction of a thin strip or a short segment its digits.
int tsLeastSquareEvaluator::principal_axes(const giPoint3coDynArr& points, giPoint3& centroid,
                                           mlVector& singular_values, mlMatrix& V) {
    const int n = points.size();
    if (n < 2 || !ts_all_finite(points)) return 0;
    double sx = 0, sy = 0, sz = 0;
    for (const giPoint3& p : points) {
        sx += p.x();
        sy += p.y();
        sz += p.z();
    }
    const giPoint3 c(sx / n, sy / n, sz / n);
    mlMatrix centred(mlMatrixZero, n, 3);
    for (int i = 0; i < n; ++i) {
        double* row = centred.row_data(i);
        row[0] = points[i].x() - c.x();
        row[1] = points[i].y() - c.y();
        row[2] = points[i].z() - c.z();
    }
    const mlSingularValueDecomposition svd(centred, mlJOB_V);
    if (!svd.status()) return 0;
    centroid = c;
    singular_values = svd.diagonal();
    V = svd.V();
    return 1;
}
