#include "metrofit/bestfit/surface_maximin.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

#include "metrofit/platform/maths/constrained_quadratic.h"
#include "metrofit/platform/maths/eigen.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/vector.h"

const int tsSurfaceMaximin::MAX_ITERATIONS = 100;

namespace {

// Proximal weight of the step's programme, in the units of L.
const double kProximal = 1e-3;
// Among the steps that raise the margin alike, the proximal term prefers
// shifts: a turn costs this many times a shift of the same size in units
// of L (a turn moves points at second order, a shift does not).
const double kRotationWeight = 100.0;
// Largest and smallest trust-region bound (units of L, radians).
const double kMaxRadius = 1.0;
const double kMinRadius = 1e-12;
// Rise of every deviation (units of L per unit motion) above which a motion
// counts as escaping: the margin then has no maximum.
const double kEscape = 1e-6;
// Evening stages at most (each fixes at least one direction of motion, and
// there are at most six).
const int kMaxStages = 8;
// Points at a level beyond this many are all held without the test of
// which of them bind (a test that costs one small programme each).
const int kMaxClassified = 256;
// A free point whose gradient over the motions left is shorter than this
// (units of L) is settled: no motion left moves it.
const double kSettled = 1e-9;

bool is_finite(double v) { return std::isfinite(v); }

// A finite rotation and shift (the linear part orthonormal to 1e-9).
bool is_rigid(const giXform3& x) {
    if (!x.is_set()) return false;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            if (!is_finite(x(r, c))) return false;
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b) {
            double d = 0.0;
            for (int k = 0; k < 3; ++k) d += x(k, a) * x(k, b);
            if (std::fabs(d - (a == b ? 1.0 : 0.0)) > 1e-9) return false;
        }
    return x.determinant() > 0.0;
}

}  // namespace

// The tangent planes of the valid points about their centroid, in units of
// the rms radius L. A motion is x = B y: B's columns span the motions that
// leave every held point's deviation unchanged to first order (all of the
// shift part, 3 or the lock count, and rotation part, 3 or 0, when nothing
// is held). Rows are the free points' gradients g_i B, excesses their
// (d_i - lower_i) / L.
struct tsSurfaceMaximin::Linearisation {
    int n_full = 0;  // shift + rotation coordinates
    int n_vars = 0;  // columns of B
    double scale = 1.0;
    giPoint3 centre = giPoint3(0.0, 0.0, 0.0);
    mlMatrix basis;   // n_full x n_vars
    mlMatrix rows;    // free points x n_vars
    mlVector excess;  // free points
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

double tsSurfaceMaximin::margin_of(const tsProjectedPoint3coDynArr& pts,
                                   const doublecoDynArr& floors, double slack, int& n_valid,
                                   int& held_kept) const {
    double m = DBL_MAX;
    n_valid = 0;
    held_kept = 1;
    for (int i = 0; i < pts.size(); ++i) {
        if (pts[i].invalid()) continue;
        ++n_valid;
        const double e = pts[i].signed_distance() - lower_limits_.read(i);
        if (floors[i] == -DBL_MAX)
            m = std::min(m, e);
        else if (e < floors[i] - slack)
            held_kept = 0;
    }
    return m;
}

void tsSurfaceMaximin::linearise(const tsProjectedPoint3coDynArr& pts, const doublecoDynArr& floors,
                                 Linearisation& lin) const {
    double c[3] = {0, 0, 0};
    int n_valid = 0, n_free = 0;
    for (int i = 0; i < pts.size(); ++i) {
        if (pts[i].invalid()) continue;
        for (int k = 0; k < 3; ++k) c[k] += pts[i].measured_point()[k];
        ++n_valid;
        n_free += floors[i] == -DBL_MAX;
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
    const int nf = n_shift + (rotations_locked_ ? 0 : 3);
    lin.n_full = nf;
    // Full gradient of point i: shift part, then the arm about the centre.
    auto gradient = [&](const tsProjectedPoint3& p, double* g) {
        const giVector3 n = p.nominal_normal();
        for (int k = 0; k < n_shift; ++k) g[k] = rotations_locked_ ? dot(n, shift_axes_[k]) : n[k];
        if (nf > n_shift) {
            const giVector3 arm = cross((p.measured_point() - lin.centre) / lin.scale, n);
            for (int k = 0; k < 3; ++k) g[n_shift + k] = arm[k];
        }
    };

    // B: the whole space, or the null space of the held gradients (their
    // normal matrix's eigenvalues at most 1e-10 of the largest; none above
    // 0: nothing held counts).
    double g[6];
    mlMatrix normal(mlMatrixZero, std::max(1, nf), std::max(1, nf));
    int n_held = 0;
    for (int i = 0; i < pts.size(); ++i) {
        if (pts[i].invalid() || floors[i] == -DBL_MAX) continue;
        gradient(pts[i], g);
        for (int r = 0; r < nf; ++r)
            for (int k = 0; k < nf; ++k) normal(r, k) += g[r] * g[k];
        ++n_held;
    }
    lin.n_vars = nf;
    lin.basis.become(mlMatrixIdentity, std::max(1, nf));
    if (n_held > 0 && nf > 0) {
        mlSymEigenVecs eigen(normal);
        if (eigen.calculate()) {
            const double top = eigen.eigen_value(0);
            int first = nf;
            while (first > 0 && !(eigen.eigen_value(first - 1) > 1e-10 * top)) --first;
            lin.n_vars = nf - first;
            lin.basis.become(mlMatrixZero, nf, std::max(1, lin.n_vars));
            for (int j = 0; j < lin.n_vars; ++j) {
                const mlSlice v = eigen.eigen_vector(first + j);
                for (int k = 0; k < nf; ++k) lin.basis(k, j) = v[k];
            }
        } else {
            lin.n_vars = 0;
        }
    }

    lin.rows.become(mlMatrixZero, std::max(1, n_free), std::max(1, lin.n_vars));
    lin.excess.become(mlVectorZero, n_free);
    int r = 0;
    for (int i = 0; i < pts.size(); ++i) {
        if (pts[i].invalid() || floors[i] != -DBL_MAX) continue;
        gradient(pts[i], g);
        double* row = lin.rows.row_data(r);
        for (int j = 0; j < lin.n_vars; ++j) {
            double sum = 0.0;
            for (int k = 0; k < nf; ++k) sum += g[k] * lin.basis(k, j);
            row[j] = sum;
        }
        lin.excess[r] = (pts[i].signed_distance() - lower_limits_.read(i)) / lin.scale;
        ++r;
    }
}

int tsSurfaceMaximin::solve_step(const Linearisation& lin, double radius, giXform3& step,
                                 int& hit_box, double& gain) const {
    const int nv = lin.n_vars, n = nv + 1, m_rows = lin.excess.size();
    // Rows C z <= d over z = (y, m): -g_i . y + m <= e_i, then the box.
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
    // Proximal metric: rotations weigh kRotationWeight times shifts.
    const int n_shift = rotations_locked_ ? shift_axes_.size() : 3;
    mlMatrix M(mlMatrixZero, n, n);
    for (int j = 0; j < nv; ++j)
        for (int l = 0; l < nv; ++l) {
            double sum = 0.0;
            for (int k = 0; k < lin.n_full; ++k)
                sum += (k < n_shift ? 1.0 : kRotationWeight) * lin.basis(k, j) * lin.basis(k, l);
            M(j, l) = kProximal * sum;
        }
    M(nv, nv) = kProximal;
    mlVector V(mlVectorZero, n);
    V[nv] = 1.0;
    mlVector z(mlVectorZero, n);
    z[nv] = start_m;  // no motion: feasible with the present margin
    mlConstrainedQuadraticMinimiser qp(C, d, 0);
    if (!qp.solve(M, V, z)) return 0;

    hit_box = 0;
    for (int k = 0; k < nv; ++k) hit_box = hit_box || std::fabs(z[k]) >= radius * (1.0 - 1e-9);
    gain = (z[nv] - start_m) * lin.scale;

    double x[6] = {0, 0, 0, 0, 0, 0};
    for (int k = 0; k < lin.n_full; ++k)
        for (int j = 0; j < nv; ++j) x[k] += lin.basis(k, j) * z[j];
    giVector3 t(0.0, 0.0, 0.0);
    for (int k = 0; k < n_shift; ++k)
        t = t + (rotations_locked_ ? shift_axes_[k] : giVector3(k == 0, k == 1, k == 2)) *
                    (x[k] * lin.scale);
    step.become(giIdentity);
    if (!rotations_locked_) {
        const giVector3 w(x[n_shift], x[n_shift + 1], x[n_shift + 2]);
        const double angle = w.length();
        if (angle > 0.0) step = giXform3::rotation(lin.centre, w, giAngle(giANGLE_RADIANS, angle));
    }
    step.premultiply(giXform3::translation(t));
    return 1;
}

intcoDynArr tsSurfaceMaximin::binding_rows(const Linearisation& lin,
                                           const intcoDynArr& at_level) const {
    const int nv = lin.n_vars, k = at_level.size();
    if (nv == 0 || k > kMaxClassified) return at_level;
    // Rows -r_i . y <= 0 (no point at the level drops), then the unit box.
    mlMatrix C(mlMatrixZero, k + 2 * nv, nv);
    mlVector d(mlVectorZero, k + 2 * nv);
    for (int a = 0; a < k; ++a) {
        const double* g = lin.rows.row_data(at_level[a]);
        for (int j = 0; j < nv; ++j) C(a, j) = -g[j];
    }
    for (int j = 0; j < nv; ++j) {
        C(k + 2 * j, j) = 1.0;
        C(k + 2 * j + 1, j) = -1.0;
        d[k + 2 * j] = d[k + 2 * j + 1] = 1.0;
    }
    mlMatrix M(mlMatrixIdentity, nv);
    for (int j = 0; j < nv; ++j) M(j, j) = kProximal;
    intcoDynArr released, binding;
    for (int a = 0; a < k; ++a) released.append(0);
    for (int a = 0; a < k; ++a) {
        if (released[a]) continue;
        // The largest first-order rise of row a that drops no row at the
        // level; every row that rises with it is released too.
        mlVector V(mlVectorZero, nv);
        const double* g = lin.rows.row_data(at_level[a]);
        for (int j = 0; j < nv; ++j) V[j] = g[j];
        mlVector y(mlVectorZero, nv);
        mlConstrainedQuadraticMinimiser qp(C, d, 0);
        if (!qp.solve(M, V, y)) {
            binding.append(at_level[a]);
            continue;
        }
        for (int b = a; b < k; ++b) {
            const double* h = lin.rows.row_data(at_level[b]);
            double rise = 0.0;
            for (int j = 0; j < nv; ++j) rise += h[j] * y[j];
            if (rise > kEscape) released[b] = 1;
        }
        if (!released[a]) binding.append(at_level[a]);
    }
    return binding;
}

int tsSurfaceMaximin::climb(double tolerance, double slack, const doublecoDynArr& floors,
                            giXform3& T, tsProjectedPoint3coDynArr& current, Linearisation& lin) {
    int n_valid = 0, held_kept = 1;
    double m = margin_of(current, floors, slack, n_valid, held_kept);
    double radius = 0.25;
    tsProjectedPoint3coDynArr trial;
    for (int iteration = 0; iteration < MAX_ITERATIONS; ++iteration, ++iterations_) {
        if (lin.n_vars == 0 || lin.excess.size() == 0) return tsSURFACE_MAXIMIN_CONVERGED;
        giXform3 step;
        int hit = 0;
        double gain = 0.0;
        const int solved = solve_step(lin, radius, step, hit, gain);
        // No motion raises the smallest free excess beyond the rounding of
        // the programme, or a step inside the trust region promises less
        // than the tolerance.
        if (solved && (!(gain > 1e-12 * lin.scale) || (!hit && gain < tolerance)))
            return tsSURFACE_MAXIMIN_CONVERGED;
        int kept = 0;
        if (solved) {
            const giXform3 next = step * T;
            project_all(next, trial);
            int n_next = 0, held_next = 1;
            const double m_next = margin_of(trial, floors, slack, n_next, held_next);
            if (n_next >= n_valid && m_next >= m && held_next) {
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
                linearise(current, floors, lin);
                if (moved < tolerance) {
                    ++iterations_;
                    return tsSURFACE_MAXIMIN_CONVERGED;
                }
            }
        }
        if (!kept) {
            radius *= 0.25;
            if (radius < kMinRadius) {
                ++iterations_;
                return tsSURFACE_MAXIMIN_STALLED;
            }
        }
    }
    return tsSURFACE_MAXIMIN_ITERATION_LIMIT;
}

int tsSurfaceMaximin::fit(double tolerance, giXform3& xform, double& margin, intcoDynArr& holding,
                          int& n_unprojected) {
    iterations_ = 0;
    levels_.clear(0);
    if (points_.size() == 0) return tsSURFACE_MAXIMIN_NO_POINTS;
    if (!projector_) return tsSURFACE_MAXIMIN_NO_PROJECTOR;
    if (!is_finite(tolerance) || tolerance < 0.0 || !is_rigid(start_))
        return tsSURFACE_MAXIMIN_BAD_INPUT;

    const int n = points_.size();
    doublecoDynArr floors;
    floors.expand(n);
    for (int i = 0; i < n; ++i) floors[i] = -DBL_MAX;
    giXform3 T = start_;
    tsProjectedPoint3coDynArr current;
    project_all(T, current);
    int n_valid = 0, held_kept = 1;
    margin_of(current, floors, 0.0, n_valid, held_kept);
    if (n_valid == 0) {
        transformation_ = T;
        projected_ = current;
        return tsSURFACE_MAXIMIN_NO_PROJECTION;
    }

    // Escape test: the homogeneous programme (all excesses 0, unit box)
    // finds a motion that raises every deviation when one exists.
    Linearisation lin;
    linearise(current, floors, lin);
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
    const double hold = std::max(tolerance, 1e-9 * lin.scale);

    // The margin, then (when evening) one level after another: the points
    // that bind at the level just reached are held at it, and the next stage
    // raises the smallest excess of the rest.
    int status = climb(tolerance, hold, floors, T, current, lin);
    for (int stage = 0; stage < kMaxStages; ++stage) {
        const double level = margin_of(current, floors, hold, n_valid, held_kept);
        if (level == DBL_MAX) break;  // every valid point held
        levels_.append(level);
        if (!even_ || stage + 1 == kMaxStages) break;
        // The free points at the level (lin's rows, in point order) that no
        // motion keeping the others there can raise are held at it.
        intcoDynArr at_level;
        std::vector<int> row_point;
        for (int i = 0; i < n; ++i) {
            if (current[i].invalid() || floors[i] != -DBL_MAX) continue;
            if (current[i].signed_distance() - lower_limits_.read(i) - level <= hold)
                at_level.append(static_cast<int>(row_point.size()));
            row_point.push_back(i);
        }
        // When none binds, the stage stopped within the tolerance of its
        // optimum: all of them are held, so that every stage holds a point.
        const intcoDynArr binding = binding_rows(lin, at_level);
        for (int r : binding.size() ? binding : at_level) floors[row_point[r]] = level;
        linearise(current, floors, lin);
        // Free points that no motion left moves (their gradients lie in the
        // span of the held ones) are settled where they are.
        row_point.clear();
        for (int i = 0; i < n; ++i)
            if (!current[i].invalid() && floors[i] == -DBL_MAX) row_point.push_back(i);
        int settled = 0;
        for (int r = 0; r < lin.excess.size(); ++r) {
            double square = 0.0;
            for (int j = 0; j < lin.n_vars; ++j) square += lin.rows(r, j) * lin.rows(r, j);
            if (square > kSettled * kSettled) continue;
            floors[row_point[r]] = lin.excess[r] * lin.scale;
            ++settled;
        }
        if (settled) linearise(current, floors, lin);
        if (lin.excess.size() == 0 || lin.n_vars == 0) break;
        // An evening stage keeps every level reached; where it stops (its
        // own limits) does not change the status of the margin.
        climb(tolerance, hold, floors, T, current, lin);
    }

    // The evening stages keep each held point within `hold` of its floor
    // (their linear steps drop it at second order); a last margin climb from
    // the evened pose takes the margin back with a motion of that size.
    if (levels_.size() > 1) {
        for (int i = 0; i < n; ++i) floors[i] = -DBL_MAX;
        linearise(current, floors, lin);
        climb(tolerance, hold, floors, T, current, lin);
    }

    transformation_ = T;
    projected_ = current;
    double m = DBL_MAX;
    for (int i = 0; i < n; ++i)
        if (!current[i].invalid())
            m = std::min(m, current[i].signed_distance() - lower_limits_.read(i));
    // Holding points: within the holding tolerance of the margin.
    holding.clear(0);
    n_unprojected = 0;
    for (int i = 0; i < n; ++i) {
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
