#include "metrofit/features/torus.h"

#include <cfloat>
#include <cmath>
#include <vector>

#include "metrofit/features/axial_common.h"
#include "metrofit/frame/distribution_quality.h"
#include "metrofit/frame/input_checks.h"
#include "metrofit/platform/maths/least_squares.h"
#include "metrofit/platform/maths/matrix.h"

namespace {

constexpr int kParameters = 8;
constexpr int kMinPoints = 4;
// Smallest principal spread, relative to the largest, of points that are not
// taken to lie in one plane (or on one line, or at one spot).
constexpr double kFlat = 1e-10;
// Raw distribution measure at or below which the points leave a degree of
// freedom free; an evenly covered torus measures 0.4 to 0.5.
constexpr double kUndetermined = 1e-7;
constexpr double kQualityDivisor = 0.51;

// The start search: at most kSample points screen the starts; axis lines on a
// (2 kGridHalf + 1)^2 grid reaching kGridExtent times the points' RMS
// distance from their centroid to either side of it.
constexpr int kSample = 200;
constexpr int kGridHalf = 4;
constexpr double kGridExtent = 3.0;
// Solver runs per principal axis, from its best screened starts.
constexpr int kStartsPerAxis = 3;
// The solver's limit of passes per run.
constexpr int kSolverPasses = 200;
// Meridian points closer than this (relative) to a line define no circle.
constexpr double kCollinearMeridian = 1e-12;

// The probe radii, one per point (missing ones 0), negated for inside == 0.
doublecoDynArr signed_offsets(const doublecoDynArr& probe_radii, int n, int inside) {
    doublecoDynArr offsets;
    offsets.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double rho = i < probe_radii.size() ? probe_radii[i] : 0.0;
        offsets.append(inside == 0 ? -rho : rho);
    }
    return offsets;
}

// Neither all points at one spot, nor on one line, nor in one plane.
bool spread_in_space(const mlVector& singular_values) {
    return singular_values.size() == 3 && singular_values[2] > kFlat * singular_values[0];
}

bool finite_vector(const mlVector& p) {
    for (const double x : p)
        if (!std::isfinite(x)) return false;
    return true;
}

// A torus with a tube: both radii positive.
bool physical(const mlVector& p) {
    return p.size() == kParameters && finite_vector(p) && p[6] > 0.0 && p[7] > 0.0;
}

// The points a search screens its start values on: all of them up to
// kSample, otherwise kSample spread evenly over the array, with their signed
// probe radii (none for measured points).
class Sample {
   public:
    Sample(const giPoint3coDynArr& points, const doublecoDynArr* offsets)
        : all_(points.size() <= kSample) {
        if (all_) return;
        const long long n = points.size();
        points_.reserve(kSample);
        for (int k = 0; k < kSample; ++k) {
            const int i = static_cast<int>(n * k / kSample);
            points_.append(points[i]);
            if (offsets) offsets_.append((*offsets)[i]);
        }
    }
    const giPoint3coDynArr& points(const giPoint3coDynArr& full) const {
        return all_ ? full : points_;
    }
    const doublecoDynArr* offsets(const doublecoDynArr* full) const {
        return all_ || !full ? full : &offsets_;
    }

   private:
    bool all_;
    giPoint3coDynArr points_;
    doublecoDynArr offsets_;
};

// One solver run of the torus model on the points (the probed model when
// they carry signed probe radii): the mean squared distance, DBL_MAX when the
// solver refuses the start; passes receives the solver's pass count.
double solve(const giPoint3coDynArr& points, const doublecoDynArr* offsets, const mlVector& start,
             mlVector& result, int& passes) {
    if (offsets) {
        // The radii are signed already: kept as they are.
        tsLeastSquareProbedTorus model(points, *offsets, 1);
        mlLevenbergMarquardt solver(model);
        const double value = solver.fit(start, result);
        passes = solver.iterations();
        return value;
    }
    tsLeastSquareTorus model(points);
    mlLevenbergMarquardt solver(model);
    const double value = solver.fit(start, result);
    passes = solver.iterations();
    return value;
}

// The final solver run on all the points. A run that ends at the solver's
// pass limit is continued once from where it stopped (a fresh run starts
// with light damping again); if that one also runs out of passes, the sum of
// squares is still falling with no minimum in reach, as for points on a
// cylinder, which tori approach with ever larger R: false.
bool polish(const giPoint3coDynArr& points, const doublecoDynArr* offsets, const mlVector& start,
            mlVector& result, double& value) {
    mlVector p = start;
    for (int run = 0; run < 2; ++run) {
        int passes = 0;
        mlVector q;
        value = solve(points, offsets, p, q, passes);
        if (!(value < DBL_MAX)) return false;
        p = q;
        if (passes < kSolverPasses) {
            result = p;
            return true;
        }
    }
    return false;
}

// The torus about the axis line through p along u: in the meridian
// half-plane of that line each point Q has the coordinates (rho, h),
// distance from and position along the line, and a torus about the line is a
// circle there, of centre (R, h0) and radius r. The circle is the algebraic
// one, sum (x^2 + y^2 + D x + E y + F)^2 least, in coordinates centred on
// the mean (rho, h); r is then the mean of s + q over the points, the
// least-squares tube radius for that centre circle. Writes the torus and
// the RMS of its distances; false when the circle is not defined (all
// meridian points on a line) or gives no torus (R <= 0 or r <= 0).
bool meridian_torus(const giPoint3coDynArr& points, const doublecoDynArr* offsets,
                    const giPoint3& p, const giUnitVec3& u, std::vector<double>& scratch,
                    mlVector& start, double& score) {
    const int m = points.size();
    scratch.resize(2 * static_cast<std::size_t>(m));
    const double pc[3] = {p.x(), p.y(), p.z()}, uc[3] = {u.x(), u.y(), u.z()};
    double mean_rho = 0.0, mean_h = 0.0;
    for (int i = 0; i < m; ++i) {
        const giPoint3& q = points[i];
        const double rho = tsLeastSquareDistance3::line_distance(pc, uc, q);
        const double h =
            uc[0] * (q.x() - pc[0]) + uc[1] * (q.y() - pc[1]) + uc[2] * (q.z() - pc[2]);
        scratch[2 * i] = rho;
        scratch[2 * i + 1] = h;
        mean_rho += rho;
        mean_h += h;
    }
    mean_rho /= m;
    mean_h /= m;
    double sxx = 0.0, sxy = 0.0, syy = 0.0, sxz = 0.0, syz = 0.0;
    for (int i = 0; i < m; ++i) {
        const double x = scratch[2 * i] - mean_rho, y = scratch[2 * i + 1] - mean_h;
        const double z = x * x + y * y;
        sxx += x * x;
        sxy += x * y;
        syy += y * y;
        sxz += x * z;
        syz += y * z;
    }
    // With centred coordinates the sums of x and y vanish, F drops out of the
    // equations of D and E, and the centre is (-D / 2, -E / 2).
    const double det = sxx * syy - sxy * sxy;
    if (!(det > kCollinearMeridian * sxx * syy)) return false;
    const double major = mean_rho + 0.5 * (sxz * syy - syz * sxy) / det;
    const double h0 = mean_h + 0.5 * (syz * sxx - sxz * sxy) / det;
    if (!(major > 0.0)) return false;
    double sum = 0.0;
    for (int i = 0; i < m; ++i) {
        const double e = scratch[2 * i] - major, f = scratch[2 * i + 1] - h0;
        scratch[2 * i] = std::sqrt(e * e + f * f) + (offsets ? (*offsets)[i] : 0.0);
        sum += scratch[2 * i];
    }
    const double minor = sum / m;
    if (!(minor > 0.0)) return false;
    double squares = 0.0;
    for (int i = 0; i < m; ++i) {
        const double d = scratch[2 * i] - minor;
        squares += d * d;
    }
    const giPoint3 centre = p + h0 * u;
    start = mlVector{centre.x(), centre.y(), centre.z(), u.x(), u.y(), u.z(), major, minor};
    score = std::sqrt(squares / m);
    return std::isfinite(score);
}

// The search: for each principal axis u of the points (least spread first),
// the axis lines along u through a grid of points of the plane through the
// centroid normal to u, each screened by its meridian torus on the sample;
// the kStartsPerAxis best of each direction start one solver run each on the
// sample, and the lowest physical result of those (the earlier on a tie)
// starts the final run on all the points. False when no run gave a torus or
// the final run found no minimum.
bool search(const giPoint3coDynArr& points, const doublecoDynArr* offsets, const giPoint3& centroid,
            const mlVector& singular_values, const mlMatrix& V, mlVector& best,
            double& best_value) {
    const Sample sample(points, offsets);
    const giPoint3coDynArr& sub = sample.points(points);
    const doublecoDynArr* sub_offsets = sample.offsets(offsets);
    const double spread = std::sqrt((singular_values[0] * singular_values[0] +
                                     singular_values[1] * singular_values[1] +
                                     singular_values[2] * singular_values[2]) /
                                    points.size());
    const double step = kGridExtent * spread / kGridHalf;
    std::vector<double> scratch;
    mlVector kept;
    double kept_value = DBL_MAX;
    for (int k = 2; k >= 0; --k) {
        const giUnitVec3 u(V(0, k), V(1, k), V(2, k));
        const giVector3 e1(V(0, (k + 1) % 3), V(1, (k + 1) % 3), V(2, (k + 1) % 3));
        const giVector3 e2(V(0, (k + 2) % 3), V(1, (k + 2) % 3), V(2, (k + 2) % 3));
        if (!u.is_set()) continue;
        // The kStartsPerAxis lowest scores, lowest first (the earlier on a tie).
        mlVector starts[kStartsPerAxis], candidate;
        double scores[kStartsPerAxis];
        for (double& x : scores) x = DBL_MAX;
        double score = 0.0;
        for (int i = -kGridHalf; i <= kGridHalf; ++i) {
            for (int j = -kGridHalf; j <= kGridHalf; ++j) {
                const giPoint3 p = centroid + (i * step) * e1 + (j * step) * e2;
                if (!meridian_torus(sub, sub_offsets, p, u, scratch, candidate, score) ||
                    !(score < scores[kStartsPerAxis - 1]))
                    continue;
                int at = kStartsPerAxis - 1;
                for (; at > 0 && score < scores[at - 1]; --at) {
                    scores[at] = scores[at - 1];
                    starts[at] = starts[at - 1];
                }
                scores[at] = score;
                starts[at] = candidate;
            }
        }
        for (int s = 0; s < kStartsPerAxis && scores[s] < DBL_MAX; ++s) {
            mlVector result;
            int passes = 0;
            const double value = solve(sub, sub_offsets, starts[s], result, passes);
            if (value < kept_value && physical(result)) {
                kept_value = value;
                kept = result;
            }
        }
    }
    if (kept_value == DBL_MAX) return false;
    return polish(points, offsets, kept, best, best_value);
}

// Checks the solver's result (a torus that the points determine) and writes
// the outputs: the axis with its largest component positive.
int finish(const giPoint3coDynArr& points, const mlVector& p, double value, giPoint3& centre,
           giUnitVec3& axis, double& major_radius, double& minor_radius, double& error) {
    if (!physical(p) || !(value < DBL_MAX)) return 0;
    // The measure depends on the gradients only, which the probed model
    // shares with the plain one.
    tsLeastSquareTorus model(points);
    if (!(model.point_distribution_quality(p) > kUndetermined)) return 0;
    int k = 0;
    for (int j = 1; j < 3; ++j)
        if (std::fabs(p[3 + j]) > std::fabs(p[3 + k])) k = j;
    const double sense = p[3 + k] < 0.0 ? -1.0 : 1.0;
    const giUnitVec3 u(sense * p[3], sense * p[4], sense * p[5]);
    if (!u.is_set()) return 0;
    centre = giPoint3(p[0], p[1], p[2]);
    axis = u;
    major_radius = p[6];
    minor_radius = p[7];
    error = std::sqrt(value);
    return 1;
}

}  // namespace

// ---------------------------------------------------------------------------
// Models

tsLeastSquareTorus::tsLeastSquareTorus(const giPoint3coDynArr& points)
    : tsLeastSquareDistance3(kParameters, points) {}

void tsLeastSquareTorus::set_parameters(const mlVector& p) {
    mlDistanceLeastSquares::set_parameters(p);
    const bool whole = p.size() == kParameters;  // anything else gives NaN distances
    const double length = whole ? std::sqrt(p[3] * p[3] + p[4] * p[4] + p[5] * p[5]) : NAN;
    for (int k = 0; k < 3; ++k) {
        c_[k] = whole ? p[k] : NAN;
        u_[k] = length > 0.0 ? p[3 + k] / length : (k == 0 ? 1.0 : 0.0);
    }
    inv_length_ = length > 0.0 ? 1.0 / length : 1.0;
    major_ = whole ? p[6] : NAN;
    minor_ = whole ? p[7] : NAN;
}

void tsLeastSquareTorus::normalize_parameters(mlVector& p) const {
    if (p.size() == kParameters) ts_unit_axis(p);
}

void tsLeastSquareTorus::parameter_scales(mlVector& s) const {
    const mlVector& p = parameters();
    const double size = p.size() == kParameters ? std::sqrt(p[6] * p[6] + p[7] * p[7]) : 0.0;
    s.become(mlVectorZero, kParameters);
    s.fill(1.0);
    if (size > 0.0 && std::isfinite(size)) s[3] = s[4] = s[5] = size;
}

double tsLeastSquareTorus::circle_distance(int i) const {
    const giPoint3& q = point(i);
    const double vx = q.x() - c_[0], vy = q.y() - c_[1], vz = q.z() - c_[2];
    const double h = u_[0] * vx + u_[1] * vy + u_[2] * vz;
    const double e = line_distance(c_, u_, q) - major_;
    return std::sqrt(e * e + h * h);
}

void tsLeastSquareTorus::distance_and_gradient(int i, double shift, double& d,
                                               mlVector& gradient) const {
    double rho = 0.0, h = 0.0, drho[6], dh[6];
    line_terms(c_, u_, inv_length_, point(i), rho, drho, h, dh);
    const double e = rho - major_;
    const double s = std::sqrt(e * e + h * h);
    d = s - minor_ + shift;
    if (gradient.size() < kParameters) gradient[kParameters - 1] = 0.0;
    double* const g = gradient.data();
    if (s > 0.0) {
        // s = |(e, h)|: its derivatives are those of e and h weighed by the
        // components of the unit offset (e, h) / s.
        const double ke = e / s, kh = h / s;
        for (int j = 0; j < 6; ++j) g[j] = ke * drho[j] + kh * dh[j];
        g[6] = -ke;
    } else {
        for (int j = 0; j < 7; ++j) g[j] = 0.0;
    }
    g[7] = -1.0;
}

void tsLeastSquareTorus::get_distance(double& d, int i) const { d = circle_distance(i) - minor_; }

void tsLeastSquareTorus::get_distance_and_gradient(double& d, mlVector& gradient, int i) const {
    distance_and_gradient(i, 0.0, d, gradient);
}

tsLeastSquareProbedTorus::tsLeastSquareProbedTorus(const giPoint3coDynArr& points,
                                                   const doublecoDynArr& probe_radii, int inside)
    : tsLeastSquareTorus(points), offsets_(signed_offsets(probe_radii, points.size(), inside)) {}

void tsLeastSquareProbedTorus::get_distance(double& d, int i) const {
    tsLeastSquareTorus::get_distance(d, i);
    d += offsets_[i];
}

void tsLeastSquareProbedTorus::get_distance_and_gradient(double& d, mlVector& gradient,
                                                         int i) const {
    distance_and_gradient(i, offsets_[i], d, gradient);
}

// ---------------------------------------------------------------------------
// Entry points

int tsLeastSquareEvaluator::evaluate_torus(const giPoint3coDynArr& points, giPoint3& centre,
                                           giUnitVec3& axis, double& major_radius,
                                           double& minor_radius, double& error) {
    giPoint3 centroid;
    mlVector sv;
    mlMatrix V;
    if (points.size() < kMinPoints || !principal_axes(points, centroid, sv, V) ||
        !spread_in_space(sv))
        return 0;
    mlVector best;
    double value = DBL_MAX;
    if (!search(points, nullptr, centroid, sv, V, best, value)) return 0;
    return finish(points, best, value, centre, axis, major_radius, minor_radius, error);
}

int tsLeastSquareEvaluator::evaluate_torus_with_guess(const giPoint3coDynArr& points,
                                                      giPoint3& centre, giUnitVec3& axis,
                                                      double& major_radius, double& minor_radius,
                                                      double& error) {
    giPoint3 centroid;
    mlVector sv;
    mlMatrix V;
    if (points.size() < kMinPoints || !centre.is_set() || !ts_finite(centre) || !axis.is_set() ||
        !ts_finite(axis) || !(axis.length() > 0.0) || !std::isfinite(major_radius) ||
        !std::isfinite(minor_radius) || !principal_axes(points, centroid, sv, V) ||
        !spread_in_space(sv))
        return 0;
    const mlVector start = {centre.x(), centre.y(), centre.z(),   axis.x(),
                            axis.y(),   axis.z(),   major_radius, minor_radius};
    mlVector result;
    double value = DBL_MAX;
    if (!polish(points, nullptr, start, result, value)) return 0;
    return finish(points, result, value, centre, axis, major_radius, minor_radius, error);
}

int tsLeastSquareEvaluator::evaluate_probed_torus(const giPoint3coDynArr& points,
                                                  const doublecoDynArr& probe_radii, int inside,
                                                  giPoint3& centre, giUnitVec3& axis,
                                                  double& major_radius, double& minor_radius,
                                                  double& error) {
    giPoint3 centroid;
    mlVector sv;
    mlMatrix V;
    if (points.size() < kMinPoints || probe_radii.size() != points.size() ||
        !ts_all_finite(probe_radii) || !principal_axes(points, centroid, sv, V) ||
        !spread_in_space(sv))
        return 0;
    const doublecoDynArr offsets = signed_offsets(probe_radii, points.size(), inside);
    mlVector best;
    double value = DBL_MAX;
    if (!search(points, &offsets, centroid, sv, V, best, value)) return 0;
    return finish(points, best, value, centre, axis, major_radius, minor_radius, error);
}

double tsLeastSquareDistributionQuality::distribution_quality_torus(const giPoint3coDynArr& points,
                                                                    const giPoint3& centre,
                                                                    const giVector3& axis,
                                                                    double major_radius,
                                                                    double minor_radius) {
    if (points.size() < 3 || !ts_all_finite(points) || !ts_finite(centre) || !axis.is_set() ||
        !ts_finite(axis) || !(axis.length() > 0.0) || !std::isfinite(major_radius) ||
        !std::isfinite(minor_radius))
        return 0.0;
    tsLeastSquareTorus model(points);
    return model.point_distribution_quality({centre.x(), centre.y(), centre.z(), axis.x(), axis.y(),
                                             axis.z(), major_radius, minor_radius}) /
           kQualityDivisor;
}
