#include "metrofit/features/cylinder.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/features/axial_common.h"
#include "metrofit/features/probed_cylinder.h"
#include "metrofit/features/projected_circles.h"
#include "metrofit/features/random_directions.h"
#include "metrofit/frame/input_checks.h"
#include "metrofit/platform/geometry/circle.h"
#include "metrofit/platform/geometry/xform.h"
#include "metrofit/platform/maths/least_squares.h"
#include "metrofit/platform/maths/random.h"
#include "metrofit/util/vector_gradient.h"

namespace {

constexpr int kMinPoints = 5;
constexpr double kPi = 3.14159265358979323846;

// Full search.
constexpr double kGoodEnough = 0.001;      // times the range: stop the sweeps
constexpr double kPreferAll = 0.001;       // times the range: unconstrained result wins
constexpr double kStartNormalsDeg = 10.0;  // normals test of the deterministic starts
constexpr double kGuessConeDeg = 25.0;     // sweeps around the guess directions
constexpr int kBatches = 20;
constexpr int kCandidates = 100;

// Direction search of the initial solution.
constexpr int kGridRings = 20;
constexpr int kGridPasses = 3;
constexpr double kGridStop = 0.1;  // largest residual, in the points' units
constexpr double kGridConverged = 0.99;
constexpr double kSixPointParallel = 0.1;
constexpr double kSixPointRadii = 1.0;
constexpr double kShortStart = 1e-7;

// Multiple cylinders.
constexpr int kTrialsPerCylinder = 150;

// The cylinder of a projected circle: (centre, axis, radius).
mlVector cylinder_start(const tsProjectedCircle& c, const giVector3& axis) {
    const giUnitVec3 u(axis);
    return {c.centre.x(), c.centre.y(), c.centre.z(), u.x(), u.y(), u.z(), c.radius};
}

giUnitVec3 axis_of(const mlVector& p) { return giUnitVec3(p[3], p[4], p[5]); }

// ---------------------------------------------------------------------------
// Start direction

// The direction search shared by the plain and the probed initial solution;
// the projected circles carry the probe radii where there are any.
giVector3 search_start_direction(const giPoint3coDynArr& points, tsProjectedCircles& circles) {
    const int n = points.size();
    // Six points may be two rings of three: their circles share the axis.
    giVector3 two_circles;
    bool have_two_circles = false;
    if (n == 6) {
        giCircle3 c1, c2;
        if (c1.become_through_points(points[0], points[1], points[2]) &&
            c2.become_through_points(points[3], points[4], points[5]) &&
            std::fabs(std::fabs(dot(c1.normal(), c2.normal())) - 1.0) <= kSixPointParallel &&
            std::fabs(c1.radius() - c2.radius()) <= kSixPointRadii) {
            two_circles = c1.normal();
            have_two_circles = true;
        }
    }

    giVector3 v = points[0] - points[1];
    if (v.length() < kShortStart) v = giVector3(0.0, 0.0, 0.0);
    int rings = kGridRings;
    double cone = kPi;
    double best = DBL_MAX;
    bool improved = false;
    for (int pass = 0; pass < kGridPasses; ++pass) {
        if (!improved) cone = kPi;
        improved = false;
        const giVector3 start = v;
        const tsVectorGradient grid(v, cone, rings);
        tsVectorGradientIterator it = grid.iterator();
        while (it++) {
            const giVector3& w = it.vector();
            tsProjectedCircle c;
            if (circles.fit(w, c, true) && c.max_residual < best) {
                best = c.max_residual;
                v = w;
                cone = 1.5 * grid.step_angle();
                improved = true;
            }
            if (best < kGridStop) break;
        }
        const giUnitVec3 from(start), to(v);
        if (from.is_set() && to.is_set() && dot(from, to) > kGridConverged) break;
        rings = std::max(2, static_cast<int>(std::sqrt(static_cast<double>(rings))));
    }
    return have_two_circles ? two_circles : v;
}

// ---------------------------------------------------------------------------
// The search

bool finite_cylinder(const giPoint3& point, const giUnitVec3& axis, double radius) {
    return point.is_set() && point.is_finite() && axis.is_set() && axis.is_finite() &&
           std::isfinite(radius);
}

class CylinderSearch {
   public:
    CylinderSearch(const giPoint3coDynArr& points, tsLeastSquareCylinder& model,
                   tsProjectedCircles& circles, const giUnitVec3& nominal_axis,
                   const giAngle& angle, const giUnitVec3coDynArr& normals)
        : points_(points),
          model_(model),
          circles_(circles),
          solver_(model),
          nominal_(nominal_axis),
          angle_(angle),
          normals_(normals) {}

    // Update of a previous solution p with the last n_added points new.
    bool update(const mlVector& p, int n_added, mlVector& result, double& value) {
        return tsRefineWithAddedPoints(model_, solver_, p, n_added, result, value) == 1;
    }

    // Full search; false when no start gave a fit.
    bool search(const giVector3& initial, mlVector& result, double& value) {
        const double range = model_.range();
        const giAngle start_angle(1, kStartNormalsDeg);
        tsAxialBest accepted, all;

        // Deterministic starts.
        attempt(initial, start_angle, accepted, all);
        attempt(farthest_pair_direction(), start_angle, accepted, all);
        if (normals_.size() > 2) {
            giPoint3coDynArr tips;
            tips.reserve(normals_.size());
            for (const giUnitVec3& v : normals_) tips.append(giPoint3(v.x(), v.y(), v.z()));
            giPoint3 plane_point;
            giUnitVec3 plane_normal;
            double plane_error = 0.0;
            if (tsLeastSquareEvaluator::evaluate_plane(tips, plane_point, plane_normal,
                                                       plane_error))
                attempt(plane_normal, start_angle, accepted, all);
        }

        // Random sweeps.
        const int sweeps = tsLeastSquareDistance3::num_guess_directions() + 1;
        for (int k = 0; k < sweeps; ++k) {
            if (k > 0 && accepted.value < kGoodEnough * range) break;
            giUnitVec3 reference;
            double min_cos = -1.0;
            if (k > 0) {
                if (normals_.size() == 0) {
                    if (!nominal_.is_set() || k > 1) break;
                    reference = nominal_;
                    min_cos = angle_.cos();
                } else {
                    reference = tsLeastSquareDistance3::guess_direction(k - 1);
                    min_cos = std::cos(kGuessConeDeg * kPi / 180.0);
                }
            }
            sweep(reference, min_cos, accepted, all);
        }

        if (accepted.value == DBL_MAX && all.value == DBL_MAX) return false;
        const tsAxialBest& chosen =
            std::sqrt(accepted.value) - std::sqrt(all.value) > kPreferAll * range ? all : accepted;
        result = chosen.p;
        value = chosen.value;
        return true;
    }

   private:
    // Circle fit along u, one solver run from it, and the two bests.
    void attempt(const giVector3& direction, const giAngle& normals_angle, tsAxialBest& accepted,
                 tsAxialBest& all) {
        const giUnitVec3 u(direction);
        if (!u.is_set()) return;
        tsProjectedCircle c;
        if (!circles_.fit(u, c)) return;
        mlVector p;
        const double v = solver_.fit(cylinder_start(c, u), p);
        if (!(v < DBL_MAX)) return;
        if (v < accepted.value && tsLeastSquareCylinder::are_normals_in_limit(
                                      points_, normals_angle, nominal_, normals_, p))
            accepted.offer(v, p);
        all.offer(v, p);
    }

    // The direction between the point farthest from point 0 and the point
    // farthest from that one.
    giVector3 farthest_pair_direction() const {
        const int n = points_.size();
        const auto farthest_from = [&](const giPoint3& q) {
            int index = 0;
            double d = 0.0;
            for (int i = 1; i < n; ++i) {
                const giVector3 w = points_[i] - q;
                const double di = dot(w, w);
                if (di > d) {
                    d = di;
                    index = i;
                }
            }
            return index;
        };
        const giPoint3& a = points_[farthest_from(points_[0])];
        const giPoint3& b = points_[farthest_from(a)];
        return a - b;
    }

    // One sweep: kBatches batches of kCandidates hemisphere directions from a
    // generator seeded 1, those within the cone around the reference (when
    // min_cos > -1) screened by their projected circles; the batch's best
    // starts one solver run.
    void sweep(const giUnitVec3& reference, double min_cos, tsAxialBest& accepted,
               tsAxialBest& all) {
        mlRandom random(1);
        const bool restricted = reference.is_set();
        mlVector start;
        for (int batch = 0; batch < kBatches; ++batch) {
            double best_sum = DBL_MAX;
            bool new_start = false;
            for (int j = 0; j < kCandidates; ++j) {
                const double x = 2.0 * random.unit() - 1.0;
                const double y = 2.0 * random.unit() - 1.0;
                const double z = 0.9999999 * random.unit() + 1e-7;
                const giUnitVec3 u(x, y, z);
                if (restricted && std::fabs(dot(reference, u)) < min_cos) continue;
                tsProjectedCircle c;
                if (!circles_.fit(u, c)) continue;
                // The circle's sum of squares is the cylinder's: a point's
                // distance from the axis is its distance from the projected
                // centre.
                if (c.sum_squares < best_sum) {
                    best_sum = c.sum_squares;
                    start = cylinder_start(c, u);
                    new_start = true;
                }
            }
            // A batch without a new start would repeat the previous run.
            if (!new_start) continue;
            model_.normalize_parameters(start);
            mlVector p;
            const double v = solver_.fit(start, p);
            if (!(v < DBL_MAX)) continue;
            if (v < accepted.value &&
                tsLeastSquareCylinder::are_normals_in_limit(points_, angle_, nominal_, normals_, p))
                accepted.offer(v, p);
            all.offer(v, p);
        }
    }

    const giPoint3coDynArr& points_;
    tsLeastSquareCylinder& model_;
    tsProjectedCircles& circles_;
    mlLevenbergMarquardt solver_;
    const giUnitVec3& nominal_;
    const giAngle& angle_;
    const giUnitVec3coDynArr& normals_;
};

// The driver both cylinder fits share, on their model and projected circles.
int fit_cylinder(const giPoint3coDynArr& points, tsLeastSquareCylinder& model,
                 tsProjectedCircles& circles, giPoint3& axis_point, giUnitVec3& axis_dir,
                 double& radius, double& deviation, const giUnitVec3& nominal_axis,
                 const giAngle& angle, const giUnitVec3coDynArr& normals, int n_added) {
    const int n = points.size();
    CylinderSearch search(points, model, circles, nominal_axis, angle, normals);
    mlVector result;
    double value = DBL_MAX;
    bool done = false;
    if (n_added != 0 && (n_added < 0 || n >= n_added + kMinPoints) &&
        finite_cylinder(axis_point, axis_dir, radius)) {
        const mlVector previous = {axis_point.x(), axis_point.y(), axis_point.z(), axis_dir.x(),
                                   axis_dir.y(),   axis_dir.z(),   radius};
        done = search.update(previous, n_added, result, value);
    }
    if (!done) done = search.search(search_start_direction(points, circles), result, value);
    if (!done) return 0;
    const giUnitVec3 axis = axis_of(result);
    if (!axis.is_set()) return 0;
    axis_point = giPoint3(result[0], result[1], result[2]);
    axis_dir = axis;
    radius = result[6];
    deviation = std::sqrt(value);
    return 1;
}

// The probe radii with the sign the probed distance adds them with.
doublecoDynArr signed_radii(const doublecoDynArr& radii, int inside) {
    doublecoDynArr s(radii);
    if (inside == 0)
        for (double& q : s) q = -q;
    return s;
}

}  // namespace

// ---------------------------------------------------------------------------
// Model

tsLeastSquareCylinder::tsLeastSquareCylinder(const giPoint3coDynArr& points)
    : tsLeastSquareDistance3(7, points) {}

void tsLeastSquareCylinder::normalize_parameters(mlVector& p) const {
    if (p.size() < 7) return;
    ts_unit_axis(p);
    ts_axis_point_to_origin(p);
}

void tsLeastSquareCylinder::set_parameters(const mlVector& p) {
    mlDistanceLeastSquares::set_parameters(p);
    if (p.size() < 7) return;
    const double length = std::sqrt(p[3] * p[3] + p[4] * p[4] + p[5] * p[5]);
    for (int k = 0; k < 3; ++k) {
        c_[k] = p[k];
        u_[k] = length > 0.0 ? p[3 + k] / length : (k == 0 ? 1.0 : 0.0);
    }
    inv_length_ = length > 0.0 ? 1.0 / length : 1.0;
}

void tsLeastSquareCylinder::get_distance(double& d, int i) const {
    d = line_distance(c_, u_, point(i)) - parameters()[6];
}

void tsLeastSquareCylinder::get_distance_and_gradient(double& d, mlVector& gradient, int i) const {
    double f = 0.0, g = 0.0, df[6], dg[6];
    line_terms(c_, u_, inv_length_, point(i), f, df, g, dg);
    d = f - parameters()[6];
    if (gradient.size() < 7) gradient[6] = 0.0;
    double* out = gradient.data();
    for (int j = 0; j < 6; ++j) out[j] = df[j];
    out[6] = -1.0;
}

void tsLeastSquareCylinder::parameter_scales(mlVector& s) const {
    const mlVector& p = parameters();
    const giPoint3 c(p[0], p[1], p[2]);
    const giUnitVec3 u(p[3], p[4], p[5]);
    double lo = DBL_MAX, hi = -DBL_MAX;
    if (u.is_set()) {
        for (const giPoint3& q : points()) {
            const double t = dot(u, q - c);
            lo = std::fmin(lo, t);
            hi = std::fmax(hi, t);
        }
    }
    const double length = hi >= lo ? hi - lo : 0.0;
    const double scale = std::sqrt(length * length + p[6] * p[6]);
    s.become(mlVectorZero, 7);
    s.fill(1.0);
    s[3] = s[4] = s[5] = scale;
}

int tsLeastSquareCylinder::are_normals_in_limit(const giPoint3coDynArr& points,
                                                const giAngle& angle,
                                                const giUnitVec3& nominal_axis,
                                                const giUnitVec3coDynArr& normals,
                                                mlVector& parameters) {
    if (parameters.size() < 7) return 0;
    const giUnitVec3 u(parameters[3], parameters[4], parameters[5]);
    if (!u.is_set()) return 0;
    if (nominal_axis.is_set() && std::fabs(dot(u, nominal_axis)) < angle.cos()) return 0;
    if (normals.size() == 0) return 1;
    // The radial directions, outward (a boss) or all inward (a bore); a
    // point on the axis has none and cannot confirm a side.
    const giPoint3 c(parameters[0], parameters[1], parameters[2]);
    return ts_directions_agree(normals, points.size(), angle, [&](int i) {
        const giVector3 w = points[i] - c;
        return w - dot(u, w) * u;
    });
}

void tsLeastSquareCylinder::add_distinct_result(const tsFittedCylinder& result, double tolerance,
                                                giAngle angle_tolerance,
                                                tsFittedCylindercoDynArr& results) {
    for (const tsFittedCylinder& record : results)
        if (result.coincident(record, tolerance, angle_tolerance)) return;
    results.append(result);
}

// ---------------------------------------------------------------------------
// Drivers

int tsCylinder_InitialSolution(const giPoint3coDynArr& points, giVector3& direction) {
    if (points.size() < 3 || !ts_all_finite(points)) return 0;
    tsProjectedCircles circles(points, nullptr);
    direction = search_start_direction(points, circles);
    return 1;
}

int tsCalculateLeastSquareCylinder(const giPoint3coDynArr& points, giPoint3& axis_point,
                                   giUnitVec3& axis_dir, double& radius, double& deviation,
                                   const giUnitVec3& nominal_axis, const giAngle& angle,
                                   const giUnitVec3coDynArr& normals, int n_added) {
    if (points.size() < kMinPoints || !ts_all_finite(points) ||
        !ts_normals_fit_points(points, normals))
        return 0;
    tsLeastSquareCylinder model(points);
    tsProjectedCircles circles(points, nullptr);
    return fit_cylinder(points, model, circles, axis_point, axis_dir, radius, deviation,
                        nominal_axis, angle, normals, n_added);
}

int tsCalculateMultipleLeastSquareCylinders(const giPoint3coDynArr& points,
                                            const giUnitVec3coDynArr& directions, double tolerance,
                                            const giAngle& angle, int n_wanted,
                                            tsFittedCylindercoDynArr& results) {
    return tsLeastSquareEvaluator::evaluate_multiple_cylinders(points, directions, tolerance, angle,
                                                               n_wanted, results);
}

int tsLeastSquareEvaluator::evaluate_multiple_cylinders(const giPoint3coDynArr& points,
                                                        const giUnitVec3coDynArr& directions,
                                                        double tolerance, const giAngle& angle,
                                                        int n_wanted,
                                                        tsFittedCylindercoDynArr& results) {
    if (points.size() < kMinPoints || !ts_all_finite(points)) return 0;
    tsRandDirGenMulti generator(1000.0, directions, giAngle(1, 30.0), 0.9);
    tsLeastSquareCylinder model(points);
    mlLevenbergMarquardt solver(model);
    const giPoint3 origin(0.0, 0.0, 0.0);
    const int trials = kTrialsPerCylinder * std::max(n_wanted, 0);
    for (int t = 0; t < trials && results.size() < n_wanted; ++t) {
        giUnitVec3 u = generator.direction();
        giPoint3 centre;
        double r = 0.0, deviation = 0.0;
        if (!evaluate_circle2(origin, u, points, centre, r, deviation)) continue;
        // One biased look around u: a neighbour with a smaller deviation
        // takes its place.
        tsRandDirGenerator around(1.1, u, giAngle(1, 30.0), 0.1);
        const giUnitVec3 u2 = around.rand_vec_bias_region();
        giPoint3 centre2;
        double r2 = 0.0, deviation2 = 0.0;
        if (evaluate_circle2(origin, u2, points, centre2, r2, deviation2) &&
            deviation2 < deviation) {
            u = u2;
            centre = centre2;
            r = r2;
        }
        const mlVector start = {centre.x(), centre.y(), centre.z(), u.x(), u.y(), u.z(), r};
        mlVector p;
        const double v = solver.fit(start, p);
        if (!(v < DBL_MAX)) continue;
        const double d = std::sqrt(v);
        if (d < tolerance)
            tsLeastSquareCylinder::add_distinct_result(
                tsFittedCylinder(giPoint3(p[0], p[1], p[2]), axis_of(p), p[6], d), tolerance, angle,
                results);
    }
    return results.size();
}

int tsLeastSquareEvaluator::evaluate_cylinder(const giPoint3coDynArr& points, giPoint3& axis_point,
                                              giUnitVec3& axis, double& radius, double& error,
                                              const giUnitVec3& nominal_axis, const giAngle& angle,
                                              int n_added) {
    return tsCalculateLeastSquareCylinder(points, axis_point, axis, radius, error, nominal_axis,
                                          angle, giUnitVec3coDynArr(), n_added);
}

int tsLeastSquareEvaluator::evaluate_cylinder(const giPoint3coDynArr& points, giPoint3& axis_point,
                                              giUnitVec3& axis, double& radius, double& error,
                                              const giUnitVec3coDynArr& normals,
                                              const giAngle& angle, int n_added) {
    return tsCalculateLeastSquareCylinder(points, axis_point, axis, radius, error, giUnitVec3(),
                                          angle, normals, n_added);
}

// ---------------------------------------------------------------------------
// Probed cylinder

tsLeastSquareProbedCylinder::tsLeastSquareProbedCylinder(const giPoint3coDynArr& points,
                                                         const doublecoDynArr& radii, int inside)
    : tsLeastSquareCylinder(points), radii_(signed_radii(radii, inside)) {
    // One radius per point: a short array is padded with zeros so that no
    // point reads beyond it.
    radii_.expand(points.size());
}

void tsLeastSquareProbedCylinder::normalize_parameters(mlVector& p) const {
    tsLeastSquareCylinder::normalize_parameters(p);
}

void tsLeastSquareProbedCylinder::get_distance(double& d, int i) const {
    tsLeastSquareCylinder::get_distance(d, i);
    d += radii_[i];
}

void tsLeastSquareProbedCylinder::get_distance_and_gradient(double& d, mlVector& gradient,
                                                            int i) const {
    tsLeastSquareCylinder::get_distance_and_gradient(d, gradient, i);
    d += radii_[i];
}

int tsCylinder_InitialSolutionProbed(const giPoint3coDynArr& points, const doublecoDynArr& radii,
                                     int inside, giVector3& direction) {
    if (points.size() < 3 || !ts_all_finite(points) || !ts_radii_fit_points(points, radii))
        return 0;
    const doublecoDynArr offsets = signed_radii(radii, inside);
    tsProjectedCircles circles(points, offsets.data());
    direction = search_start_direction(points, circles);
    return 1;
}

int tsCalculateLeastSquareProbedCylinder(const giPoint3coDynArr& points,
                                         const doublecoDynArr& radii, int inside,
                                         giPoint3& axis_point, giUnitVec3& axis_dir, double& radius,
                                         double& deviation, const giUnitVec3& nominal_axis,
                                         const giAngle& angle, const giUnitVec3coDynArr& normals,
                                         int n_added) {
    if (points.size() < kMinPoints || !ts_all_finite(points) ||
        !ts_radii_fit_points(points, radii) || !ts_normals_fit_points(points, normals))
        return 0;
    tsLeastSquareProbedCylinder model(points, radii, inside);
    tsProjectedCircles circles(points, model.probe_radii().data());
    return fit_cylinder(points, model, circles, axis_point, axis_dir, radius, deviation,
                        nominal_axis, angle, normals, n_added);
}

int tsLeastSquareEvaluator::evaluate_probed_cylinder(const giPoint3coDynArr& points,
                                                     const doublecoDynArr& probe_radii, int inside,
                                                     giPoint3& axis_point, giUnitVec3& axis,
                                                     double& radius, double& error,
                                                     const giUnitVec3& nominal_axis,
                                                     const giAngle& angle, int n_added) {
    return tsCalculateLeastSquareProbedCylinder(points, probe_radii, inside, axis_point, axis,
                                                radius, error, nominal_axis, angle,
                                                giUnitVec3coDynArr(), n_added);
}

int tsLeastSquareEvaluator::evaluate_probed_cylinder(const giPoint3coDynArr& points,
                                                     const doublecoDynArr& probe_radii, int inside,
                                                     giPoint3& axis_point, giUnitVec3& axis,
                                                     double& radius, double& error,
                                                     const giUnitVec3coDynArr& normals,
                                                     const giAngle& angle, int n_added) {
    return tsCalculateLeastSquareProbedCylinder(points, probe_radii, inside, axis_point, axis,
                                                radius, error, giUnitVec3(), angle, normals,
                                                n_added);
}
