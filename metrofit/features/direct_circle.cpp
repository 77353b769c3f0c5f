#include "metrofit/features/direct_circle.h"

#include <cmath>

#include "metrofit/frame/input_checks.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/maths/eigen.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/svd.h"
#include "metrofit/platform/maths/vector.h"

namespace {

// Relative levels at which the algebraic circle counts as exact (smallest
// singular value) and as a line (coefficient A), and at which three points
// count as collinear: all at the rounding level of the normalised problem.
constexpr double kExactLevel = 1e-12;
constexpr double kLineLevel = 1e-12;
constexpr double kCollinearLevel = 1e-12;

bool all_within(const giPoint3coDynArr& points, double tol) {
    for (const giPoint3& p : points)
        if (!p.coincident(points[0], tol)) return false;
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// tsDirectFit

tsDirectFit::tsDirectFit(const giPoint2coDynArr& points) : points2_(points) {
    if (points.size() < 2)
        status_ = kTooFewPoints;
    else if (!ts_all_finite(points))
        status_ = kDegenerate;
}

tsDirectFit::tsDirectFit(const giPoint3coDynArr& points) {
    if (points.size() < 2)
        status_ = kTooFewPoints;
    else
        find_embedding_plane(points);
}

int tsDirectFit::find_embedding_plane(const giPoint3coDynArr& points) {
    const int n = points.size();
    points2_.clear(0);
    if (n < 2) {
        status_ = kTooFewPoints;
        return 0;
    }
    bool built = false;
    if (ts_all_finite(points) && !all_within(points, tolerance_)) {
        if (n == 2) {
            // The points' direction is the x axis; any perpendicular is the
            // normal, since two points lie in a whole pencil of planes.
            const giUnitVec3 x_axis(points[0] - points[1]);
            const giPoint3 mid(0.5 * (points[0].x() + points[1].x()),
                               0.5 * (points[0].y() + points[1].y()),
                               0.5 * (points[0].z() + points[1].z()));
            built = x_axis.is_set() && plane_.become(mid, x_axis.any_normal(), x_axis);
        } else {
            giPoint3 origin;
            giUnitVec3 normal;
            double error = 0.0;
            built = tsLeastSquareEvaluator::evaluate_plane(points, origin, normal, error) &&
                    plane_.become(origin, normal);
        }
    }
    if (!built) {
        status_ = kNoPlane;
        return 0;
    }
    points2_.reserve(n);
    for (const giPoint3& p : points) {
        const giPoint3 q = plane_.to_work(p);
        points2_.append(giPoint2(q.x(), q.y()));
    }
    status_ = kReady;
    return 1;
}

// ---------------------------------------------------------------------------
// tsDirectCircle2

tsDirectCircle2::tsDirectCircle2(const giPoint2coDynArr& points) : tsDirectFit(points) {
    if (status_ == kReady) fit();
}

void tsDirectCircle2::fit() {
    const int n = points2_.size();
    if (n < 2) {
        status_ = kTooFewPoints;
    } else if (n == 2) {
        const giPoint2& p = points2_[0];
        const giPoint2& q = points2_[1];
        centre_ = giPoint2(0.5 * (p.x() + q.x()), 0.5 * (p.y() + q.y()));
        radius_ = 0.5 * distance(p, q);
        status_ = kFitted;
    } else if (n == 3) {
        three_points_fit();
    } else {
        algebraic_fit();
    }
}

void tsDirectCircle2::three_points_fit() {
    if (points2_.size() < 3) {
        status_ = kTooFewPoints;
        return;
    }
    const giPoint2& p0 = points2_[0];
    const giVector2 a = points2_[1] - p0, b = points2_[2] - p0, c = points2_[2] - points2_[1];
    const double aa = a.length_squared(), bb = b.length_squared(), cc = c.length_squared();
    const double tol2 = tolerance_ * tolerance_;
    const double longest = std::fmax(aa, std::fmax(bb, cc));
    const double twice_area = cross(a, b);
    if (aa <= tol2 || bb <= tol2 || cc <= tol2 ||
        !(std::fabs(twice_area) > kCollinearLevel * longest)) {
        status_ = kDegenerate;
        return;
    }
    // Circumcentre relative to p0: equidistant from 0, a and b.
    const double k = 0.5 / twice_area;
    const giVector2 u((b.y() * aa - a.y() * bb) * k, (a.x() * bb - b.x() * aa) * k);
    centre_ = p0 + u;
    radius_ = u.length();
    status_ = kFitted;
}

void tsDirectCircle2::algebraic_fit() {
    const int n = points2_.size();
    // Centred and scaled coordinates: the constrained fit does not depend on
    // them, and the squared coordinates keep their digits.
    double mx = 0.0, my = 0.0;
    for (const giPoint2& p : points2_) {
        mx += p.x();
        my += p.y();
    }
    mx /= n;
    my /= n;
    double spread = 0.0;
    for (const giPoint2& p : points2_) {
        const double dx = p.x() - mx, dy = p.y() - my;
        spread += dx * dx + dy * dy;
    }
    const double s = std::sqrt(spread / n);
    if (!(s > tolerance_)) {  // all points in one spot
        status_ = kDegenerate;
        return;
    }
    mlMatrix z(mlMatrixZero, n, 4);
    const double inv_s = 1.0 / s, inv_n = 1.0 / n;
    for (int i = 0; i < n; ++i) {
        const double x = (points2_[i].x() - mx) * inv_s, y = (points2_[i].y() - my) * inv_s;
        double* row = z.row_data(i);
        row[0] = (x * x + y * y) * inv_n;
        row[1] = x * inv_n;
        row[2] = y * inv_n;
        row[3] = inv_n;
    }
    const mlSingularValueDecomposition svd(z, mlJOB_V);
    if (!svd.status()) {
        status_ = kDegenerate;
        return;
    }
    const mlMatrix& v = svd.V();
    mlVector coeff(mlVectorZero, 4);
    if (!svd.is_singular(kExactLevel)) {
        // With W = V S, the eigenvectors w of W^T N W give the coefficients
        // V S^-1 w; the smallest non-negative eigenvalue is the least
        // algebraic error under the constraint.
        mlMatrix vs(mlMatrixZero, 4, 4), s_diag(mlMatrixZero, 4, 4);
        for (int j = 0; j < 4; ++j) {
            s_diag(j, j) = svd.diagonal()[j];
            for (int i = 0; i < 4; ++i) vs(i, j) = v(i, j) * svd.diagonal()[j];
        }
        mlMatrix constraint(mlMatrixIdentity, 4);
        constraint(0, 0) = constraint(3, 3) = 0.0;
        constraint(0, 3) = constraint(3, 0) = -0.5;
        const mlMatrix vs_t(mlMatrixTranspose, vs);
        const mlMatrix nw(mlMatrixProduct, constraint, vs);
        const mlMatrix m(mlMatrixProduct, vs_t, nw);
        mlSymEigenVecs eigen(m);
        eigen.set_tolerance(100.0 * tolerance_);
        if (!eigen.calculate() || eigen.num_real_eigen_values() != 4) {
            status_ = kDegenerate;
            return;
        }
        int k = 3;
        while (k >= 0 && eigen.eigen_value(k) < 0.0) --k;
        if (k < 0) {
            status_ = kDegenerate;
            return;
        }
        mlVector w(mlVectorZero, 4);
        for (int j = 0; j < 4; ++j) w[j] = eigen.eigen_vector(k)[j];
        const mlMatrix s_inv = mlSingularValueDecomposition(s_diag).inverse();
        const mlMatrix v_s_inv(mlMatrixProduct, v, s_inv);
        multiply(v_s_inv, w, coeff);
    } else {
        // The points lie on a circle to rounding: the coefficients are the
        // null vector of the matrix, the column of V of its smallest value.
        for (int j = 0; j < 4; ++j) coeff[j] = v(j, 3);
    }
    const double A = coeff[0], B = coeff[1], C = coeff[2], D = coeff[3];
    const double disc = B * B + C * C - 4.0 * A * D;
    if (!(std::fabs(A) > kLineLevel * coeff.norm()) || !(disc >= 0.0)) {
        status_ = kDegenerate;
        return;
    }
    centre_ = giPoint2(mx - B / (2.0 * A) * s, my - C / (2.0 * A) * s);
    radius_ = std::sqrt(disc) / (2.0 * std::fabs(A)) * s;
    status_ = kFitted;
}

// ---------------------------------------------------------------------------
// tsDirectCircle3

tsDirectCircle3::tsDirectCircle3(const giPoint3coDynArr& points)
    : tsDirectFit(points), points3_(points) {
    if (status_ == kReady) fit();
}

void tsDirectCircle3::fit() {
    const tsDirectCircle2 flat(points2_);
    status_ = flat.status();
    if (status_ != kFitted) return;
    radius_ = flat.radius();
    centre_ = plane_.to_world(giPoint3(flat.centre().x(), flat.centre().y(), 0.0));
    plane_.set_origin(centre_);
}
