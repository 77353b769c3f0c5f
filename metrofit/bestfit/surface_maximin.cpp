#include "metrofit/bestfit/surface_maximin.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/platform/maths/constrained_quadratic.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/vector.h"

const int tsSurfaceMaximin::MAX_ITERATIONS = 100;

namespace {

// Proximal weight of the step's programme, in the units of L.
const double kProximal = 1e-3;
// Largest and smallest trust-region bound (units of L, radians).
const double kMaxRadius = 1.0;
const double kMinRadius = 1e-12;
// Rise of every deviation (units of L per unit motion) above which a motion
// counts as escaping: the margin then has no maximum.
const double kEscape = 1e-6;

bool is_finite(double v) { return std::isfinite(v); }

}  // namespace

// The tangent planes of the valid points about their centroid, in units of
// the rms radius L: rows g_i (shift part then rotation part) and the scaled
// excesses e_i = (d_i - lower_i) / L.
struct tsSurfaceMaximin::Linearisation {
    int n_vars = 0;  // shift (3 or the lock count) + rotation (3 or 0)
    double scale = 1.0;
    giPoint3 centre = giPoint3(0.0, 0.0, 0.0);
    mlMatrix rows;
    mlVector excess;
    double margin = 0.0;  // min e_i * L
};

tsSurfaceMaximin::tsSurfaceMaximin() = default;

void tsSurfaceMaximin::reserve_points(int n) {
    points_.reserve(n);
    lower_limits_.reserve(n);
}

int tsSurfaceMaximin::add_point(const tsFitPoint3coPrf& p, double lower_limit) {
    if (!p || !is_finite(lower_limit)) return 0;
    points_.append(p);
    lower_limits_.append(lower_limit);
    return 1;
}

void tsSurfaceMaximin::lock_rotations(const giVector3& a, const giVector3& b, const giVector3& c) {
    rotations_locked_ = 1;
    // Gram-Schmidt: keep the part of each vector across those kept before;
    // a part below 1e-9 of the vector adds no new direction.
    for (const giVector3* v : {&a, &b, &c}) {
        if (v->x() == -DBL_MAX || shift_axes_.size() >= 3) continue;
        const double length = v->length();
        if (!(length > 0.0) || !is_finite(length)) continue;
        giVector3 r = *v;
        for (int k = 0; k < shift_axes_.size(); ++k)
            r = r - shift_axes_[k] * dot(r, shift_axes_[k]);
        const double rest = r.length();
        if (rest > 1e-9 * length) shift_axes_.append(r / rest);
    }
}

void tsSurfaceMaximin::project_all(const giXform3& xform, tsProjectedPoint3coDynArr& out) const {
    const int n = points_.size();
    out.clear(0);
    out.expand(n);
    if (!projector_) {
        for (int i = 0; i < n; ++i) out[i] = tsProjectedPoint3();
        return;
    }
    projector_->project_batch([this](int i) -> const tsFitPoint3& { return *points_.read(i); },
                              [&out](int i) -> tsProjectedPoint3& { return out[i]; }, n,
                              xform.is_identity(0.0) ? 1 : 0, xform);
}

double tsSurfaceMaximin::margin_of(const tsProjectedPoint3coDynArr& pts, int& n_valid) const {
    double m = DBL_MAX;
    n_valid = 0;
    for (int i = 0; i < pts.size(); ++i) {
        if (pts[i].invalid()) continue;
        ++n_valid;
        m = std::min(m, pts[i].signed_distance() - lower_limits_.read(i));
    }
    return m;
}

void tsSurfaceMaximin::linearise(const tsProjectedPoint3coDynArr& pts, Linearisation& lin) const {
    double c[3] = {0, 0, 0};
    int n_valid = 0;
    for (const tsProjectedPoint3& p : pts) {
        if (p.invalid()) continue;
        for (int k = 0; k < 3; ++k) c[k] += p.measured_point()[k];
        ++n_valid;
    }
    for (double& v : c) v /= std::max(1, n_valid);
    lin.centre = giPoint3(c[0], c[1], c[2]);
    double ss = 0.0;
    for (const tsProjectedPoint3& p : pts)
        if (!p.invalid()) ss += (p.measured_point() - lin.centre).length_squared();
    const double rms = std::sqrt(ss / std::max(1, n_valid));
    // Coincident points: any length unit serves, the rotation rows vanish.
    lin.scale = rms > 0.0 ? rms : 1.0;

    const int n_shift = rotations_locked_ ? shift_axes_.size() : 3;
    const int n_rot = rotations_locked_ ? 0 : 3;
    lin.n_vars = n_shift + n_rot;
    lin.rows.become(n_valid, std::max(1, lin.n_vars));
    lin.excess.become(mlVectorZero, n_valid);
    lin.margin = DBL_MAX;
    int r = 0;
    for (int i = 0; i < pts.size(); ++i) {
        const tsProjectedPoint3& p = pts[i];
        if (p.invalid()) continue;
        const giVector3 n = p.nominal_normal();
        double* row = lin.rows.row_data(r);
        for (int k = 0; k < n_shift; ++k)
            row[k] = rotations_locked_ ? dot(n, shift_axes_[k]) : n[k];
        if (n_rot) {
            const giVector3 arm = cross((p.measured_point() - lin.centre) / lin.scale, n);
            for (int k = 0; k < 3; ++k) row[n_shift + k] = arm[k];
        }
        const double e = p.signed_distance() - lower_limits_.read(i);
        lin.excess[r] = e / lin.scale;
        lin.margin = std::min(lin.margin, e);
        ++r;
    }
}

int tsSurfaceMaximin::solve_step(const Linearisation& lin, double radius, giXform3& step,
                                 int& hit_box, double& gain) const {
    const int nv = lin.n_vars, n = nv + 1, m_rows = lin.rows.rows();
    // Rows C z <= d over z = (x, m): -g_i . x + m <= e_i, then the box.
    mlMatrix C(mlMatrixZero, m_rows + 2 * nv, n);
    mlVector d(mlVectorZero, m_rows + 2 * nv);
    double start_m = DBL_MAX;
    for (int i = 0; i < m_rows; ++i) {
        const double* g = lin.rows.row_data(i);
        for (int k = 0; k < nv; ++k) C(i, k) = -g[k];
        C(i, nv) = 1.0;
        d[i] = lin.excess[i];
        start_m = std::min(start_m, lin.excess[i]);
    }
    for (int k = 0; k < nv; ++k) {
        C(m_rows + 2 * k, k) = 1.0;
        C(m_rows + 2 * k + 1, k) = -1.0;
        d[m_rows + 2 * k] = d[m_rows + 2 * k + 1] = radius;
    }
    mlMatrix M(mlMatrixIdentity, n);
    for (int k = 0; k < n; ++k) M(k, k) = kProximal;
    mlVector V(mlVectorZero, n);
    V[nv] = 1.0;
    mlVector z(mlVectorZero, n);
    z[nv] = start_m;  // no motion: feasible with the present margin
    mlConstrainedQuadraticMinimiser qp(C, d, 0);
    if (!qp.solve(M, V, z)) return 0;

    hit_box = 0;
    for (int k = 0; k < nv; ++k) hit_box = hit_box || std::fabs(z[k]) >= radius * (1.0 - 1e-9);
    gain = (z[nv] - start_m) * lin.scale;

    const int n_shift = rotations_locked_ ? shift_axes_.size() : 3;
    giVector3 t(0.0, 0.0, 0.0);
    for (int k = 0; k < n_shift; ++k)
        t = t + (rotations_locked_ ? shift_axes_[k] : giVector3(k == 0, k == 1, k == 2)) *
                    (z[k] * lin.scale);
    step.become(giIdentity);
    if (!rotations_locked_) {
        const giVector3 w(z[n_shift], z[n_shift + 1], z[n_shift + 2]);
        const double angle = w.length();
        if (angle > 0.0) step = giXform3::rotation(lin.centre, w, giAngle(giANGLE_RADIANS, angle));
    }
    step.premultiply(giXform3::translation(t));
    return 1;
}

int tsSurfaceMaximin::fit(double tolerance, giXform3& xform, double& margin, intcoDynArr& holding,
                          int& n_unprojected) {
    iterations_ = 0;
    if (points_.size() == 0) return tsSURFACE_MAXIMIN_NO_POINTS;
    if (!projector_) return tsSURFACE_MAXIMIN_NO_PROJECTOR;
    if (!is_finite(tolerance) || tolerance < 0.0) return tsSURFACE_MAXIMIN_BAD_INPUT;

    giXform3 T(giIdentity);
    tsProjectedPoint3coDynArr current;
    project_all(T, current);
    int n_valid = 0;
    double m = margin_of(current, n_valid);
    if (n_valid == 0) {
        transformation_ = T;
        projected_ = current;
        return tsSURFACE_MAXIMIN_NO_PROJECTION;
    }

    // Escape test: the homogeneous programme (all excesses 0, unit box)
    // finds a motion that raises every deviation when one exists.
    Linearisation lin;
    linearise(current, lin);
    {
        Linearisation flat = lin;
        for (int i = 0; i < flat.excess.size(); ++i) flat.excess[i] = 0.0;
        giXform3 step;
        int hit = 0;
        double rise = 0.0;
        if (lin.n_vars > 0 && solve_step(flat, 1.0, step, hit, rise) &&
            rise > kEscape * lin.scale) {
            transformation_ = T;
            projected_ = current;
            return tsSURFACE_MAXIMIN_UNBOUNDED;
        }
    }

    int status = tsSURFACE_MAXIMIN_ITERATION_LIMIT;
    double radius = 0.25;
    tsProjectedPoint3coDynArr trial;
    for (; iterations_ < MAX_ITERATIONS; ++iterations_) {
        if (lin.n_vars == 0) {
            status = tsSURFACE_MAXIMIN_CONVERGED;
            break;
        }
        giXform3 step;
        int hit = 0;
        double gain = 0.0;
        const int solved = solve_step(lin, radius, step, hit, gain);
        // No motion raises the margin beyond the rounding of the programme.
        if (solved && !(gain > 1e-12 * lin.scale)) {
            status = tsSURFACE_MAXIMIN_CONVERGED;
            break;
        }
        int kept = 0;
        if (solved) {
            const giXform3 next = step * T;
            project_all(next, trial);
            int n_next = 0;
            const double m_next = margin_of(trial, n_next);
            if (n_next >= n_valid && m_next >= m) {
                double moved = 0.0;
                for (const tsProjectedPoint3& p : current)
                    if (!p.invalid())
                        moved = std::max(moved,
                                         (step * p.measured_point() - p.measured_point()).length());
                T = next;
                std::swap(current, trial);
                m = m_next;
                n_valid = n_next;
                kept = 1;
                if (hit) radius = std::min(kMaxRadius, 2.0 * radius);
                if (moved < tolerance) {
                    ++iterations_;
                    status = tsSURFACE_MAXIMIN_CONVERGED;
                    break;
                }
                linearise(current, lin);
            }
        }
        if (!kept) {
            radius *= 0.25;
            if (radius < kMinRadius) {
                ++iterations_;
                status = tsSURFACE_MAXIMIN_STALLED;
                break;
            }
        }
    }

    transformation_ = T;
    projected_ = current;
    // Holding points: within the holding tolerance of the margin.
    const double hold = std::max(tolerance, 1e-9 * lin.scale);
    holding.clear(0);
    n_unprojected = 0;
    for (int i = 0; i < current.size(); ++i) {
        if (current[i].invalid()) {
            ++n_unprojected;
            continue;
        }
        if (current[i].signed_distance() - lower_limits_.read(i) - m <= hold) holding.append(i);
    }
    xform = T;
    margin = m;
    return status;
}
