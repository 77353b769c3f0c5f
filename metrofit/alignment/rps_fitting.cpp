#include "metrofit/alignment/rps_fitting.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/svd.h"
#include "metrofit/platform/maths/vector.h"

namespace {

// Speeds of the intermediate fits: the light tie of the first try and the
// strong one of the second (see the header comment).
constexpr double kLightTie = 0.01;
constexpr double kStrongTie = 1.0;
// Iterations after which every step takes the strong tie at once.
constexpr int kStrongTieAfter = 30;
// Iterations before a step that does not lower the mean square distance is
// tried again with the strong tie.
constexpr int kRetryAfter = 4;
// Bestfit entries beyond which the first downhill search runs on a sample.
constexpr int kSearchSample = 256;
// Passes without a lower mean square distance after which fit() stops.
constexpr int kStallPasses = 10;

bool is_finite_xform(const giXform3& X) {
    if (!X.is_set()) return false;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            if (!std::isfinite(X(r, c))) return false;
    return true;
}

// The least-squares objective of the embedded entries under a motion, as
// the direct fit weighs it (positioning entries 1000 times, a balanced pair
// as one residual, the attraction on the tangential part of every bestfit
// plane entry), and its Gauss-Newton normal equations in the parameters
// (t, w) of the small motion x -> x + t + w x (x - c) after `motion`. With a
// locked direction b the turn is restricted to w = theta b.
class LeastSquaresPolish {
   public:
    LeastSquaresPolish(const tsPointsToPlanes& p, double attraction)
        : p_(p), attraction_(attraction) {}

    // f(motion) and, with M and V non-null, the normal equations about c.
    double evaluate(const giXform3& motion, const giPoint3& c, const giVector3* axis, mlMatrix* M,
                    mlVector* V) const {
        const int k = axis ? 4 : 6;
        if (M) {
            M->become(mlMatrixZero, k, k);
            V->become(mlVectorZero, k);
        }
        double f = 0.0;
        double row[6];
        // One residual n . v (n carrying the weight), its row into M, V.
        auto add = [&](const double* a, double r) {
            f += r * r;
            if (!M) return;
            for (int i = 0; i < k; ++i) {
                (*V)[i] -= a[i] * r;
                for (int j = 0; j < k; ++j) (*M)(i, j) += a[i] * a[j];
            }
        };
        // The row of n . (t + w x (m' - c)): (n, (m' - c) x n), reduced.
        auto plane_row = [&](const giPoint3& m, const giVector3& n, double scale, double* a) {
            const giVector3 arm = cross(m - c, n);
            a[0] = scale * n.x(), a[1] = scale * n.y(), a[2] = scale * n.z();
            if (axis)
                a[3] = scale * dot(arm, *axis);
            else
                a[3] = scale * arm.x(), a[4] = scale * arm.y(), a[5] = scale * arm.z();
        };
        const tsPlaneAndPointcoDynArr& pos = p_.positioning_entries();
        for (const tsPlaneAndPoint& e : pos) {
            const giPoint3 m = motion * e.measured_point;
            const double w = tsPointsToPlanes::POSITIONING_WEIGHT;
            if (e.kind == 0) {
                point_rows(m, e, w * e.normal.length(), c, axis, add);
                continue;
            }
            plane_row(m, e.normal, w, row);
            add(row, w * dot(e.normal, m - e.nominal_point));
        }
        const tsPlaneAndPointcoDynArr& bf = p_.bestfit_entries();
        const tsBalancePairs& pairs = p_.balance_pairs();
        const int n = bf.size(), slots = static_cast<int>(pairs.size());
        for (int i = 0; i < n; ++i) {
            const tsPlaneAndPoint& e = bf[i];
            const giPoint3 m = motion * e.measured_point;
            if (e.kind == 0) {
                point_rows(m, e, e.normal.length(), c, axis, add);
                continue;
            }
            tie(m, e, c, axis, f, M, V);
            plane_row(m, e.normal, 1.0, row);
            double r = dot(e.normal, m - e.nominal_point);
            if (i < slots && pairs[i].first > i && i + 1 < n) {
                const tsPlaneAndPoint& g = bf[i + 1];
                const giPoint3 m2 = motion * g.measured_point;
                tie(m2, g, c, axis, f, M, V);
                double row2[6];
                plane_row(m2, g.normal, 1.0, row2);
                const double c1 = pairs[i].second, c2 = pairs[i + 1].second;
                for (int j = 0; j < k; ++j) row[j] = c1 * row[j] + c2 * row2[j];
                r = c1 * r + c2 * dot(g.normal, m2 - g.nominal_point);
                ++i;
            }
            add(row, r);
        }
        return f;
    }

   private:
    // The three rows |n| (v + t + w x (m' - c)) of a point entry.
    template <class Add>
    static void point_rows(const giPoint3& m, const tsPlaneAndPoint& e, double scale,
                           const giPoint3& c, const giVector3* axis, Add& add) {
        const giVector3 v = m - e.nominal_point, arm = m - c;
        for (int r = 0; r < 3; ++r) {
            double a[6] = {0, 0, 0, 0, 0, 0};
            a[r] = scale;
            // Row r of w x arm = -arm x w: the derivative by w is -[arm]x row r.
            const giVector3 unit(r == 0, r == 1, r == 2);
            const giVector3 dw = cross(arm, unit);  // (w x arm)_r = w . (arm x e_r)
            if (axis)
                a[3] = scale * dot(dw, *axis);
            else
                a[3] = scale * dw.x(), a[4] = scale * dw.y(), a[5] = scale * dw.z();
            add(a, scale * v[r]);
        }
    }

    // The attraction a |P v|^2 of a bestfit plane entry, P the projector
    // across its normal: a J^T P J into M and -a J^T P v into V.
    void tie(const giPoint3& m, const tsPlaneAndPoint& e, const giPoint3& c, const giVector3* axis,
             double& f, mlMatrix* M, mlVector* V) const {
        if (attraction_ == 0.0) return;
        const double nn = e.normal.length_squared();
        if (!(nn > 0.0)) return;
        const giVector3 v = m - e.nominal_point, arm = m - c;
        const giVector3 across = v - (dot(e.normal, v) / nn) * e.normal;
        f += attraction_ * dot(across, across);
        if (!M) return;
        // J columns: e_x, e_y, e_z for t; arm x e_r ... as rows of derivatives.
        const int k = axis ? 4 : 6;
        giVector3 cols[6];
        for (int r = 0; r < 3; ++r) cols[r] = giVector3(r == 0, r == 1, r == 2);
        // d/dw (w x arm) = columns e_j x arm.
        if (axis) {
            cols[3] = cross(*axis, arm);
        } else {
            for (int j = 0; j < 3; ++j) cols[3 + j] = cross(giVector3(j == 0, j == 1, j == 2), arm);
        }
        giVector3 pc[6];
        for (int j = 0; j < k; ++j) pc[j] = cols[j] - (dot(e.normal, cols[j]) / nn) * e.normal;
        for (int i = 0; i < k; ++i) {
            (*V)[i] -= attraction_ * dot(pc[i], v);
            for (int j = 0; j < k; ++j) (*M)(i, j) += attraction_ * dot(pc[i], pc[j]);
        }
    }

    const tsPointsToPlanes& p_;
    double attraction_;
};

// Gauss-Newton iterations of the direct fit's least-squares objective from
// `motion`, each step kept only when it lowers the objective: the downhill
// search ends near the minimum (its simplex shrinks in the value, which the
// positioning weight makes ill-conditioned), the polish takes it to the
// rounding level. Not for tolerance bands (their objective is a minimax) nor
// rotation locks.
void polish(const tsPointsToPlanes& p, double attraction, giXform3& motion) {
    if (p.has_limits() || p.rotation_locks().size() > 0) return;
    const int n_pos = p.positioning_entries().size(), n_bf = p.bestfit_entries().size();
    if (n_pos + n_bf == 0) return;
    giPoint3 c(0.0, 0.0, 0.0);
    {
        double s[3] = {0.0, 0.0, 0.0};
        for (const tsPlaneAndPointcoDynArr* set : {&p.positioning_entries(), &p.bestfit_entries()})
            for (const tsPlaneAndPoint& e : *set) {
                const giPoint3 m = motion * e.measured_point;
                for (int k = 0; k < 3; ++k) s[k] += m[k];
            }
        c = giPoint3(s[0] / (n_pos + n_bf), s[1] / (n_pos + n_bf), s[2] / (n_pos + n_bf));
    }
    // A locked direction: carry the measured one onto it (onto the nearer
    // sense in flip mode), then turn about it only.
    giVector3 axis;
    const giVector3* locked = nullptr;
    if (p.lock_directions().size() > 0 && p.lock_points().size() > 0) {
        const giVector3 a = motion * p.lock_points()[0];
        giVector3 b = p.lock_directions()[0];
        if (!(b.length() > 0.0) || !(a.length() > 0.0)) return;
        b = b / b.length();
        if (p.direction_flip_mode() != 0 && dot(a, b) < 0.0) b = b * -1.0;
        giXform3 L;
        if (tsPointsToPlanes::find_lock_matrix(a, b, 0, c, L)) motion.premultiply(L);
        axis = b;
        locked = &axis;
    }
    const LeastSquaresPolish objective(p, attraction);
    double f = objective.evaluate(motion, c, locked, nullptr, nullptr);
    mlMatrix M;
    mlVector V, x;
    for (int iteration = 0; iteration < 20 && f > 0.0; ++iteration) {
        objective.evaluate(motion, c, locked, &M, &V);
        const mlSingularValueDecomposition svd(M);
        if (!svd.solve(V, x, 1e-14)) return;
        const giVector3 t(x[0], x[1], x[2]);
        const giVector3 w = locked ? x[3] * axis : giVector3(x[3], x[4], x[5]);
        giXform3 step = giXform3::translation(t);
        if (w.length() > 0.0)
            step = step * giXform3::rotation(c, w, giAngle(giANGLE_RADIANS, w.length()));
        const giXform3 trial = step * motion;
        const double f1 = objective.evaluate(trial, c, locked, nullptr, nullptr);
        if (!(f1 < f)) return;
        motion = trial;
        f = f1;
    }
}

}  // namespace

double signed_norm_dev(const tsProjectedPoint3& p, const giXform3& X) {
    return dot(X * p.measured_point() - p.nominal_point(), p.nominal_normal());
}

double square_dev(const tsProjectedPoint3& p, const giXform3& X) {
    const giVector3 v = X * p.measured_point() - p.nominal_point();
    return dot(v, v);
}

tsRPSFitting::tsRPSFitting(int max_iterations, double tolerance)
    : transform_(giIdentity),
      max_iterations_(max_iterations),
      square_tolerance_(tolerance * tolerance) {}

// ---------------------------------------------------------------- loading

void tsRPSFitting::add_positioning(const giPoint3& measured, const giWorkplane3& frame,
                                   const giPoint3& nominal, tsPointsToPlanes::PLANE_STATE x_state,
                                   tsPointsToPlanes::PLANE_STATE y_state,
                                   tsPointsToPlanes::PLANE_STATE z_state) {
    fitter_.add_positioning(measured, frame, nominal, x_state, y_state, z_state, 1);
}

void tsRPSFitting::add_point(const tsFitPoint3coPrf& point, double lower_limit,
                             double upper_limit) {
    points_.append(point);
    lower_limits_.append(lower_limit);
    upper_limits_.append(upper_limit);
}

void tsRPSFitting::add_balance(const tsFitPoint3coPrf& point1, double coefficient1,
                               const tsFitPoint3coPrf& point2, double coefficient2) {
    const int first = points_.size();
    balance_pairs_.resize(first, std::make_pair(-1, 0.0));
    add_point(point1, -DBL_MAX, DBL_MAX);
    add_point(point2, -DBL_MAX, DBL_MAX);
    balance_pairs_.emplace_back(first + 1, coefficient1);
    balance_pairs_.emplace_back(first, coefficient2);
}

void tsRPSFitting::lock_direction(const giVector3& measured, const giVector3& nominal, int mode) {
    fitter_.lock_direction(measured, nominal, mode);
}

void tsRPSFitting::lock_axis(const giInfLine3& measured, const giInfLine3& nominal, int mode) {
    if (!measured.is_set() || !nominal.is_set()) return;
    fitter_.lock_direction(measured.direction(), nominal.direction(), mode);
    // Two planes through the nominal line, across it: the measured point
    // held on both lies on the line.
    const giUnitVec3 across1 = nominal.direction().any_normal();
    const giVector3 across2 = cross(nominal.direction(), across1);
    fitter_.add_positioning(measured.point(), nominal.point(), across1, 1);
    fitter_.add_positioning(measured.point(), nominal.point(), across2, 1);
}

void tsRPSFitting::lock_plane(const giPlane& measured, const giPlane& nominal, int mode) {
    if (!measured.is_set() || !nominal.is_set()) return;
    fitter_.lock_direction(measured.normal(), nominal.normal(), mode);
    fitter_.add_positioning(measured.point(), nominal.point(), nominal.normal(), 1);
}

void tsRPSFitting::reserve_points(int n) {
    points_.reserve(n);
    lower_limits_.reserve(n);
    upper_limits_.reserve(n);
    projected_.reserve(n);
}

// ---------------------------------------------------------------- measures

double tsRPSFitting::get_square_distance(const tsProjectedPoint3coDynArr& points,
                                         const giXform3& X) const {
    const int n = points.size();
    const int slots = static_cast<int>(balance_pairs_.size());
    double sum = 0.0;
    int terms = 0;
    for (int i = 0; i < n; ++i) {
        const int partner = i < slots ? balance_pairs_[i].first : -1;
        if (partner >= i) {
            // The first of a balanced pair: one term with the next point,
            // none when either is lost.
            const int j = i + 1;
            if (!points[i].invalid() && j < n && !points[j].invalid()) {
                const double r = balance_pairs_[i].second * signed_norm_dev(points[i], X) +
                                 balance_pairs_[j].second * signed_norm_dev(points[j], X);
                sum += r * r;
                ++terms;
            }
            ++i;
            continue;
        }
        if (points[i].invalid()) continue;
        sum += square_dev(points[i], X);
        ++terms;
    }
    return terms ? sum / terms : sum;
}

// ---------------------------------------------------------------- projection

void tsRPSFitting::reproject_all_points(giXform3& xform) {
    const int n = points_.size();
    projected_.clear(0);
    projected_.expand(n);
    if (projector_) {
        projector_->project_batch([this](int i) -> const tsFitPoint3& { return *points_.read(i); },
                                  [this](int i) -> tsProjectedPoint3& { return projected_[i]; }, n,
                                  initial_projection_, xform);
    }
    initial_projection_ = 0;
}

void tsRPSFitting::extract_fitting_data() {
    reproject_all_points(transform_);
    num_valid_projections_ = 0;
    for (const tsProjectedPoint3& p : projected_) num_valid_projections_ += p.invalid() ? 0 : 1;
    load_entries(1);
}

void tsRPSFitting::load_entries(int stride) {
    const int n = projected_.size();
    const int slots = static_cast<int>(balance_pairs_.size());
    fitter_.clear_bestfit_data();
    fitter_.reserve_bestfit(num_valid_projections_ / stride + 2);
    for (int i = 0; i < n; ++i) {
        const tsProjectedPoint3& p = projected_[i];
        const bool kept = i % stride == 0;
        const int partner = i < slots ? balance_pairs_[i].first : -1;
        if (partner >= i) {
            const int j = ++i;
            if (!kept || p.invalid() || j >= n || projected_[j].invalid()) continue;
            const tsProjectedPoint3& q = projected_[j];
            fitter_.add_balance(p.measured_point(), p.nominal_point(), p.nominal_normal(),
                                balance_pairs_[j - 1].second, q.measured_point(), q.nominal_point(),
                                q.nominal_normal(), balance_pairs_[j].second, 1.0);
            continue;
        }
        if (!kept || p.invalid()) continue;
        fitter_.add_bestfit(p.measured_point(), p.nominal_point(), p.nominal_normal(),
                            lower_limits_.read(i), upper_limits_.read(i), 1.0);
    }
}

// ---------------------------------------------------------------- iteration

int tsRPSFitting::do_intermediate_bestfit(giXform3& step, double speed, int first) {
    fitter_.set_fitting_points_attraction(speed);
    giXform3 motion(giIdentity);
    // The downhill search finds the minimum wherever it lies (from many
    // starts on the first step, from no motion on the later ones, which only
    // need it for tolerance bands); the Gauss-Newton polish then settles it.
    if (first || fitter_.has_limits()) {
        // Without bands the first search runs on an even sample of the
        // projections (the polish below uses them all): the many starts of
        // the downhill search would otherwise cost a pass over every point
        // per evaluation.
        const int n = fitter_.bestfit_entries().size();
        const int stride = first && !fitter_.has_limits() && n > kSearchSample
                               ? (projected_.size() + kSearchSample - 1) / kSearchSample
                               : 1;
        if (stride > 1) load_entries(stride);
        fitter_.multiple_guesses(first ? 1 : 0);
        fitter_.fit(motion, std::sqrt(square_tolerance_), nullptr);
        if (stride > 1) load_entries(1);
        if (!is_finite_xform(motion)) return 0;
    }
    polish(fitter_, speed, motion);
    if (!is_finite_xform(motion)) return 0;
    step.premultiply(motion);
    return 1;
}

void tsRPSFitting::apply_step(const giXform3& step) {
    last_movement_ = get_maximum_movement(projected_, step);
    transform_.premultiply(step);
    fitter_.transform_rps_data(step);
    mean_square_distance_ = get_square_distance(projected_, step);
}

int tsRPSFitting::do_iteration() {
    extract_fitting_data();
    status_ = tsRPS_FITTING_OK;
    if (num_valid_projections_ < 3 && !fitter_.have_constraints()) {
        status_ = tsRPS_FITTING_TOO_FEW_PROJECTIONS;
        return 0;
    }
    const int first = iterations_ == 0;
    if (first) {
        // The positioning is settled once, before the first step: spares
        // join an open positioning, and in over-constrained mode entries
        // that add nothing leave it. Then its points are cached as measured.
        giXform3 scratch(giIdentity);
        fitter_.fix_undetermined_positioning(scratch);
        if (overconstrained_mode_ != 0) {
            scratch.become(giIdentity);
            fitter_.fix_overdetermined_positioning(scratch);
        }
        fitter_.standard_deviation_of_nominals(transform_);
    }
    giXform3 step(giIdentity);
    int ok = 1;
    if (num_valid_projections_ == 0) {
        // Nothing to fit: the positioning alone places the part.
        if (overconstrained_mode_ == 0)
            ok = do_intermediate_bestfit(step, 0.0, 1);
        else
            fitter_.fix_overdetermined_positioning(step);
        ++iterations_;
    } else if (first) {
        mean_square_distance_ = DBL_MAX;
        ok = do_intermediate_bestfit(step, kLightTie, 1);
        ++iterations_;
    } else {
        const double before = mean_square_distance_;
        const double speed = iterations_ > kStrongTieAfter ? kStrongTie : kLightTie;
        ok = do_intermediate_bestfit(step, speed, 0);
        ++iterations_;
        if (ok && speed == kLightTie && iterations_ > kRetryAfter &&
            !(get_square_distance(projected_, step) < before)) {
            giXform3 retry(giIdentity);
            if (do_intermediate_bestfit(retry, kStrongTie, 0)) step = retry;
            ++iterations_;
        }
    }
    if (!ok) {
        status_ = tsRPS_FITTING_STEP_FAILED;
        return 0;
    }
    apply_step(step);
    const bool limit = iterations_ > max_iterations_;
    if (limit || last_movement_ * last_movement_ < square_tolerance_) {
        extract_fitting_data();
        mean_square_distance_ = get_square_distance(projected_, giXform3(giIdentity));
        if (limit && !(last_movement_ * last_movement_ < square_tolerance_))
            status_ = tsRPS_FITTING_NOT_CONVERGED;
        return 0;
    }
    return 1;
}

tsRPS_FITTING_STATUS tsRPSFitting::fit() {
    giXform3 best_transform(giIdentity);
    double best = DBL_MAX;
    int stall = 0, first_valid = -1;
    // One pass: the projections still there, and the best transform so far.
    // Returns 0 when the fit must end.
    auto pass = [&]() {
        if (first_valid < 0) {
            first_valid = num_valid_projections_;
        } else if (num_valid_projections_ < first_valid / 2) {
            status_ = tsRPS_FITTING_PROJECTIONS_LOST;
            return 0;
        }
        if (mean_square_distance_ < best) {
            best = mean_square_distance_;
            best_transform = transform_;
            stall = 0;
        } else if (++stall > kStallPasses) {
            return 0;
        }
        return 1;
    };
    int going = do_iteration();
    // Every state an iteration leaves is weighed, the last one included.
    while (status_ >= 0 && iterations_ > 0) {
        if (!pass()) {
            if (status_ == tsRPS_FITTING_PROJECTIONS_LOST) return status_;
            break;
        }
        if (!going) break;
        going = do_iteration();
    }
    if (iterations_ > 0 && best < DBL_MAX) {
        transform_ = best_transform;
        mean_square_distance_ = best;
    }
    return status_;
}

// ---------------------------------------------------------------- positioning

int tsRPSFitting::rps_determined(int mode, giXform3& xform) {
    fitter_.clear_bestfit_data();
    if (!fitter_.have_enough_data()) return 0;
    return fitter_.test_positioning(mode, xform) != 0 ? 1 : 0;
}

void tsRPSFitting::slow_first_iteration() {
    initial_projection_ = 1;
    iterations_ = 0;
    fitter_.increase_num_guesses();
    // The positioning data return to where they were measured with the
    // transform.
    fitter_.transform_rps_data(transform_.inverse());
    transform_.become(giIdentity);
}
