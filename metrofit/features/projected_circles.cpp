#include "metrofit/features/projected_circles.h"

#include <cfloat>
#include <cmath>

namespace {

// Added to squared distances from a projected centre so that none is zero.
constexpr double kTiny = 1e-300;
// Curvature of the distance taken as zero within 1e-7 of the centre.
constexpr double kMaxCurvature = 1e7;

}  // namespace

tsProjectedCircles::tsProjectedCircles(const giPoint3coDynArr& points, const double* offsets)
    : q_(offsets) {
    n_ = points.size();
    double sx = 0.0, sy = 0.0, sz = 0.0;
    for (const giPoint3& p : points) {
        sx += p.x();
        sy += p.y();
        sz += p.z();
    }
    const double inv_n = n_ > 0 ? 1.0 / n_ : 0.0;
    mean_[0] = sx * inv_n;
    mean_[1] = sy * inv_n;
    mean_[2] = sz * inv_n;
    px_.reserve(n_);
    py_.reserve(n_);
    pz_.reserve(n_);
    for (const giPoint3& p : points) {
        px_.append(p.x() - mean_[0]);
        py_.append(p.y() - mean_[1]);
        pz_.append(p.z() - mean_[2]);
    }
    x_.expand(n_);
    y_.expand(n_);
    l_.expand(n_);
    inv_.expand(n_);
}

// One pass at the centre (a, b): the radius, the sums and the
// Gauss-Newton system of the centre step. Residuals are accumulated
// relative to r_ref (a radius near the answer) to keep their digits.
struct tsProjectedCircles::Pass {
    double a = 0.0, b = 0.0, r = 0.0;
    double sum_squares = DBL_MAX, max_residual = DBL_MAX;
    double h00 = 0.0, h01 = 0.0, h11 = 0.0, g0 = 0.0, g1 = 0.0;
    double c00 = 0.0, c01 = 0.0, c11 = 0.0;
    bool finite = false;

    // The Newton step where the full Hessian is positive definite (it
    // converges fast even where the residuals are large, as for a trial
    // axis far from the true one), else the Gauss-Newton step.
    bool step(double& da, double& db) const {
        if (solve(h00 + c00, h01 + c01, h11 + c11, da, db)) return true;
        return solve(h00, h01, h11, da, db);
    }

   private:
    bool solve(double m00, double m01, double m11, double& da, double& db) const {
        const double det = m00 * m11 - m01 * m01;
        if (!(m00 > 0.0 && det > 1e-14 * (m00 + m11) * (m00 + m11))) return false;
        da = (g0 * m11 - g1 * m01) / det;
        db = (g1 * m00 - g0 * m01) / det;
        return std::isfinite(da) && std::isfinite(db);
    }
};

bool tsProjectedCircles::fit(const giVector3& axis, tsProjectedCircle& out, bool want_max) {
    want_max_ = want_max;
    const giUnitVec3 u(axis);
    if (n_ < 3 || !u.is_set()) return false;
    // In-plane axes as the plane projection takes them.
    const giUnitVec3 e =
        std::abs(u.x()) > std::abs(u.y()) ? giUnitVec3(0, 1, 0) : giUnitVec3(1, 0, 0);
    const giUnitVec3 e1(cross(e, u));
    const giUnitVec3 e2(cross(u, e1));
    const double ax = e1.x(), ay = e1.y(), az = e1.z();
    const double bx = e2.x(), by = e2.y(), bz = e2.z();

    // Projection and the moments of the algebraic circle fit. The 3D points
    // are centred, so the projected ones are too (to rounding).
    double sx = 0, sy = 0, sxx = 0, sxy = 0, syy = 0, sxz = 0, syz = 0, szz = 0;
    double* x = x_.data();
    double* y = y_.data();
    const double* px = px_.data();
    const double* py = py_.data();
    const double* pz = pz_.data();
    for (int i = 0; i < n_; ++i) {
        const double xi = ax * px[i] + ay * py[i] + az * pz[i];
        const double yi = bx * px[i] + by * py[i] + bz * pz[i];
        const double xx = xi * xi, yy = yi * yi, zi = xx + yy;
        x[i] = xi;
        y[i] = yi;
        sx += xi;
        sy += yi;
        sxx += xx;
        sxy += xi * yi;
        syy += yy;
        sxz += xi * zi;
        syz += yi * zi;
        szz += zi * zi;
    }
    sx_ = sx;
    sy_ = sy;
    double a = 0.0, b = 0.0, r_ref = 0.0, spread = 0.0;
    if (!algebraic_circle(sx, sy, sxx, sxy, syy, sxz, syz, szz, a, b, r_ref, spread)) return false;

    Pass best = evaluate(a, b, r_ref);
    if (!best.finite) return false;
    constexpr int kPasses = 60;
    constexpr int kHalvings = 12;
    constexpr double kConverged = 1e-9;
    constexpr double kSettled = 1e-7;
    constexpr double kMaxStretch = 64.0;
    int passes = 1;
    double da = 0.0, db = 0.0, last_da = 0.0, last_db = 0.0, stretch = 1.0;
    bool have_step = best.step(da, db), settled = false;
    while (have_step && !settled && passes < kPasses) {
        const double size = std::fmax(spread, std::fabs(best.r));
        const double length = std::sqrt(da * da + db * db);
        if (length <= kConverged * size) break;
        // A step that repeats the last one, longer, walks a long valley
        // (a flat arc whose centre lies far out): stretch it.
        const double last = std::sqrt(last_da * last_da + last_db * last_db);
        if (last > 0.0 && da * last_da + db * last_db > 0.9 * length * last && length >= last)
            stretch = std::fmin(2.0 * stretch, kMaxStretch);
        else
            stretch = 1.0;
        double lambda = stretch;
        bool moved = false;
        for (int h = 0; h <= kHalvings && passes < kPasses; ++h, lambda *= 0.5) {
            const Pass trial = evaluate(best.a + lambda * da, best.b + lambda * db, best.r);
            ++passes;
            if (trial.finite && trial.sum_squares < best.sum_squares) {
                settled = best.sum_squares - trial.sum_squares <= kSettled * trial.sum_squares;
                best = trial;
                moved = true;
                break;
            }
        }
        if (!moved) break;
        last_da = lambda * da;
        last_db = lambda * db;
        stretch = lambda;
        have_step = best.step(da, db);
    }

    const double cx = mean_[0] - u.x() * dot(u, giVector3(mean_[0], mean_[1], mean_[2]));
    const double cy = mean_[1] - u.y() * dot(u, giVector3(mean_[0], mean_[1], mean_[2]));
    const double cz = mean_[2] - u.z() * dot(u, giVector3(mean_[0], mean_[1], mean_[2]));
    out.centre = giPoint3(cx + best.a * ax + best.b * bx, cy + best.a * ay + best.b * by,
                          cz + best.a * az + best.b * bz);
    out.radius = best.r;
    out.sum_squares = best.sum_squares;
    out.max_residual = best.max_residual;
    return out.centre.is_finite();
}

// The algebraic circle of Taubin's form (nearly unbiased on short arcs,
// where the simple algebraic fit shrinks the circle), from the moments of
// the projected points: its centre (a, b), its radius and the RMS spread
// of the points about their mean. The root of the characteristic cubic is
// found by Newton's method from 0, stopping when it no longer decreases
// the cubic. Fails when the points lie on one spot; a degenerate cubic
// (points on a line) leaves the centre at the mean, so that the geometric
// iteration starts from there.
bool tsProjectedCircles::algebraic_circle(double sx, double sy, double sxx, double sxy, double syy,
                                          double sxz, double syz, double szz, double& a, double& b,
                                          double& r, double& spread) const {
    const double inv_n = 1.0 / n_;
    const double mx = sx * inv_n, my = sy * inv_n;
    const double mxx = sxx * inv_n, mxy = sxy * inv_n, myy = syy * inv_n;
    const double mxz = sxz * inv_n, myz = syz * inv_n, mzz = szz * inv_n;
    const double mz = mxx + myy;
    spread = std::sqrt(mz);
    if (!(spread > 0.0) || !std::isfinite(spread)) return false;
    a = mx;
    b = my;
    r = spread;
    const double cov_xy = mxx * myy - mxy * mxy;
    const double var_z = mzz - mz * mz;
    const double a3 = 4.0 * mz, a2 = -3.0 * mz * mz - mzz;
    const double a1 = var_z * mz + 4.0 * cov_xy * mz - mxz * mxz - myz * myz;
    const double a0 =
        mxz * (mxz * myy - myz * mxy) + myz * (myz * mxx - mxz * mxy) - var_z * cov_xy;
    double t = 0.0, f = a0;
    for (int k = 0; k < 50; ++k) {
        const double slope = a1 + t * (2.0 * a2 + 3.0 * a3 * t);
        const double next = t - f / slope;
        if (next == t || !std::isfinite(next)) break;
        const double fn = a0 + next * (a1 + next * (a2 + next * a3));
        if (!(std::fabs(fn) < std::fabs(f))) break;
        t = next;
        f = fn;
    }
    const double det = t * t - t * mz + cov_xy;
    if (!(std::fabs(det) > 0.0)) return true;
    const double ca = 0.5 * (mxz * (myy - t) - myz * mxy) / det;
    const double cb = 0.5 * (myz * (mxx - t) - mxz * mxy) / det;
    const double cr = std::sqrt(ca * ca + cb * cb + mz);
    if (std::isfinite(ca) && std::isfinite(cb) && std::isfinite(cr)) {
        a = ca + mx;
        b = cb + my;
        r = cr;
    }
    return true;
}

tsProjectedCircles::Pass tsProjectedCircles::evaluate(double a, double b, double r_ref) const {
    if (q_)
        return want_max_ ? evaluate_with<true, true>(a, b, r_ref)
                         : evaluate_with<true, false>(a, b, r_ref);
    return want_max_ ? evaluate_with<false, true>(a, b, r_ref)
                     : evaluate_with<false, false>(a, b, r_ref);
}

template <bool kOffsets, bool kExtremes>
tsProjectedCircles::Pass tsProjectedCircles::evaluate_with(double a, double b, double r_ref) const {
    const int n = n_;
    const double* __restrict x = x_.data();
    const double* __restrict y = y_.data();
    double* __restrict l = l_.data();
    double* __restrict inv = inv_.data();
    // Distances and their reciprocals first, in a loop without sums and
    // branches that the compiler can vectorise. The tiny term keeps the
    // reciprocal finite for a point on the centre (its direction then
    // comes out as zero) and changes no other distance.
    for (int i = 0; i < n; ++i) {
        const double dx = x[i] - a, dy = y[i] - b;
        const double li = std::sqrt(dx * dx + dy * dy + kTiny);
        l[i] = li;
        inv[i] = 1.0 / li;
    }
    // Then the sums, as few as the step needs: with g_i the unit
    // direction from the centre, g_i e_i = (Q_i - C) + (q_i - r_ref) g_i,
    // so the sums of g e follow from those of g (and of q g with probe
    // radii), and |g_i| = 1 gives the sum of gy^2 from that of gx^2.
    const double* q = q_;
    double se = 0, see = 0, sgx = 0, sgy = 0, sxx = 0, sxy = 0, sqx = 0, sqy = 0;
    double sek = 0, sexx = 0, sexy = 0, sk = 0, skxx = 0, skxy = 0;
    double emin = DBL_MAX, emax = -DBL_MAX;
    for (int i = 0; i < n; ++i) {
        const double k = inv[i];
        const double gx = (x[i] - a) * k, gy = (y[i] - b) * k;
        const double e = (kOffsets ? l[i] + q[i] : l[i]) - r_ref;
        // Curvature 1 / L; none for a point on the centre, where it is
        // unbounded.
        const double kc = k < kMaxCurvature ? k : 0.0;
        const double xx = gx * gx, xy = gx * gy, ek = e * kc;
        se += e;
        see += e * e;
        sgx += gx;
        sgy += gy;
        sxx += xx;
        sxy += xy;
        if (kOffsets) {
            sqx += q[i] * gx;
            sqy += q[i] * gy;
        }
        sek += ek;
        sexx += ek * xx;
        sexy += ek * xy;
        sk += kc;
        skxx += kc * xx;
        skxy += kc * xy;
        if (kExtremes) {
            emin = e < emin ? e : emin;
            emax = e > emax ? e : emax;
        }
    }
    const double syy = n - sxx;
    const double sxe = (sx_ - n * a) + sqx - r_ref * sgx;
    const double sye = (sy_ - n * b) + sqy - r_ref * sgy;
    Pass p;
    const double inv_n = 1.0 / n;
    const double me = se * inv_n;
    p.a = a;
    p.b = b;
    p.r = r_ref + me;
    p.sum_squares = std::fmax(see - se * me, 0.0);
    if (kExtremes) p.max_residual = std::fmax(emax - me, me - emin);
    // The residual of point i is d_i = e_i - mean e; a centre step
    // (da, db) changes it by -(g_i - mean g).(da, db) to first order, and
    // the curvature of |Q_i - C| adds d_i (I - g_i g_i^T) / L_i to the
    // Hessian of half the sum of squares.
    p.h00 = sxx - sgx * sgx * inv_n;
    p.h01 = sxy - sgx * sgy * inv_n;
    p.h11 = syy - sgy * sgy * inv_n;
    p.g0 = sxe - sgx * me;
    p.g1 = sye - sgy * me;
    p.c11 = sexx - me * skxx;
    p.c00 = (sek - me * sk) - p.c11;
    p.c01 = -(sexy - me * skxy);
    p.finite = std::isfinite(p.sum_squares) && std::isfinite(p.r) &&
               std::isfinite(p.h00 + p.h01 + p.h11 + p.g0 + p.g1) &&
               std::isfinite(p.c00 + p.c01 + p.c11);
    return p;
}
