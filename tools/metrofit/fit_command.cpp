#include "tools/metrofit/fit_command.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

#include "metrofit/features/cone.h"
#include "metrofit/features/cylinder.h"
#include "metrofit/features/ellipse.h"
#include "metrofit/features/probed_cone.h"
#include "metrofit/features/probed_cylinder.h"
#include "metrofit/features/torus.h"
#include "metrofit/frame/distribution_quality.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "tools/metrofit/hull_command.h"

#ifndef METROFIT_VERSION
#define METROFIT_VERSION "unknown"
#endif

namespace metrofit_tool {

namespace {

struct FeatureInfo {
    Feature feature;
    const char* name;
    const char* description;
    int dimension;        // coordinates per point
    int minimum_points;   // below this every fit of the feature refuses
    bool probed_form;     // a probed fit exists
    bool directions;      // its probed fit takes contact directions
    bool axial;           // takes --normals, --axis and --angle
    bool normal_columns;  // every line holds the surface normal after the point
};

constexpr FeatureInfo kFeatures[] = {
    {Feature::line2, "line2", "straight line in the plane", 2, 2, true, true, false, false},
    {Feature::line3, "line3", "straight line in space", 3, 2, false, false, false, false},
    {Feature::plane, "plane", "plane", 3, 3, true, true, false, false},
    {Feature::circle2, "circle2", "circle in the plane", 2, 3, true, false, false, false},
    {Feature::circle3, "circle3", "circle in space", 3, 3, false, false, false, false},
    {Feature::sphere, "sphere", "sphere", 3, 4, true, false, false, false},
    {Feature::cylinder, "cylinder", "cylinder", 3, 5, true, false, true, false},
    {Feature::cone, "cone", "cone", 3, 6, true, false, true, false},
    {Feature::axis, "axis", "axis of a surface of revolution", 3, 6, false, false, false, true},
    {Feature::torus, "torus", "torus", 3, 7, true, false, false, false},
    {Feature::ellipse2, "ellipse2", "ellipse in the plane", 2, 5, false, false, false, false},
    {Feature::ellipse3, "ellipse3", "ellipse in space", 3, 5, false, false, false, false},
};

const FeatureInfo& info(Feature f) {
    for (const FeatureInfo& i : kFeatures)
        if (i.feature == f) return i;
    return kFeatures[0];
}

// Below this distribution quality the points hardly fix the feature (a
// whole circle scores about 1, an arc of 10 degrees 0.001).
constexpr double kPoorQuality = 0.001;

bool with_directions(const Options& o) { return o.probed && info(o.feature).directions; }

// Whether each line holds a direction after its coordinates: the contact
// direction of a probed plane or line, the surface normal for an axis.
bool with_direction_columns(const Options& o) {
    return with_directions(o) || info(o.feature).normal_columns;
}

// Probed features without contact directions: a ball touched them from
// one side of the surface, which --inside chooses.
bool has_side(const std::string& feature) {
    for (const FeatureInfo& i : kFeatures)
        if (feature == i.name) return i.probed_form && !i.directions;
    return false;
}

// The names of the features that `keep` selects, in table order, as a list
// ending in "or" or "and" (`last`).
std::string feature_names(bool (*keep)(const FeatureInfo&), const char* last) {
    std::vector<std::string> names;
    for (const FeatureInfo& f : kFeatures)
        if (keep(f)) names.push_back(f.name);
    std::string s;
    for (std::size_t k = 0; k < names.size(); ++k) {
        if (k > 0) s += k + 1 == names.size() ? std::string(" ") + last + " " : std::string(", ");
        s += names[k];
    }
    return s;
}

std::string number(double v, const char* format) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, format, v);
    return buffer;
}

// Largest minus smallest of the residuals; 0 for none.
double spread(const std::vector<double>& r) {
    if (r.empty()) return 0.0;
    const auto mm = std::minmax_element(r.begin(), r.end());
    return *mm.second - *mm.first;
}

double rms_of(const std::vector<double>& r) {
    double s = 0.0;
    for (const double d : r) s += d * d;
    return r.empty() ? 0.0 : std::sqrt(s / r.size());
}

giPoint2coDynArr points2(const PointTable& t) {
    giPoint2coDynArr p;
    p.reserve(t.rows());
    for (int i = 0; i < t.rows(); ++i) p.append(giPoint2(t.at(i, 0), t.at(i, 1)));
    return p;
}

giPoint3coDynArr points3(const PointTable& t) {
    giPoint3coDynArr p;
    p.reserve(t.rows());
    for (int i = 0; i < t.rows(); ++i) p.append(giPoint3(t.at(i, 0), t.at(i, 1), t.at(i, 2)));
    return p;
}

// Signed residual of a probe centre at distance `dist` from a circle or
// sphere centre: the contact point's radial deviation from the radius,
// positive away from the centre. The ball touched from outside (contact
// rho closer to the centre) or from inside (rho farther).
double probed_radial(double dist, double radius, double rho, bool inside) {
    return dist + (inside ? rho : -rho) - radius;
}

// The probe radius once per point, as the probed fits take it.
doublecoDynArr probe_radii(const Options& o, int n) {
    doublecoDynArr radii;
    radii.reserve(n);
    for (int i = 0; i < n; ++i) radii.append(o.probe_radius);
    return radii;
}

std::vector<double> point_xy(const giPoint2& p) { return {p.x(), p.y()}; }
std::vector<double> point_xyz(const giPoint3& p) { return {p.x(), p.y(), p.z()}; }
std::vector<double> vec_xy(const giVector2& v) { return {v.x(), v.y()}; }
std::vector<double> vec_xyz(const giVector3& v) { return {v.x(), v.y(), v.z()}; }

// Contact directions from the extra columns, refusing one of zero length.
bool read_directions2(const PointTable& t, giUnitVec2coDynArr& out, std::string& message) {
    for (int i = 0; i < t.rows(); ++i) {
        const giUnitVec2 d(t.at(i, 2), t.at(i, 3));
        if (!d.is_set()) {
            message = "line " + std::to_string(t.lines[i]) + ": contact direction has no length";
            return false;
        }
        out.append(d);
    }
    return true;
}

// Directions in columns first..first+2; `where` follows the line number in
// the message (which file), `what` names the vector.
bool read_directions3(const PointTable& t, int first, const std::string& where, const char* what,
                      giUnitVec3coDynArr& out, std::string& message) {
    for (int i = 0; i < t.rows(); ++i) {
        const giUnitVec3 d(t.at(i, first), t.at(i, first + 1), t.at(i, first + 2));
        if (!d.is_set()) {
            message = "line " + std::to_string(t.lines[i]) + where + ": " + what + " has no length";
            return false;
        }
        out.append(d);
    }
    return true;
}

// Residuals of probe centres from a plane or line with unit normal n
// through p, the touched surface: the centres lie on the probe's side at
// rho. The fits orient n along the summed contact directions, so the probe
// side is +n; when the directions cancel, the fit kept the better of both
// sides, and so does this.
template <class Vec, class Pt, class Arr>
std::vector<double> probed_flat_residuals(const Arr& pts, const Pt& p, const Vec& n, double rho,
                                          bool directions_cancel) {
    std::vector<double> plus, minus;
    for (int i = 0; i < pts.size(); ++i) {
        const double h = dot(n, pts[i] - p);
        plus.push_back(h - rho);
        minus.push_back(-h - rho);
    }
    if (directions_cancel && rms_of(minus) < rms_of(plus)) return minus;
    return plus;
}

// The probed plane and line fits report some point of the feature; the
// foot of the points' centroid on it is the one a reader expects (the
// unprobed fits report the centroid, which lies on their feature).
giPoint2 foot_of_centroid(const giPoint2coDynArr& pts, const giPoint2& on_line,
                          const giVector2& n) {
    double sx = 0.0, sy = 0.0;
    for (const giPoint2& q : pts) {
        sx += q.x() - on_line.x();
        sy += q.y() - on_line.y();
    }
    const giVector2 shift(sx / pts.size(), sy / pts.size());
    return on_line + (shift - dot(n, shift) * n);
}

giPoint3 foot_of_centroid(const giPoint3coDynArr& pts, const giPoint3& on_plane,
                          const giVector3& n) {
    double sx = 0.0, sy = 0.0, sz = 0.0;
    for (const giPoint3& q : pts) {
        sx += q.x() - on_plane.x();
        sy += q.y() - on_plane.y();
        sz += q.z() - on_plane.z();
    }
    const giVector3 shift(sx / pts.size(), sy / pts.size(), sz / pts.size());
    return on_plane + (shift - dot(n, shift) * n);
}

// The point of the axis through `on_axis` along u nearest the points'
// centroid: the fits report some point of the axis, this one lies among
// the data.
giPoint3 axis_foot_of_centroid(const giPoint3coDynArr& pts, const giPoint3& on_axis,
                               const giVector3& u) {
    double sx = 0.0, sy = 0.0, sz = 0.0;
    for (const giPoint3& q : pts) {
        sx += q.x() - on_axis.x();
        sy += q.y() - on_axis.y();
        sz += q.z() - on_axis.z();
    }
    const giVector3 shift(sx / pts.size(), sy / pts.size(), sz / pts.size());
    return on_axis + dot(u, shift) * u;
}

int fit_line2(const Options& o, const PointTable& t, const giUnitVec2coDynArr& dirs, FitReport& r) {
    const giPoint2coDynArr pts = points2(t);
    giPoint2 p;
    giUnitVec2 d;
    double error = 0.0;
    std::vector<double> res;
    if (o.probed) {
        const doublecoDynArr radii = probe_radii(o, t.rows());
        giUnitVec2 n;
        if (!tsLeastSquareEvaluator::evaluate_probed_line2(pts, radii, dirs, p, n, error))
            return kExitRefused;
        d = giUnitVec2(n.y(), -n.x());
        p = foot_of_centroid(pts, p, n);
        giVector2 sum(0, 0);
        for (const giUnitVec2& u : dirs) sum += u;
        res = probed_flat_residuals(pts, p, n, o.probe_radius, sum.length() == 0.0);
        r.parameters = {{"point", point_xy(p)}, {"direction", vec_xy(d)}, {"normal", vec_xy(n)}};
    } else {
        if (!tsLeastSquareEvaluator::evaluate_line(pts, p, d, error)) return kExitRefused;
        const giVector2 n(-d.y(), d.x());
        for (const giPoint2& q : pts) res.push_back(dot(n, q - p));
        r.parameters = {{"point", point_xy(p)}, {"direction", vec_xy(d)}};
    }
    r.rms = error;
    r.form_deviation = spread(res);
    r.distribution_quality = tsLeastSquareDistributionQuality::distribution_quality_line(pts, p, d);
    return kExitOk;
}

int fit_line3(const PointTable& t, FitReport& r) {
    const giPoint3coDynArr pts = points3(t);
    giPoint3 p;
    giUnitVec3 d;
    double error = 0.0;
    if (!tsLeastSquareEvaluator::evaluate_line3(pts, p, d, error)) return kExitRefused;
    // Distances from a line in space have no sign: the form is the
    // diameter of the cylinder around the line that holds every point.
    double largest = 0.0;
    for (const giPoint3& q : pts) largest = std::max(largest, cross(d, q - p).length());
    r.parameters = {{"point", point_xyz(p)}, {"direction", vec_xyz(d)}};
    r.rms = error;
    r.form_deviation = 2.0 * largest;
    r.distribution_quality =
        tsLeastSquareDistributionQuality::distribution_quality_line3(pts, p, d);
    return kExitOk;
}

int fit_plane(const Options& o, const PointTable& t, const giUnitVec3coDynArr& dirs, FitReport& r) {
    const giPoint3coDynArr pts = points3(t);
    giPoint3 p;
    giUnitVec3 n;
    double error = 0.0;
    std::vector<double> res;
    if (o.probed) {
        const doublecoDynArr radii = probe_radii(o, t.rows());
        if (!tsLeastSquareEvaluator::evaluate_probed_plane(pts, radii, dirs, p, n, error))
            return kExitRefused;
        p = foot_of_centroid(pts, p, n);
        giVector3 sum(0, 0, 0);
        for (const giUnitVec3& u : dirs) sum += u;
        res = probed_flat_residuals(pts, p, n, o.probe_radius, sum.length() == 0.0);
    } else {
        if (!tsLeastSquareEvaluator::evaluate_plane(pts, p, n, error)) return kExitRefused;
        for (const giPoint3& q : pts) res.push_back(dot(n, q - p));
    }
    r.parameters = {{"point", point_xyz(p)}, {"normal", vec_xyz(n)}};
    r.rms = error;
    r.form_deviation = spread(res);
    r.distribution_quality =
        tsLeastSquareDistributionQuality::distribution_quality_plane(pts, p, n);
    return kExitOk;
}

int fit_circle2(const Options& o, const PointTable& t, FitReport& r) {
    const giPoint2coDynArr pts = points2(t);
    giPoint2 c;
    double radius = 0.0, error = 0.0;
    if (o.probed) {
        const doublecoDynArr radii = probe_radii(o, t.rows());
        if (!tsLeastSquareEvaluator::evaluate_probed_circle(pts, radii, o.inside ? 1 : 0, c, radius,
                                                            error))
            return kExitRefused;
    } else if (!tsLeastSquareEvaluator::evaluate_circle(pts, c, radius, error)) {
        return kExitRefused;
    }
    std::vector<double> res;
    for (const giPoint2& q : pts) {
        const double dist = (q - c).length();
        res.push_back(o.probed ? probed_radial(dist, radius, o.probe_radius, o.inside)
                               : dist - radius);
    }
    r.parameters = {{"centre", point_xy(c)}, {"radius", {radius}}};
    r.rms = error;
    r.form_deviation = spread(res);
    // The probe offset moves distances, not their gradients: the plain
    // circle measure on the probe centres keeps probed and unprobed
    // figures on one scale.
    r.distribution_quality =
        tsLeastSquareDistributionQuality::distribution_quality_circle(pts, c, radius);
    return kExitOk;
}

int fit_circle3(const PointTable& t, FitReport& r) {
    const giPoint3coDynArr pts = points3(t);
    giPoint3 c;
    giUnitVec3 n;
    double radius = 0.0, error = 0.0;
    if (!tsLeastSquareEvaluator::evaluate_circle3(pts, c, n, radius, error)) return kExitRefused;
    // Distance to the circle in space, signed by the radial side.
    std::vector<double> res;
    for (const giPoint3& q : pts) {
        const giVector3 v = q - c;
        const double across = cross(n, v).length() - radius, along = dot(n, v);
        const double d = std::hypot(across, along);
        res.push_back(across < 0.0 ? -d : d);
    }
    r.parameters = {{"centre", point_xyz(c)}, {"normal", vec_xyz(n)}, {"radius", {radius}}};
    r.rms = error;
    r.form_deviation = spread(res);
    r.distribution_quality =
        tsLeastSquareDistributionQuality::distribution_quality_circle3(pts, c, n, radius);
    return kExitOk;
}

int fit_sphere(const Options& o, const PointTable& t, FitReport& r) {
    const giPoint3coDynArr pts = points3(t);
    giPoint3 c;
    double radius = 0.0, error = 0.0;
    if (o.probed) {
        const doublecoDynArr radii = probe_radii(o, t.rows());
        if (!tsLeastSquareEvaluator::evaluate_probed_sphere(pts, radii, o.inside ? 1 : 0, c, radius,
                                                            error))
            return kExitRefused;
    } else if (!tsLeastSquareEvaluator::evaluate_sphere(pts, c, radius, error)) {
        return kExitRefused;
    }
    std::vector<double> res;
    for (const giPoint3& q : pts) {
        const double dist = (q - c).length();
        res.push_back(o.probed ? probed_radial(dist, radius, o.probe_radius, o.inside)
                               : dist - radius);
    }
    r.parameters = {{"centre", point_xyz(c)}, {"radius", {radius}}};
    r.rms = error;
    r.form_deviation = spread(res);
    // As for the circle: the sphere measure on the probe centres.
    r.distribution_quality =
        tsLeastSquareDistributionQuality::distribution_quality_sphere(pts, c, radius);
    return kExitOk;
}

// What the cylinder and cone fits take from the options: the points, the
// probe radius of each (none unless probed), the side, the nominal axis
// (unset without --axis), the angle limit and the normals.
struct AxialInput {
    giPoint3coDynArr points;
    doublecoDynArr radii;
    int inside = 0;
    giUnitVec3 nominal;
    giAngle angle;
    giUnitVec3coDynArr normals;
};

AxialInput axial_input(const Options& o, const PointTable& t, const giUnitVec3coDynArr& normals) {
    AxialInput in;
    in.points = points3(t);
    if (o.probed) in.radii = probe_radii(o, t.rows());
    in.inside = o.inside ? 1 : 0;
    if (o.axis.size() == 3) in.nominal = giUnitVec3(o.axis[0], o.axis[1], o.axis[2]);
    in.angle = giAngle(giANGLE_DEGREES, o.angle_degrees);
    in.normals = normals;
    return in;
}

// The signed distances of the points as the fitted model measures them at
// p: the residuals whose mean square the fit minimised, probe offsets
// included for a probed model.
std::vector<double> model_residuals(mlDistanceLeastSquares& model, const mlVector& p) {
    model.set_parameters(p);
    std::vector<double> res(model.n_points());
    for (int i = 0; i < model.n_points(); ++i) model.get_distance(res[i], i);
    return res;
}

// Checks a fitted cylinder or cone against --axis and --normals and fills
// the report's RMS and form deviation. p holds the feature in the form of
// the Plain model (its probed form Probed for probe centres), the axis in
// p[3..5]. The searches prefer features within the limits but return a
// clearly better one outside them: a warning says so rather than pass it
// off as constrained. `surface` names the directions the normals are held
// to ("cylinder's radial directions").
template <class Plain, class Probed>
void report_axial(const AxialInput& in, const std::string& feature, const char* surface,
                  const mlVector& p, double error, FitReport& r) {
    const giUnitVec3 u(p[3], p[4], p[5]);
    const std::string limit = number(in.angle.degrees(), "%.6g") + " degrees";
    const double cos_off = std::fabs(dot(u, in.nominal));
    if (in.nominal.is_set() && cos_off < in.angle.cos())
        r.warnings.push_back("the fitted axis lies " +
                             number(giAngle(giAngleCosine, cos_off).degrees(), "%.3g") +
                             " degrees from --axis, beyond the " + limit + " allowed: no " +
                             feature + " within the limit fits nearly as well");
    mlVector fitted = p;
    if (in.normals.size() > 0 &&
        !Plain::are_normals_in_limit(in.points, in.angle, giUnitVec3(), in.normals, fitted))
        r.warnings.push_back(std::string("the fitted ") + surface + " are not all within " + limit +
                             " of the normals (nor all of the reversed normals)");
    std::vector<double> res;
    if (in.radii.size() > 0) {
        Probed model(in.points, in.radii, in.inside);
        res = model_residuals(model, p);
    } else {
        Plain model(in.points);
        res = model_residuals(model, p);
    }
    r.rms = error;
    r.form_deviation = spread(res);
}

// The unit axis u as reported: in the sense of --axis when given.
giUnitVec3 in_nominal_sense(const AxialInput& in, const giUnitVec3& u) {
    return in.nominal.is_set() && dot(u, in.nominal) < 0.0 ? -u : u;
}

int fit_cylinder(const Options& o, const PointTable& t, const giUnitVec3coDynArr& normals,
                 FitReport& r) {
    const AxialInput in = axial_input(o, t, normals);
    giPoint3 p;
    giUnitVec3 u;
    double radius = 0.0, error = 0.0;
    if (o.probed) {
        if (!tsCalculateLeastSquareProbedCylinder(in.points, in.radii, in.inside, p, u, radius,
                                                  error, in.nominal, in.angle, in.normals, 0))
            return kExitRefused;
    } else if (!tsCalculateLeastSquareCylinder(in.points, p, u, radius, error, in.nominal, in.angle,
                                               in.normals, 0)) {
        return kExitRefused;
    }
    p = axis_foot_of_centroid(in.points, p, u);
    report_axial<tsLeastSquareCylinder, tsLeastSquareProbedCylinder>(
        in, r.feature, "cylinder's radial directions",
        {p.x(), p.y(), p.z(), u.x(), u.y(), u.z(), radius}, error, r);
    r.parameters = {
        {"point", point_xyz(p)}, {"axis", vec_xyz(in_nominal_sense(in, u))}, {"radius", {radius}}};
    r.distribution_quality =
        o.probed ? tsLeastSquareDistributionQuality::distribution_quality_probed_cylinder(
                       in.points, in.radii, in.inside, p, u, radius)
                 : tsLeastSquareDistributionQuality::distribution_quality_cylinder(in.points, p, u,
                                                                                   radius);
    return kExitOk;
}

int fit_cone(const Options& o, const PointTable& t, const giUnitVec3coDynArr& normals,
             FitReport& r) {
    const AxialInput in = axial_input(o, t, normals);
    giPoint3 apex;
    giUnitVec3 to_apex;  // the fit's axis points from the cone towards the apex
    double half_angle = 0.0, error = 0.0;
    // The ball centres lie on a cone of the same axis as the touched one:
    // they serve as the probed search's guess points.
    if (o.probed) {
        if (!tsCalculateLeastSquareProbedCone(in.points, in.radii, in.inside, in.points, apex,
                                              to_apex, half_angle, error, in.nominal, in.angle,
                                              in.normals, 0))
            return kExitRefused;
    } else if (!tsCalculateLeastSquareCone(in.points, apex, to_apex, half_angle, error, in.nominal,
                                           in.angle, in.normals, 0)) {
        return kExitRefused;
    }
    // With the reference point at the apex the surface distance h is 0.
    report_axial<tsLeastSquareCone, tsLeastSquareProbedCone>(
        in, r.feature, "cone's surface normals",
        {apex.x(), apex.y(), apex.z(), to_apex.x(), to_apex.y(), to_apex.z(), 0.0, half_angle},
        error, r);
    // A report reads the axis from the apex into the cone, towards the points.
    r.parameters = {{"apex", point_xyz(apex)},
                    {"axis", vec_xyz(in_nominal_sense(in, -to_apex))},
                    {"half_angle", {giAngle(giANGLE_RADIANS, half_angle).degrees()}}};
    r.distribution_quality =
        o.probed ? tsLeastSquareDistributionQuality::distribution_quality_probed_cone(
                       in.points, in.radii, in.inside, in.points, apex, to_apex, half_angle)
                 : tsLeastSquareDistributionQuality::distribution_quality_cone(in.points, apex,
                                                                               to_apex, half_angle);
    return kExitOk;
}

// The sense of an axis that nothing else fixes: its largest component
// (the first of equal ones) positive, so that the report does not depend on
// where the search started.
giUnitVec3 largest_component_positive(const giUnitVec3& u) {
    const double c[3] = {u.x(), u.y(), u.z()};
    int k = 0;
    for (int j = 1; j < 3; ++j)
        if (std::fabs(c[j]) > std::fabs(c[k])) k = j;
    return c[k] < 0.0 ? -u : u;
}

// The axis of a surface of revolution, the line every normal line meets
// best. The fit reports some point of the axis; the foot of the points'
// centroid lies among the data.
int fit_axis(const PointTable& t, const giUnitVec3coDynArr& normals, FitReport& r) {
    const giPoint3coDynArr pts = points3(t);
    giPoint3 p;    // unset: the search starts from the centroid
    giUnitVec3 u;  // unset: the search tries several directions
    double error = 0.0;
    if (!tsLeastSquareEvaluator::evaluate_axis_rev(pts, normals, p, u, error)) return kExitRefused;
    u = largest_component_positive(u);
    r.parameters = {{"point", point_xyz(axis_foot_of_centroid(pts, p, u))}, {"axis", vec_xyz(u)}};
    r.rms = error;
    r.form_and_quality = false;
    return kExitOk;
}

// The torus: its centre, the unit axis (largest component positive), the
// radius of the tube's centre circle and the tube's radius; the residuals
// are the distances from the tube (of the touched surface when probed).
int fit_torus(const Options& o, const PointTable& t, FitReport& r) {
    const giPoint3coDynArr pts = points3(t);
    giPoint3 c;
    giUnitVec3 u;
    double major = 0.0, minor = 0.0, error = 0.0;
    doublecoDynArr radii;
    if (o.probed) {
        radii = probe_radii(o, t.rows());
        if (!tsLeastSquareEvaluator::evaluate_probed_torus(pts, radii, o.inside ? 1 : 0, c, u,
                                                           major, minor, error))
            return kExitRefused;
    } else if (!tsLeastSquareEvaluator::evaluate_torus(pts, c, u, major, minor, error)) {
        return kExitRefused;
    }
    const mlVector p = {c.x(), c.y(), c.z(), u.x(), u.y(), u.z(), major, minor};
    std::vector<double> res;
    if (o.probed) {
        tsLeastSquareProbedTorus model(pts, radii, o.inside ? 1 : 0);
        res = model_residuals(model, p);
    } else {
        tsLeastSquareTorus model(pts);
        res = model_residuals(model, p);
    }
    r.parameters = {{"centre", point_xyz(c)},
                    {"axis", vec_xyz(u)},
                    {"major_radius", {major}},
                    {"minor_radius", {minor}}};
    r.rms = error;
    r.form_deviation = spread(res);
    // As for the sphere: the plain measure on the probe centres, whose tube
    // is the touched one widened (outside) or narrowed (inside) by the ball.
    const double centres_tube =
        o.probed ? minor + (o.inside ? -o.probe_radius : o.probe_radius) : minor;
    r.distribution_quality = tsLeastSquareDistributionQuality::distribution_quality_torus(
        pts, c, u, major, centres_tube);
    return kExitOk;
}

// The ellipse in the plane: centre, semi-axes and the angle of the major
// axis from the x axis in degrees, [0, 180); the residuals are the
// orthogonal distances, positive outside.
int fit_ellipse2(const PointTable& t, FitReport& r) {
    const giPoint2coDynArr pts = points2(t);
    giPoint2 c;
    double a = 0.0, b = 0.0, angle = 0.0, error = 0.0;
    if (!tsLeastSquareEvaluator::evaluate_ellipse(pts, c, a, b, angle, error)) return kExitRefused;
    tsLeastSquareEllipse2 model(pts);
    const std::vector<double> res =
        model_residuals(model, tsLeastSquareEllipse2::parameters_of(c, a, b, angle));
    r.parameters = {{"centre", point_xy(c)},
                    {"semi_major", {a}},
                    {"semi_minor", {b}},
                    {"angle", {giAngle(giANGLE_RADIANS, angle).degrees()}}};
    r.rms = error;
    r.form_deviation = spread(res);
    r.distribution_quality =
        tsLeastSquareDistributionQuality::distribution_quality_ellipse(pts, c, a, b, angle);
    return kExitOk;
}

// The ellipse in space: in the least-squares plane of the points. Reports
// the centre, the plane's normal (largest component positive), the unit
// major axis (sense not meaningful) and the semi-axes; a residual is the
// distance in space from the ellipse, signed by the side within the plane.
int fit_ellipse3(const PointTable& t, FitReport& r) {
    const giPoint3coDynArr pts = points3(t);
    giPoint3 o;
    giUnitVec3 n;
    double plane_error = 0.0;
    if (!tsLeastSquareEvaluator::evaluate_plane(pts, o, n, plane_error)) return kExitRefused;
    n = largest_component_positive(n);
    const giUnitVec3 x = n.any_normal();
    const giUnitVec3 y(cross(n, x));
    giPoint3 c;
    giUnitVec3 major;
    double a = 0.0, b = 0.0, error = 0.0;
    if (!tsLeastSquareEvaluator::evaluate_ellipse2(o, x, y, pts, c, major, a, b, error))
        return kExitRefused;
    const giUnitVec3 minor(cross(n, major));
    std::vector<double> res;
    for (const giPoint3& q : pts) {
        const giVector3 v = q - c;
        double fx = 0.0, fy = 0.0;
        const double d =
            tsLeastSquareEllipse2::foot_point(a, b, dot(v, major), dot(v, minor), fx, fy);
        res.push_back(std::copysign(std::hypot(d, dot(v, n)), d));
    }
    // The plane's 2D frame for the distribution measure.
    giPoint2coDynArr flat;
    for (const giPoint3& q : pts) flat.append(giPoint2(dot(q - c, major), dot(q - c, minor)));
    r.parameters = {{"centre", point_xyz(c)},
                    {"normal", vec_xyz(n)},
                    {"major_axis", vec_xyz(major)},
                    {"semi_major", {a}},
                    {"semi_minor", {b}}};
    r.rms = error;
    r.form_deviation = spread(res);
    r.distribution_quality = tsLeastSquareDistributionQuality::distribution_quality_ellipse(
        flat, giPoint2(0.0, 0.0), a, b, 0.0);
    return kExitOk;
}

// "a" or "an" before the word.
std::string article(const std::string& word) {
    return word.find_first_of("aeiou") == 0 ? "an" : "a";
}

}  // namespace

bool command_is(const std::vector<std::string>& args, const std::string& name,
                std::initializer_list<const char*> other_flags) {
    for (const std::string& a : args) {
        bool flag = a == "-h" || a == "--help" || a == "--version" || a == "--json";
        for (const char* f : other_flags) flag = flag || a == f;
        if (!flag) return a == name;
    }
    return false;
}

bool number_field(const std::string& field, double& value, std::string& error) {
    std::vector<double> one;
    if (parse_point_line(field, one, error) != 1 || one.size() != 1) {
        if (error.empty()) error = "not a number: '" + field + "'";
        return false;
    }
    value = one[0];
    return true;
}

bool limit_field(const std::string& field, bool upper, bool& open, double& value,
                 std::string& error) {
    open = field == "-" || (upper ? field == "inf" || field == "+inf" : field == "-inf");
    if (open) return true;
    if (field == "inf" || field == "+inf" || field == "-inf") {
        error = std::string(upper ? "the upper" : "the lower") + " limit cannot be '" + field + "'";
        return false;
    }
    return number_field(field, value, error);
}

std::string json_number(double v) {
    if (!std::isfinite(v)) return "null";
    return number(v, "%.17g");
}

int expected_columns(const Options& o) {
    return info(o.feature).dimension * (with_direction_columns(o) ? 2 : 1);
}

std::string column_names(const Options& o) {
    const bool two = info(o.feature).dimension == 2;
    std::string names = two ? "x y" : "x y z";
    if (with_direction_columns(o)) names += two ? " nx ny" : " nx ny nz";
    return names;
}

std::string usage_text() {
    return R"(Usage: metrofit fit <feature> <file> [--probe-radius R [--inside]] [--json]
       metrofit fit cylinder|cone <file> [--normals FILE] [--axis X,Y,Z]
                [--angle DEG] [--probe-radius R [--inside]] [--json]
       metrofit fit axis <file> [--json]
       metrofit hull <file> [--inside X,Y] [--json]
       metrofit align <file> [--tolerance T] [--lock-direction A:B]
                [--lock-rotations] [--steps N] [--json]
       metrofit bestfit --surface FILE.stl <points> [--probe-radius R]
                [--tolerance T] [--lock-rotations | --lock-origin X,Y,Z |
                --lock-axis AX,AY,AZ] [--band LO,HI] [--json]
       metrofit match <file> [--rigid | --affine TYPE] [--json]
       metrofit rps <description> [--json]
       metrofit --help | --version

fit: fits a least-squares feature to the points in <file> ("-" reads
standard input) and reports its parameters, the RMS error, the form
deviation and the distribution quality of the points.

hull: the convex hull of points in the plane (see below).

align: the rigid motion that carries measured points onto nominal planes
(see "metrofit align --help").

bestfit: the rigid motion that carries measured points onto a nominal
surface given as an STL mesh (see "metrofit bestfit --help").

match: the rigid or restricted affine transform that carries measured
points onto their nominal partners (see "metrofit match --help").

rps: the alignment of a part held by a reference point system, its fitting
points best-fitted onto an STL mesh (see "metrofit rps --help").

Features, and the numbers each data line holds:
  line2     straight line in the plane   x y
  line3     straight line in space       x y z
  plane     plane                        x y z
  circle2   circle in the plane          x y
  circle3   circle in space              x y z
  sphere    sphere                       x y z
  cylinder  cylinder                     x y z
  cone      cone                         x y z
  axis      axis of a surface of         x y z nx ny nz
            revolution
  torus     torus                        x y z
  ellipse2  ellipse in the plane         x y
  ellipse3  ellipse in space             x y z

Options:
  --probe-radius R   the points are centres of a probe ball of radius R that
                     touched the feature (sphere, circle2, cylinder, cone,
                     torus, plane, line2); the feature reported is the touched
                     surface. A probed cone is searched for from the ball
                     centres themselves: they lie on a cone of the same axis.
  --inside           with --probe-radius, for sphere, circle2, cylinder, cone
                     and torus: the ball touched from inside (a bore, a hollow
                     sphere, a countersink, a toroidal groove's tube); without
                     it, from outside (a shaft, a ball, a tapered pin).
  --normals FILE     cylinder, cone: a second file with the surface normal at
                     each point, "nx ny nz" per line in the order of the
                     points (same format; any length but zero). The fitted
                     surface's directions (a cylinder's radial directions, a
                     cone's outward normals) must lie within the angle of all
                     the normals (a shaft, a pin) or of all of them reversed
                     (a bore, a countersink). Another count of normals than
                     of points is a usage error.
  --axis X,Y,Z       cylinder, cone: the nominal axis direction (any length
                     but zero, either sense); the fitted axis is sought
                     within the angle of it and reported in its sense.
  --angle DEG        cylinder, cone: how far the axis may turn from --axis,
                     and the surface directions from the normals, in degrees
                     (above 0, at most 90; default 10).
  --json             print one JSON object instead of the text report.
  -h, --help         print this help and exit.
  --version          print the version and exit.

Probed planes and lines take the side each point was touched from as a
contact direction after its coordinates:
  plane:  x y z nx ny nz        line2:  x y nx ny
the surface normal at the contact, pointing from the surface towards the
probe centre (any length but zero). --inside does not apply to them.

The axis of a surface of revolution (a turned part of any profile) takes the
surface normal at each point after its coordinates (any length but zero, in
either sense): every normal line of such a surface meets the axis. It needs
at least 6 points and takes no other options than --json. A cylinder's axis
is found the same way; the normals of a sphere meet in one point and fix no
axis, nor do those of a plane across the axis.

Input: one point per line, numbers separated by commas, spaces or tabs;
'#' starts a comment; blank lines are skipped. A line with another count of
numbers, a word, or a value that is not finite stops the run with its line
number. Nothing is guessed.

Reported figures:
  point     for lines and planes: the foot of the points' centroid on the
            feature (for probed fits, of the probe centres' centroid); for a
            cylinder or an axis: the foot of that centroid on the axis, the
            point of the axis among the data.
  apex      a cone's apex.
  axis      the unit axis direction of a cylinder or cone. A cone's points
            from the apex into the cone, towards the points: the way an
            inspection report reads it (the fit itself turns the axis
            towards the apex). With --axis: in the sense nearer to it. The
            axis of a surface of revolution has its largest component
            positive.
  half_angle  a cone's half opening angle, between axis and surface, in
            degrees.
  centre    for a torus: its centre on the axis (the axis with its largest
            component positive; major_radius that of the tube's centre
            circle, minor_radius the tube's). For an ellipse: its centre,
            semi_major and semi_minor its semi-axes; ellipse2 gives the angle
            of the major axis from x in degrees, [0, 180); ellipse3 lies in
            the least-squares plane of the points (normal, largest component
            positive) and gives its unit major_axis.
  rms       root mean square of the orthogonal distances of the points.
            For an axis: of the distances by which the normal lines of the
            points miss the axis (0 when every one meets it). An axis
            reports no form nor quality.
  form      largest minus smallest signed residual: positive outside a
            circle, sphere, cylinder, cone, torus or ellipse, on the
            normal's side of a plane or line2, and towards the probe for
            probed fits. circle3 and ellipse3 sign their distances in space
            by the side within the plane. A line in space
            has unsigned distances: its form is twice the largest (the
            diameter of the enclosing zone).
  quality   how well the points pin the feature down, about 1 at best: a
            whole circle, sphere, cylinder or cone, a flat square patch, a
            long thin row of points along a line. A short arc, a small cap, a
            narrow strip or a wide band along a line scores less. A probed
            cone reports the unscaled measure, about 0.15 times the figure
            of the same points fitted unprobed. Below 0.001 the tool adds a
            warning on standard error (the exit status stays 0), as it does
            when the fitted cylinder or cone lies beyond the --angle limit
            of --axis or --normals (the fit returns one outside the limit
            when none inside it fits nearly as well).

hull: the convex hull of the points of <file>, "x y" per line. Prints a
comment line with the count of hull vertices, then the vertices, one "x y"
per line, counter-clockwise from the pivot (the lowest point, of equally low
ones the rightmost): the output is itself a point file. A point exactly on
an edge of the hull stays a vertex, except on the edge that closes the hull
back to the pivot; repeated points count once; points all on one line give
every distinct point, in order from the pivot.
  --inside X,Y   also say where the point (X, Y) lies: inside, vertex (one
                 of the vertices exactly), edge (on an edge, to a cross
                 product of 1e-10) or outside; on a last comment line.
  --json         {"points": n, "hull": [[x, y], ...], "indices": [...]} with
                 "query": [X, Y] and "position" for --inside; the indices
                 count the data lines of <file> from 0.

Exit status: 0 fitted; 1 the fit refused the points (too few, or a set that
fixes no such feature; no points for a hull); 2 a usage error or a bad input
file.
)";
}

bool valued_option(const std::vector<std::string>& args, std::size_t& i, const std::string& name,
                   bool& given, std::string& value, std::string& error) {
    const std::string& a = args[i];
    if (a != name && a.rfind(name + "=", 0) != 0) return false;
    if (a.size() > name.size()) {
        value = a.substr(name.size() + 1);
    } else if (i + 1 < args.size()) {
        value = args[++i];
    } else {
        error = name + " needs a value";
        return true;
    }
    if (given) error = name + " given twice";
    given = true;
    return true;
}

bool nonnegative_option(const std::vector<std::string>& args, std::size_t& i,
                        const std::string& name, bool& given, double& out, std::string& error) {
    std::string value;
    if (!valued_option(args, i, name, given, value, error)) return false;
    if (error.empty() && (!numbers_value(value, 1, false, &out) || !(out >= 0.0)))
        error = name + " needs a finite number at least 0, not '" + value + "'";
    return true;
}

bool band_option(const std::vector<std::string>& args, std::size_t& i, bool& given, double& lower,
                 double& upper, std::string& error) {
    std::string value;
    if (!valued_option(args, i, "--band", given, value, error)) return false;
    if (!error.empty()) return true;
    double band[2] = {0.0, 0.0};
    if (!numbers_value(value, 2, false, band) || band[0] > band[1]) {
        error = "--band needs two finite numbers LO,HI with LO <= HI, not '" + value + "'";
        return true;
    }
    lower = band[0];
    upper = band[1];
    return true;
}

std::vector<double> option_numbers(const std::string& value) {
    std::vector<double> row;
    std::string why;
    if (parse_point_line(value, row, why) != 1) row.clear();
    return row;
}

bool numbers_value(const std::string& value, std::size_t count, bool nonzero, double* out) {
    const std::vector<double> v = option_numbers(value);
    if (v.size() != count) return false;
    double square = 0.0;
    for (std::size_t k = 0; k < count; ++k) {
        out[k] = v[k];
        square += v[k] * v[k];
    }
    return !nonzero || square > 0.0;
}

std::string formatted_number(double v, const char* format) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, format, v);
    return buffer;
}

bool common_flag(const std::string& a, bool& help, bool& version, bool& json) {
    if (a == "-h" || a == "--help")
        help = true;
    else if (a == "--version")
        version = true;
    else if (a == "--json")
        json = true;
    else
        return false;
    return true;
}

int command_file_argument(const std::vector<std::string>& positional, const std::string& command,
                          std::string& file, std::string& error) {
    if (positional.empty() || positional[0] != command) {
        error = "the command is not '" + command + "'";
        return kExitUsage;
    }
    if (positional.size() < 2) {
        error = command + " needs a file";
        return kExitUsage;
    }
    if (positional.size() > 2) {
        error = "unexpected argument '" + positional[2] + "'";
        return kExitUsage;
    }
    file = positional[1];
    return kExitOk;
}

int parse_options(const std::vector<std::string>& args, Options& o, std::string& error) {
    o = Options();
    std::vector<std::string> positional;
    bool radius_given = false, normals_given = false, axis_given = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        std::string value;
        if (common_flag(a, o.help, o.version, o.json)) continue;
        if (a == "--inside") {
            o.inside = true;
        } else if (valued_option(args, i, "--probe-radius", radius_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            const std::vector<double> row = option_numbers(value);
            if (row.size() != 1 || row[0] < 0.0) {
                error = "--probe-radius needs one finite number of at least 0, not '" + value + "'";
                return kExitUsage;
            }
            o.probed = true;
            o.probe_radius = row[0];
        } else if (valued_option(args, i, "--normals", normals_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            if (value.empty()) {
                error = "--normals needs a file name";
                return kExitUsage;
            }
            o.normals_file = value;
        } else if (valued_option(args, i, "--axis", axis_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            o.axis = option_numbers(value);
            if (o.axis.size() != 3) {
                error = "--axis needs three finite numbers x,y,z, not '" + value + "'";
                return kExitUsage;
            }
            if (!giUnitVec3(o.axis[0], o.axis[1], o.axis[2]).is_set()) {
                error = "--axis needs a direction of non-zero length, not '" + value + "'";
                return kExitUsage;
            }
        } else if (valued_option(args, i, "--angle", o.angle_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            const std::vector<double> row = option_numbers(value);
            if (row.size() != 1 || !(row[0] > 0.0 && row[0] <= 90.0)) {
                error = "--angle needs one number of degrees above 0 and at most 90, not '" +
                        value + "'";
                return kExitUsage;
            }
            o.angle_degrees = row[0];
        } else if (a.size() > 1 && a[0] == '-') {
            error = "unknown option '" + a + "'";
            return kExitUsage;
        } else {
            positional.push_back(a);
        }
    }
    if (o.help || o.version) return kExitOk;
    if (positional.empty()) {
        error = "no command given";
        return kExitUsage;
    }
    if (positional[0] != "fit") {
        error = "unknown command '" + positional[0] +
                "' (the commands are 'fit', 'hull', 'align', 'bestfit', 'match' and 'rps')";
        return kExitUsage;
    }
    if (positional.size() < 3) {
        error = positional.size() == 1 ? "fit needs a feature and a file"
                                       : "fit needs a file after the feature";
        return kExitUsage;
    }
    if (positional.size() > 3) {
        error = "unexpected argument '" + positional[3] + "'";
        return kExitUsage;
    }
    const FeatureInfo* found = nullptr;
    for (const FeatureInfo& f : kFeatures)
        if (positional[1] == f.name) found = &f;
    if (!found) {
        error = "unknown feature '" + positional[1] + "' (" +
                feature_names([](const FeatureInfo&) { return true; }, "or") + ")";
        return kExitUsage;
    }
    o.feature = found->feature;
    o.file = positional[2];
    if (o.probed && !found->probed_form) {
        error = std::string(found->name) + " has no probed fit: --probe-radius applies to " +
                feature_names([](const FeatureInfo& f) { return f.probed_form; }, "and");
        return kExitUsage;
    }
    if (o.inside && !o.probed) {
        error = "--inside needs --probe-radius";
        return kExitUsage;
    }
    if (o.inside && found->directions) {
        error = std::string("--inside does not apply to ") + found->name +
                ": its contact directions give the side";
        return kExitUsage;
    }
    const char* axial_option = normals_given   ? "--normals"
                               : axis_given    ? "--axis"
                               : o.angle_given ? "--angle"
                                               : nullptr;
    if (axial_option && !found->axial) {
        error = std::string(axial_option) + " applies to " +
                feature_names([](const FeatureInfo& f) { return f.axial; }, "and") + " only, not " +
                found->name;
        return kExitUsage;
    }
    if (o.angle_given && !normals_given && !axis_given) {
        error = "--angle needs --axis or --normals: it limits their deviation";
        return kExitUsage;
    }
    if (o.normals_file == "-" && o.file == "-") {
        error = "the points and the normals cannot both come from standard input";
        return kExitUsage;
    }
    return kExitOk;
}

int fit_table(const Options& o, const PointTable& t, FitReport& r, std::string& message) {
    return fit_table(o, t, PointTable(), r, message);
}

int fit_table(const Options& o, const PointTable& t, const PointTable& normals, FitReport& r,
              std::string& message) {
    const FeatureInfo& f = info(o.feature);
    r = FitReport();
    r.feature = f.name;
    r.points = t.rows();
    r.probed = o.probed;
    r.probe_radius = o.probe_radius;
    r.inside = o.inside;
    // Contact directions of the probed plane and line. One of zero length
    // says nothing about the side: refuse the file rather than guess.
    // The surface normals of an axis fit likewise: none of zero length.
    giUnitVec2coDynArr d2;
    giUnitVec3coDynArr d3;
    if (with_direction_columns(o)) {
        const char* what = f.normal_columns ? "surface normal" : "contact direction";
        const bool ok = f.dimension == 2 ? read_directions2(t, d2, message)
                                         : read_directions3(t, 3, "", what, d3, message);
        if (!ok) return kExitUsage;
    }
    // Surface normals of a cylinder or cone, matched to the points by order:
    // a count that differs means the files do not belong together.
    giUnitVec3coDynArr n3;
    if (f.axial && !o.normals_file.empty()) {
        if (normals.rows() != t.rows()) {
            message = "the normals file '" + o.normals_file + "' has " +
                      std::to_string(normals.rows()) + " normals for " + std::to_string(t.rows()) +
                      " points (one per point, in their order)";
            return kExitUsage;
        }
        if (!read_directions3(normals, 0, " of the normals file '" + o.normals_file + "'", "normal",
                              n3, message))
            return kExitUsage;
    }
    int status = kExitRefused;
    switch (o.feature) {
        case Feature::line2:
            status = fit_line2(o, t, d2, r);
            break;
        case Feature::line3:
            status = fit_line3(t, r);
            break;
        case Feature::plane:
            status = fit_plane(o, t, d3, r);
            break;
        case Feature::circle2:
            status = fit_circle2(o, t, r);
            break;
        case Feature::circle3:
            status = fit_circle3(t, r);
            break;
        case Feature::sphere:
            status = fit_sphere(o, t, r);
            break;
        case Feature::cylinder:
            status = fit_cylinder(o, t, n3, r);
            break;
        case Feature::cone:
            status = fit_cone(o, t, n3, r);
            break;
        case Feature::axis:
            status = fit_axis(t, d3, r);
            break;
        case Feature::torus:
            status = fit_torus(o, t, r);
            break;
        case Feature::ellipse2:
            status = fit_ellipse2(t, r);
            break;
        case Feature::ellipse3:
            status = fit_ellipse3(t, r);
            break;
    }
    if (status == kExitRefused) {
        const std::string what = std::string(o.probed ? "probed " : "") + f.name + " fit";
        if (t.rows() < f.minimum_points) {
            message = "the " + what + " needs at least " + std::to_string(f.minimum_points) +
                      " points; the file has " + std::to_string(t.rows());
        } else {
            message = "the " + what + " refused the " + std::to_string(t.rows()) +
                      " points: they do not fix " + article(f.description) + " " + f.description +
                      " (for example all equal, or all on one line)";
        }
    }
    return status;
}

std::string format_human(const FitReport& r) {
    std::string s = "feature   " + r.feature;
    if (r.probed) {
        s += " (probe radius " + number(r.probe_radius, "%.10g");
        if (has_side(r.feature)) s += r.inside ? ", touched from inside" : ", touched from outside";
        s += ")";
    }
    s += "\npoints    " + std::to_string(r.points) + "\n";
    for (const auto& [name, values] : r.parameters) {
        std::string line = name;
        line.resize(std::max<std::size_t>(10, name.size() + 1),
                    ' ');  // a longer name keeps a space
        for (std::size_t k = 0; k < values.size(); ++k)
            line += (k ? " " : "") + number(values[k], "%.10g");
        s += line + "\n";
    }
    s += "rms       " + number(r.rms, "%.6g") + "\n";
    if (!r.form_and_quality) return s;
    s += "form      " + number(r.form_deviation, "%.6g") + "\n";
    s += "quality   " + number(r.distribution_quality, "%.4f") + "\n";
    return s;
}

std::string format_json(const FitReport& r) {
    std::string s = "{\"feature\": \"" + r.feature + "\", \"points\": " + std::to_string(r.points) +
                    ", \"probed\": " + (r.probed ? "true" : "false");
    if (r.probed) {
        s += ", \"probe_radius\": " + json_number(r.probe_radius);
        if (has_side(r.feature)) s += std::string(", \"inside\": ") + (r.inside ? "true" : "false");
    }
    for (const auto& [name, values] : r.parameters) {
        s += ", \"" + name + "\": ";
        if (values.size() == 1) {
            s += json_number(values[0]);
            continue;
        }
        s += "[";
        for (std::size_t k = 0; k < values.size(); ++k)
            s += (k ? ", " : "") + json_number(values[k]);
        s += "]";
    }
    s += ", \"rms\": " + json_number(r.rms);
    if (r.form_and_quality) {
        s += ", \"form_deviation\": " + json_number(r.form_deviation);
        s += ", \"distribution_quality\": " + json_number(r.distribution_quality);
    }
    return s + "}\n";
}

bool read_input_file(const std::string& name, std::istream& in,
                     const std::function<bool(std::istream&, std::string&)>& reader,
                     std::ostream& err) {
    std::string error;
    bool read = false;
    if (name == "-") {
        read = reader(in, error);
    } else {
        std::ifstream file(name);
        if (!file) {
            err << "metrofit: cannot open '" << name << "'\n";
            return false;
        }
        read = reader(file, error);
    }
    if (!read) err << "metrofit: " << name << ": " << error << "\n";
    return read;
}

bool read_table_file(const std::string& name, std::istream& in, int columns,
                     const std::string& column_names, PointTable& table, std::ostream& err) {
    return read_input_file(
        name, in,
        [&](std::istream& s, std::string& error) {
            return read_point_table(s, columns, column_names, table, error);
        },
        err);
}

int finish_early(int parse_status, const std::string& error, bool help, bool version,
                 std::ostream& out, std::ostream& err, const std::string& command,
                 const std::string& usage) {
    const std::string name = command.empty() ? "" : command + " ";
    if (parse_status != kExitOk) {
        err << "metrofit: " << error << "\nTry 'metrofit " << name << "--help'.\n";
        return kExitUsage;
    }
    if (help) {
        out << (usage.empty() ? usage_text() : usage);
        return kExitOk;
    }
    if (version) {
        out << "metrofit " << METROFIT_VERSION << "\n";
        return kExitOk;
    }
    return -1;
}

int run_metrofit(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                 std::ostream& err) {
    if (is_hull_command(args)) return run_hull(args, in, out, err);
    Options o;
    std::string error;
    const int parsed = parse_options(args, o, error);
    const int early = finish_early(parsed, error, o.help, o.version, out, err);
    if (early >= 0) return early;

    // Points, then the normals when given: both in the point file format.
    PointTable table, normals;
    if (!read_table_file(o.file, in, expected_columns(o), column_names(o), table, err))
        return kExitUsage;
    if (!o.normals_file.empty() &&
        !read_table_file(o.normals_file, in, 3, "nx ny nz", normals, err))
        return kExitUsage;

    FitReport report;
    const int status = fit_table(o, table, normals, report, error);
    if (status != kExitOk) {
        err << "metrofit: " << o.file << ": " << error << "\n";
        return status;
    }
    out << (o.json ? format_json(report) : format_human(report));
    for (const std::string& warning : report.warnings)
        err << "metrofit: warning: " << warning << "\n";
    if (report.form_and_quality && !(report.distribution_quality >= kPoorQuality))
        err << "metrofit: warning: distribution quality "
            << number(report.distribution_quality, "%.2g") << ": the points hardly fix the "
            << report.feature << "; its parameters are unreliable\n";
    return kExitOk;
}

}  // namespace metrofit_tool
