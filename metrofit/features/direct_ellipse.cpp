#include "metrofit/features/direct_ellipse.h"

#include <cmath>

#include "metrofit/features/ellipse.h"
#include "metrofit/frame/input_checks.h"
#include "metrofit/platform/maths/eigen.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/svd.h"
#include "metrofit/platform/maths/vector.h"

namespace {

// Relative level at which points count as one spot or one line, the
// smallest singular value as zero (the points lie on a conic to rounding),
// and the conic's discriminant as zero (a parabola): all near the rounding
// level of the normalised problem.
constexpr double kSpanLevel = 1e-12;
constexpr double kExactLevel = 1e-12;
constexpr double kParabolaLevel = 1e-14;
constexpr double kHalfPi = 1.57079632679489661923;

// Centroid, RMS distance from it, and RMS distance from the principal line
// through it.
struct Spread {
    double mx = 0.0, my = 0.0, rms = 0.0, width = 0.0;
};

bool spread_of(const giPoint2coDynArr& points, Spread& out) {
    const int n = points.size();
    if (n == 0 || !ts_all_finite(points)) return false;
    double mx = 0.0, my = 0.0;
    for (const giPoint2& p : points) {
        mx += p.x();
        my += p.y();
    }
    mx /= n;
    my /= n;
    double sxx = 0.0, sxy = 0.0, syy = 0.0;
    for (const giPoint2& p : points) {
        const double dx = p.x() - mx, dy = p.y() - my;
        sxx += dx * dx;
        sxy += dx * dy;
        syy += dy * dy;
    }
    // The width is summed across the principal direction from the points
    // themselves: the second eigenvalue of the 2 x 2 moments would lose it
    // to cancellation.
    const double phi = 0.5 * std::atan2(2.0 * sxy, sxx - syy);
    const double nx = -std::sin(phi), ny = std::cos(phi);
    double across = 0.0;
    for (const giPoint2& p : points) {
        const double h = nx * (p.x() - mx) + ny * (p.y() - my);
        across += h * h;
    }
    out.mx = mx;
    out.my = my;
    out.rms = std::sqrt((sxx + syy) / n);
    out.width = std::sqrt(across / n);
    return true;
}

bool spans(const Spread& s) {
    const double position = std::fmax(std::fabs(s.mx), std::fabs(s.my));
    return s.rms > kSpanLevel * position && s.width > kSpanLevel * std::fmax(s.rms, position);
}

// A conic A x^2 + B xy + C y^2 + D x + E y + F = 0 as an ellipse; false when
// it is none.
struct Ellipse {
    double cx, cy, a, b, angle;
};
bool conic_ellipse(double A, double B, double C, double D, double E, double F, Ellipse& out) {
    if (A + C < 0.0) {
        A = -A, B = -B, C = -C, D = -D, E = -E, F = -F;
    }
    const double det = 4.0 * A * C - B * B;
    if (!(det > kParabolaLevel * (A * A + B * B + C * C))) return false;
    // Centre: the gradient vanishes there.
    const double cx = (B * E - 2.0 * C * D) / det, cy = (B * D - 2.0 * A * E) / det;
    const double f0 = F + 0.5 * (D * cx + E * cy);  // the conic's value at the centre
    if (!(f0 < 0.0)) return false;                  // no points, or a single one
    // Eigenvalues of [[A, B/2], [B/2, C]]: the larger in closed form, the
    // smaller from their product det / 4.
    const double big = 0.5 * (A + C) + std::hypot(0.5 * (A - C), 0.5 * B);
    const double small = 0.25 * det / big;
    out.cx = cx;
    out.cy = cy;
    out.a = std::sqrt(-f0 / small);
    out.b = std::sqrt(-f0 / big);
    // The major axis is the eigenvector of the smaller eigenvalue,
    // perpendicular to that of the larger.
    out.angle = tsLeastSquareEllipse2::half_turn(0.5 * std::atan2(B, A - C) + kHalfPi);
    return std::isfinite(out.a) && std::isfinite(out.cx) && std::isfinite(out.cy);
}

// The ellipse-constrained algebraic fit on points centred on m and scaled by
// 1 / scale; the result is in those coordinates.
bool algebraic_ellipse(const giPoint2coDynArr& points, double mx, double my, double scale,
                       Ellipse& out) {
    const int n = points.size();
    const double inv = 1.0 / scale;
    mlMatrix lin(mlMatrixZero, n, 3), z(mlMatrixZero, n, 3);
    for (int i = 0; i < n; ++i) {
        const double x = (points[i].x() - mx) * inv, y = (points[i].y() - my) * inv;
        double* li = lin.row_data(i);
        double* zi = z.row_data(i);
        li[0] = 1.0;
        li[1] = x;
        li[2] = y;
        zi[0] = x * x;
        zi[1] = x * y;
        zi[2] = y * y;
    }
    // The linear block's columns L = [1 x y] = U S V^T: U is an orthonormal
    // basis of their span. Removing it from the quadratic columns (twice, so
    // that the remainder is orthogonal to rounding) leaves Z1 = U P + Z.
    const mlSingularValueDecomposition lin_svd(lin, mlJOB_U | mlJOB_V);
    if (!lin_svd.status() || lin_svd.is_singular(kSpanLevel)) return false;
    const mlMatrix& u = lin_svd.U();
    double P[3][3] = {{0.0}};
    for (int pass = 0; pass < 2; ++pass) {
        for (int c = 0; c < 3; ++c) {
            double r[3] = {0.0, 0.0, 0.0};
            for (int i = 0; i < n; ++i)
                for (int k = 0; k < 3; ++k) r[k] += u(i, k) * z(i, c);
            for (int i = 0; i < n; ++i) z(i, c) -= r[0] * u(i, 0) + r[1] * u(i, 1) + r[2] * u(i, 2);
            for (int k = 0; k < 3; ++k) P[k][c] += r[k];
        }
    }

    const mlSingularValueDecomposition svd(z, mlJOB_V);
    if (!svd.status()) return false;
    const mlMatrix& v = svd.V();
    const mlVector& sv = svd.diagonal();
    double quad[3];
    if (svd.is_singular(kExactLevel)) {
        // The points lie on a conic to rounding: its null vector.
        for (int j = 0; j < 3; ++j) quad[j] = v(j, 2);
    } else {
        // With w = S V^T q: minimise |w|^2 subject to w^T K w = 1, K = S^-1
        // V^T N V S^-1. K has one positive eigenvalue, the largest, whose
        // eigenvector gives q = V S^-1 w. It grows as 1 / s_min^2 when the
        // points near a conic, so it stays well resolved where the reciprocal
        // form (V S)^T N^-1 (V S) would bury its eigenvalue in rounding.
        mlMatrix k(mlMatrixZero, 3, 3);
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                k(i, j) = (2.0 * (v(0, i) * v(2, j) + v(2, i) * v(0, j)) - v(1, i) * v(1, j)) /
                          (sv[i] * sv[j]);
        mlSymEigenVecs eigen(k);
        if (!eigen.calculate() || eigen.num_real_eigen_values() != 3 ||
            !(eigen.eigen_value(0) > 0.0))
            return false;
        double w[3];
        for (int j = 0; j < 3; ++j) w[j] = eigen.eigen_vector(0)[j] / sv[j];
        for (int i = 0; i < 3; ++i) quad[i] = v(i, 0) * w[0] + v(i, 1) * w[1] + v(i, 2) * w[2];
    }
    // The best linear block for that quadratic block: l = -L^+ Z1 q =
    // -V S^-1 P q, in the order of the columns (1, x, y).
    const mlMatrix& lv = lin_svd.V();
    const mlVector& ls = lin_svd.diagonal();
    double pq[3], coeff[3];
    for (int k = 0; k < 3; ++k)
        pq[k] = (P[k][0] * quad[0] + P[k][1] * quad[1] + P[k][2] * quad[2]) / ls[k];
    for (int j = 0; j < 3; ++j)
        coeff[j] = -(lv(j, 0) * pq[0] + lv(j, 1) * pq[1] + lv(j, 2) * pq[2]);
    return conic_ellipse(quad[0], quad[1], quad[2], coeff[1], coeff[2], coeff[0], out);
}

}  // namespace

// ---------------------------------------------------------------------------
// tsDirectEllipse2

tsDirectEllipse2::tsDirectEllipse2(const giPoint2coDynArr& points) : tsDirectFit(points) {
    if (points.size() < 5)
        status_ = kTooFewPoints;
    else if (status_ == kReady)
        fit();
}

bool tsDirectEllipse2::spans_plane(const giPoint2coDynArr& points) {
    Spread s;
    return spread_of(points, s) && spans(s);
}

void tsDirectEllipse2::fit() {
    Spread s;
    Ellipse e;
    if (points2_.size() < 5) {
        status_ = kTooFewPoints;
        return;
    }
    if (!spread_of(points2_, s) || !spans(s) || !(s.rms > tolerance_) ||
        !algebraic_ellipse(points2_, s.mx, s.my, s.rms, e)) {
        status_ = kDegenerate;
        return;
    }
    centre_ = giPoint2(s.mx + e.cx * s.rms, s.my + e.cy * s.rms);
    semi_major_ = e.a * s.rms;
    semi_minor_ = e.b * s.rms;
    angle_ = e.angle;
    status_ = kFitted;
}

// ---------------------------------------------------------------------------
// tsDirectEllipse3

tsDirectEllipse3::tsDirectEllipse3(const giPoint3coDynArr& points)
    : tsDirectFit(points), points3_(points) {
    if (points.size() < 5)
        status_ = kTooFewPoints;
    else if (status_ == kReady)
        fit();
}

void tsDirectEllipse3::fit() {
    const tsDirectEllipse2 flat(points2_);
    status_ = flat.status();
    if (status_ != kFitted) return;
    semi_major_ = flat.semi_major();
    semi_minor_ = flat.semi_minor();
    angle_ = flat.angle();
    centre_ = plane_.to_world(giPoint3(flat.centre().x(), flat.centre().y(), 0.0));
    major_axis_ = plane_.to_world(giUnitVec3(std::cos(angle_), std::sin(angle_), 0.0));
    plane_.set_origin(centre_);
}
