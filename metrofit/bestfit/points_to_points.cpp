#include "metrofit/bestfit/points_to_points.h"

#include <cmath>

#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/svd.h"

namespace {

// Ratio of the two largest singular values beyond which the centred data
// count as lying on one line.
constexpr double kLineRatio = 1e10;

// The proper rotation R = V U^T (d x d, row-major) of the decomposition of
// H = sum a b^T; when V U^T is a reflection the last column of V, the one
// of the smallest singular value, changes sign.
void proper_rotation(const mlSingularValueDecomposition& svd, int d, double* R) {
    const mlMatrix& U = svd.U();
    const mlMatrix& V = svd.V();
    double sign_last = 1.0;
    for (int pass = 0; pass < 2; ++pass) {
        for (int r = 0; r < d; ++r)
            for (int c = 0; c < d; ++c) {
                double sum = 0.0;
                for (int k = 0; k < d; ++k)
                    sum += (k == d - 1 ? sign_last : 1.0) * V(r, k) * U(c, k);
                R[r * d + c] = sum;
            }
        const double det = d == 3 ? R[0] * (R[4] * R[8] - R[5] * R[7]) -
                                        R[1] * (R[3] * R[8] - R[5] * R[6]) +
                                        R[2] * (R[3] * R[7] - R[4] * R[6])
                                  : R[0] * R[3] - R[1] * R[2];
        if (!(det < 0.0)) return;
        sign_last = -1.0;
    }
}

// Degenerate when all centred pairs vanish or lie on one line.
bool well_spread(const mlVector& s) {
    const double s0 = std::fabs(s[0]), s1 = std::fabs(s[1]);
    return s0 > 0.0 && !(s0 > s1 * kLineRatio);
}

// One pair relative to the origins (oa, ob) into the D x D cross sums and the
// vector sums; D fixed at compile time so the loops unroll.
template <int D>
void accumulate(const double* a, const double* b, const double* oa, const double* ob, double* cross,
                double* sa, double* sb) {
    double ra[D], rb[D];
    for (int j = 0; j < D; ++j) {
        ra[j] = a[j] - oa[j];
        rb[j] = b[j] - ob[j];
        sa[j] += ra[j];
        sb[j] += rb[j];
    }
    for (int k = 0; k < D; ++k)
        for (int j = 0; j < D; ++j) cross[k * D + j] += rb[k] * ra[j];
}

}  // namespace

void tsPointsToPoints::add_pair(const giPoint3& a, const giPoint3& b) {
    if (!a.is_set() || !b.is_set()) return;
    if (dimension_ == 0) dimension_ = 3;
    if (dimension_ != 3) return;
    const double pa[3] = {a.x(), a.y(), a.z()}, pb[3] = {b.x(), b.y(), b.z()};
    add_pair(pa, pb);
}

void tsPointsToPoints::add_pair(const giPoint2& a, const giPoint2& b) {
    if (!a.is_set() || !b.is_set()) return;
    if (dimension_ == 0) dimension_ = 2;
    if (dimension_ != 2) return;
    const double pa[2] = {a.x(), a.y()}, pb[2] = {b.x(), b.y()};
    add_pair(pa, pb);
}

void tsPointsToPoints::initialise_matrix() {
    for (int i = 0; i < dimension_ * dimension_; ++i) cross_sums_[i] = 0.0;
    for (int j = 0; j < dimension_; ++j) first_sums_[j] = second_sums_[j] = 0.0;
}

void tsPointsToPoints::add_pair(const double* a, const double* b) {
    const int d = dimension_;
    if (count_ == 0) {
        initialise_matrix();
        for (int j = 0; j < d; ++j) {
            first_origin_[j] = a[j];
            second_origin_[j] = b[j];
        }
    }
    ++count_;
    if (d == 3)
        accumulate<3>(a, b, first_origin_, second_origin_, cross_sums_, first_sums_, second_sums_);
    else
        accumulate<2>(a, b, first_origin_, second_origin_, cross_sums_, first_sums_, second_sums_);
}

void tsPointsToPoints::centre(double* h) {
    const int d = dimension_;
    const double w = 1.0 / count_;
    for (int k = 0; k < d; ++k)
        for (int j = 0; j < d; ++j) {
            cross_sums_[k * d + j] -= w * second_sums_[k] * first_sums_[j];
            h[j * d + k] = cross_sums_[k * d + j];
        }
    // From here on the sums hold absolute means; the origins are spent.
    for (int j = 0; j < d; ++j) {
        first_sums_[j] = first_sums_[j] * w + first_origin_[j];
        second_sums_[j] = second_sums_[j] * w + second_origin_[j];
        first_origin_[j] = second_origin_[j] = 0.0;
    }
}

bool tsPointsToPoints::get_xform(giXform3& xform) {
    if (dimension_ != 3) return false;
    double h[9], R[9];
    centre(h);
    const mlSingularValueDecomposition svd(mlMatrix(utConvert, h, 3, 3));
    if (!svd.status()) return false;
    proper_rotation(svd, 3, R);
    double t[3];
    for (int r = 0; r < 3; ++r)
        t[r] = second_sums_[r] - (R[3 * r] * first_sums_[0] + R[3 * r + 1] * first_sums_[1] +
                                  R[3 * r + 2] * first_sums_[2]);
    // The local-to-world frame with axes the columns of R is the motion itself.
    if (!xform.become_local_to_world(giPoint3(t[0], t[1], t[2]), giUnitVec3(R[2], R[5], R[8]),
                                     giUnitVec3(R[0], R[3], R[6])))
        return false;
    return well_spread(svd.diagonal());
}

bool tsPointsToPoints::get_xform(giXform2& xform) {
    if (dimension_ != 2) return false;
    double h[4], R[4];
    centre(h);
    const mlSingularValueDecomposition svd(mlMatrix(utConvert, h, 2, 2));
    if (!svd.status()) return false;
    proper_rotation(svd, 2, R);
    const double tx = second_sums_[0] - (R[0] * first_sums_[0] + R[1] * first_sums_[1]);
    const double ty = second_sums_[1] - (R[2] * first_sums_[0] + R[3] * first_sums_[1]);
    if (!xform.become_local_to_world(giPoint2(tx, ty), giUnitVec2(R[0], R[2]))) return false;
    return well_spread(svd.diagonal());
}
