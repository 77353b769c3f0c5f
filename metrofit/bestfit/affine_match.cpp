#include "metrofit/bestfit/affine_match.h"

#include <cmath>

#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/svd.h"
#include "metrofit/platform/maths/vector.h"

namespace {

constexpr int kMaxUnknowns = 12;

// The sums every family draws on, from one pass over the pairs. With
// s' = s - s0 and f' = f - f0 relative to the first pair (s0, f0) and
// e = (s'x, s'y, s'z, 1):
//   S = sum e e^T (S[3][3] is the pair count), F[r] = sum f'_r e;
// for the families without a shift the plain sums ss_r = sum s_r^2 and
// sf_r = sum s_r f_r, and dz = sum (f_z - s_z) for a z shift of unit scale.
struct Moments {
    double s0[3] = {0.0, 0.0, 0.0}, f0[3] = {0.0, 0.0, 0.0};
    double S[4][4] = {};
    double F[3][4] = {};
    double ss[3] = {0.0, 0.0, 0.0}, sf[3] = {0.0, 0.0, 0.0};
    double dz = 0.0;
};

Moments gather(const giPoint3coPageArr& targets, const giPoint3coPageArr& sources) {
    Moments m;
    const int n = sources.size();
    if (n == 0) return m;
    for (int r = 0; r < 3; ++r) {
        m.s0[r] = sources.read(0)[r];
        m.f0[r] = targets.read(0)[r];
    }
    for (int i = 0; i < n; ++i) {
        const giPoint3& s = sources.read(i);
        const giPoint3& f = targets.read(i);
        const double sv[3] = {s.x(), s.y(), s.z()}, fv[3] = {f.x(), f.y(), f.z()};
        const double e[4] = {sv[0] - m.s0[0], sv[1] - m.s0[1], sv[2] - m.s0[2], 1.0};
        for (int a = 0; a < 4; ++a)
            for (int b = a; b < 4; ++b) m.S[a][b] += e[a] * e[b];
        for (int r = 0; r < 3; ++r) {
            const double fr = fv[r] - m.f0[r];
            for (int c = 0; c < 4; ++c) m.F[r][c] += fr * e[c];
            m.ss[r] += sv[r] * sv[r];
            m.sf[r] += sv[r] * fv[r];
        }
        m.dz += fv[2] - sv[2];
    }
    for (int a = 0; a < 4; ++a)
        for (int b = 0; b < a; ++b) m.S[a][b] = m.S[b][a];
    return m;
}

// Normal equations N x = v of k unknowns (N row-major, symmetric).
struct Normal {
    explicit Normal(int unknowns) : k(unknowns) {}
    int k;
    double N[kMaxUnknowns * kMaxUnknowns] = {};
    double v[kMaxUnknowns] = {};

    double& at(int i, int j) { return N[i * k + j]; }
    // Unknowns o (scale of coordinate r) and o + 1 (its shift).
    void scale_shift_block(const Moments& m, int r, int o) {
        at(o, o) = m.S[r][r];
        at(o, o + 1) = at(o + 1, o) = m.S[r][3];
        at(o + 1, o + 1) = m.S[3][3];
        v[o] = m.F[r][r];
        v[o + 1] = m.F[r][3];
    }

    // Solves with N scaled to a unit diagonal; 0 when singular at eps.
    int solve(double eps, double* x) const {
        double d[kMaxUnknowns];
        for (int i = 0; i < k; ++i) {
            const double nii = N[i * k + i];
            if (!(nii > 0.0)) return 0;  // an unknown no pair touches (or NaN)
            d[i] = 1.0 / std::sqrt(nii);
        }
        mlMatrix scaled(mlMatrixZero, k, k);
        mlVector rhs(mlVectorZero, k), y;
        for (int i = 0; i < k; ++i) {
            for (int j = 0; j < k; ++j) scaled(i, j) = N[i * k + j] * d[i] * d[j];
            rhs[i] = v[i] * d[i];
        }
        const mlSingularValueDecomposition svd(scaled);
        if (svd.is_singular(eps) || !svd.solve(rhs, y, eps)) return 0;
        for (int i = 0; i < k; ++i) x[i] = y[i] * d[i];
        return 1;
    }
};

// The shift of row r back in absolute coordinates: f - f0 = A (s - s0) + t'
// gives t = t' + f0 - A s0 (A's row r over the coordinates it uses).
double absolute_shift(const Moments& m, int r, double shift, const double* row, int n_cols) {
    double t = shift + m.f0[r];
    for (int c = 0; c < n_cols; ++c) t -= row[c] * m.s0[c];
    return t;
}

}  // namespace

void tsPointsAffineMatch::add_pair(const giPoint3& first, const giPoint3& second) {
    targets_.append(first);
    sources_.append(second);
}

int tsPointsAffineMatch::xform(giXform3& result) const {
    switch (static_cast<unsigned>(transform_type_)) {
        case tsAffineMatchFull:
            return full_transform(result);
        case tsAffineMatchXY:
            return xy_transform(result);
        case tsAffineMatchScale:
            return scale_transform(result);
        case tsAffineMatchScaleTranslate:
            return scale_translate(result);
        case tsAffineMatchXYScale:
            return xy_scale_transform(result);
        case tsAffineMatchXYScaleXYZTranslate:
            return xy_scale_xyz_translate(result);
        case tsAffineMatchAxisX:
        case tsAffineMatchAxisY:
        case tsAffineMatchAxisZ:
            return transform_1d(transform_type_ - tsAffineMatchAxisX, result);
        default:
            return 0;
    }
}

int tsPointsAffineMatch::full_transform(giXform3& result) const {
    const Moments m = gather(targets_, sources_);
    Normal eq(12);
    for (int r = 0; r < 3; ++r)
        for (int a = 0; a < 4; ++a) {
            for (int b = 0; b < 4; ++b) eq.at(4 * r + a, 4 * r + b) = m.S[a][b];
            eq.v[4 * r + a] = m.F[r][a];
        }
    double x[12];
    if (!eq.solve(eps_, x)) return 0;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) result(r, c) = x[4 * r + c];
        result(r, 3) = absolute_shift(m, r, x[4 * r + 3], x + 4 * r, 3);
    }
    return 1;
}

int tsPointsAffineMatch::xy_transform(giXform3& result) const {
    const Moments m = gather(targets_, sources_);
    const int use[3] = {0, 1, 3};  // s'x, s'y, 1
    Normal eq(6);
    for (int r = 0; r < 2; ++r)
        for (int a = 0; a < 3; ++a) {
            for (int b = 0; b < 3; ++b) eq.at(3 * r + a, 3 * r + b) = m.S[use[a]][use[b]];
            eq.v[3 * r + a] = m.F[r][use[a]];
        }
    double x[6];
    if (!eq.solve(eps_, x)) return 0;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) result(r, c) = 0.0;
    for (int r = 0; r < 2; ++r) {
        result(r, 0) = x[3 * r];
        result(r, 1) = x[3 * r + 1];
        result(r, 3) = absolute_shift(m, r, x[3 * r + 2], x + 3 * r, 2);
    }
    result(2, 2) = 1.0;
    return 1;
}

int tsPointsAffineMatch::scale_transform(giXform3& result) const {
    const Moments m = gather(targets_, sources_);
    Normal eq(3);
    for (int r = 0; r < 3; ++r) {
        eq.at(r, r) = m.ss[r];
        eq.v[r] = m.sf[r];
    }
    double x[3];
    if (!eq.solve(eps_, x)) return 0;
    for (int r = 0; r < 3; ++r) result(r, r) = x[r];
    return 1;
}

int tsPointsAffineMatch::scale_translate(giXform3& result) const {
    const Moments m = gather(targets_, sources_);
    Normal eq(6);
    for (int r = 0; r < 3; ++r) eq.scale_shift_block(m, r, 2 * r);
    double x[6];
    if (!eq.solve(eps_, x)) return 0;
    for (int r = 0; r < 3; ++r) {
        result(r, r) = x[2 * r];
        result(r, 3) = x[2 * r + 1] + m.f0[r] - x[2 * r] * m.s0[r];
    }
    return 1;
}

int tsPointsAffineMatch::xy_scale_transform(giXform3& result) const {
    const Moments m = gather(targets_, sources_);
    Normal eq(2);
    for (int r = 0; r < 2; ++r) {
        eq.at(r, r) = m.ss[r];
        eq.v[r] = m.sf[r];
    }
    double x[2];
    if (!eq.solve(eps_, x)) return 0;
    result(0, 0) = x[0];
    result(1, 1) = x[1];
    result(2, 2) = 1.0;
    return 1;
}

int tsPointsAffineMatch::xy_scale_xyz_translate(giXform3& result) const {
    const Moments m = gather(targets_, sources_);
    Normal eq(5);
    eq.scale_shift_block(m, 0, 0);
    eq.scale_shift_block(m, 1, 2);
    eq.at(4, 4) = m.S[3][3];  // fz - sz = tz needs no source coordinate
    eq.v[4] = m.dz;
    double x[5];
    if (!eq.solve(eps_, x)) return 0;
    for (int r = 0; r < 2; ++r) {
        result(r, r) = x[2 * r];
        result(r, 3) = x[2 * r + 1] + m.f0[r] - x[2 * r] * m.s0[r];
    }
    result(2, 2) = 1.0;
    result(2, 3) = x[4];
    return 1;
}

int tsPointsAffineMatch::transform_1d(int axis, giXform3& result) const {
    const Moments m = gather(targets_, sources_);
    Normal eq(2);
    eq.scale_shift_block(m, axis, 0);
    double x[2];
    if (!eq.solve(eps_, x)) return 0;
    result(axis, axis) = x[0];
    result(axis, 3) = x[1] + m.f0[axis] - x[0] * m.s0[axis];
    return 1;
}
