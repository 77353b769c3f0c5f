#include "tools/metrofit/bestfit2d_command.h"

#include <cfloat>
#include <cmath>
#include <iterator>
#include <limits>

#include "metrofit/bestfit/curve_bestfit2.h"
#include "tools/metrofit/fit_command.h"
#include "tools/metrofit/point_file.h"

namespace metrofit_tool {

namespace {

bool parse_row(const std::vector<double>& row, Bestfit2dPoint& p, std::string& error) {
    p = Bestfit2dPoint();
    const std::size_t n = row.size();
    if (n != 2 && n != 4 && n != 5) {
        error = "expected 2, 4 or 5 numbers (x y [nx ny [r]]), found " + std::to_string(n);
        return false;
    }
    p.position[0] = row[0];
    p.position[1] = row[1];
    if (n == 2) return true;
    const double length = std::hypot(row[2], row[3]);
    if (!(length > 0.0)) {
        error = "the approximate normal has no length";
        return false;
    }
    p.has_normal = true;
    p.normal[0] = row[2] / length;
    p.normal[1] = row[3] / length;
    if (n == 5) {
        if (!(row[4] >= 0.0)) {
            error = "the probe radius must be at least 0, not " + formatted_number(row[4], "%.10g");
            return false;
        }
        p.has_radius = true;
        p.radius = row[4];
    }
    return true;
}

// v right-aligned in `width` columns (wider values are kept whole).
std::string padded(const std::string& v, std::size_t width) {
    return std::string(width > v.size() ? width - v.size() : 0, ' ') + v;
}

std::string number_or_dash(double v) {
    return std::isfinite(v) ? formatted_number(v, "%.6g") : std::string("-");
}

}  // namespace

bool is_bestfit2d_command(const std::vector<std::string>& args) {
    return command_is(args, "bestfit2d");
}

int parse_bestfit2d_options(const std::vector<std::string>& args, Bestfit2dOptions& o,
                            std::string& error) {
    o = Bestfit2dOptions();
    std::vector<std::string> positional;
    bool contour_given = false, tolerance_given = false, radius_given = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        std::string value;
        if (common_flag(a, o.help, o.version, o.json)) continue;
        if (valued_option(args, i, "--contour", contour_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            o.contour = value;
        } else if (nonnegative_option(args, i, "--tolerance", tolerance_given, o.tolerance,
                                      error)) {
            if (!error.empty()) return kExitUsage;
        } else if (nonnegative_option(args, i, "--probe-radius", radius_given, o.probe_radius,
                                      error)) {
            if (!error.empty()) return kExitUsage;
        } else if (valued_option(args, i, "--lock-origin", o.lock_origin, value, error)) {
            if (!error.empty()) return kExitUsage;
            if (!numbers_value(value, 2, false, o.origin)) {
                error = "--lock-origin needs two finite numbers X,Y, not '" + value + "'";
                return kExitUsage;
            }
        } else if (valued_option(args, i, "--lock-axis", o.lock_axis, value, error)) {
            if (!error.empty()) return kExitUsage;
            if (!numbers_value(value, 2, true, o.axis)) {
                error =
                    "--lock-axis needs a direction of non-zero length DX,DY, not '" + value + "'";
                return kExitUsage;
            }
        } else if (band_option(args, i, o.band, o.band_lower, o.band_upper, error)) {
            if (!error.empty()) return kExitUsage;
        } else if (a.size() > 1 && a[0] == '-') {
            error = "unknown option '" + a +
                    "' for bestfit2d (it takes --contour, --probe-radius, --tolerance, "
                    "--lock-origin, --lock-axis, --band and --json)";
            return kExitUsage;
        } else {
            positional.push_back(a);
        }
    }
    if (o.help || o.version) return kExitOk;
    if (command_file_argument(positional, "bestfit2d", o.file, error) != kExitOk) return kExitUsage;
    if (!contour_given) {
        error = "bestfit2d needs the nominal profile: --contour FILE";
        return kExitUsage;
    }
    if (o.lock_origin && o.lock_axis) {
        error = "--lock-origin and --lock-axis exclude each other";
        return kExitUsage;
    }
    return kExitOk;
}

bool read_bestfit2d_points(std::istream& in, std::vector<Bestfit2dPoint>& points,
                           std::string& error) {
    points.clear();
    return read_number_rows(
        in,
        [&](std::vector<double>& row, int number, std::string& message) {
            Bestfit2dPoint p;
            if (!parse_row(row, p, message)) return false;
            p.line = number;
            points.push_back(p);
            return true;
        },
        error);
}

int bestfit2d_points(const Bestfit2dOptions& o, const tsCurve2& contour,
                     const std::vector<Bestfit2dPoint>& points, Bestfit2dReport& r,
                     std::string& message) {
    r = Bestfit2dReport();
    r.points = static_cast<int>(points.size());
    if (points.empty()) {
        message = "the bestfit needs at least one point; the file has 0";
        return kExitRefused;
    }
    const tsCurveProjectorForFitting2 projector(&contour);
    tsCurveBestfit2 fit;
    fit.set_projector(&projector);
    fit.reserve_points(r.points);
    std::vector<tsProbedPoint2*> probed;
    for (const Bestfit2dPoint& p : points) {
        // A 2-column row has no approximate normal: the profile's own side.
        const giUnitVec2 normal =
            p.has_normal ? giUnitVec2(p.normal[0], p.normal[1]) : giUnitVec2();
        const double radius = p.has_radius ? p.radius : p.has_normal ? o.probe_radius : 0.0;
        probed.push_back(
            new tsProbedPoint2(giPoint2(p.position[0], p.position[1]), normal, radius));
        fit.add_point(tsFitPoint2coPrf(probed.back()), o.band ? o.band_lower : -DBL_MAX,
                      o.band ? o.band_upper : DBL_MAX, 1.0);
        r.lines.push_back(p.line);
    }
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (const tsProbedPoint2* p : probed) {
        tsProjectedPoint2 before;
        projector.rotate_and_project(giXform2(giIdentity), p, before);
        r.before.push_back(before.invalid() ? nan : before.signed_distance());
    }
    if (o.lock_origin)
        fit.lock_origin(giPoint2(o.origin[0], o.origin[1]), giPoint2(o.origin[0], o.origin[1]));
    if (o.lock_axis)
        fit.lock_axis(giVector2(o.axis[0], o.axis[1]), giVector2(o.axis[0], o.axis[1]));

    giXform2 T;
    const int ok =
        fit.fit(o.tolerance, T, r.max_distance, r.max_signed, r.min_signed, r.unprojected);
    if (!ok) {
        message = fit.status() == tsCURVE_BESTFIT2_NOTHING_PROJECTED
                      ? "no point projects onto the profile (every point lies past the ends of "
                        "an open profile or on an arc's centre)"
                      : "the fit failed (status " + std::to_string(fit.status()) + ")";
        return kExitRefused;
    }
    r.converged = fit.status() == tsCURVE_BESTFIT2_CONVERGED;
    r.iterations = fit.iterations();
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 3; ++j) r.transform[i][j] = T(i, j);
    r.transform[2][2] = 1.0;
    double sum = 0.0;
    int valid = 0;
    for (const tsProjectedPoint2& p : fit.get_pointcloud()) {
        const double d = p.invalid() ? nan : p.signed_distance();
        r.after.push_back(d);
        if (!p.invalid()) sum += d * d, ++valid;
    }
    r.rms = valid > 0 ? std::sqrt(sum / valid) : 0.0;
    r.overdetermined = fit.overdetermined_constraints().size();
    return kExitOk;
}

std::string format_bestfit2d_human(const Bestfit2dReport& r) {
    std::string s = "transform (measured -> nominal)\n";
    for (const auto& row : r.transform) {
        for (int j = 0; j < 3; ++j) s += (j ? " " : "  ") + formatted_number(row[j], "%.12g");
        s += "\n";
    }
    s += "points          " + std::to_string(r.points) + "\n";
    s += "  line      before       after\n";
    for (std::size_t i = 0; i < r.lines.size(); ++i) {
        const std::string line = std::to_string(r.lines[i]);
        const std::string b = number_or_dash(r.before[i]), a = number_or_dash(r.after[i]);
        s += padded(line, 6) + " " + padded(b, 11) + " " + padded(a, 11) + "\n";
    }
    s += "rms             " + formatted_number(r.rms, "%.6g") + "\n";
    s += "max deviation   " + formatted_number(r.max_signed, "%.6g") + "\n";
    s += "min deviation   " + formatted_number(r.min_signed, "%.6g") + "\n";
    s += "max distance    " + formatted_number(r.max_distance, "%.6g") + "\n";
    s += "unprojected     " + std::to_string(r.unprojected) + "\n";
    s += "overdetermined  " + std::to_string(r.overdetermined) + "\n";
    s += std::string("iterations      ") + std::to_string(r.iterations) +
         (r.converged ? "" : " (limit reached)") + "\n";
    return s;
}

std::string format_bestfit2d_json(const Bestfit2dReport& r) {
    std::string s = "{\"points\": " + std::to_string(r.points) + ", \"transform\": [";
    for (int i = 0; i < 3; ++i) {
        s += i ? ", [" : "[";
        for (int j = 0; j < 3; ++j) s += (j ? ", " : "") + json_number(r.transform[i][j]);
        s += "]";
    }
    s += "], \"deviations\": [";
    for (std::size_t i = 0; i < r.lines.size(); ++i)
        s += std::string(i ? ", " : "") + "{\"line\": " + std::to_string(r.lines[i]) +
             ", \"before\": " + json_number(r.before[i]) +
             ", \"after\": " + json_number(r.after[i]) + "}";
    return s + "], \"rms\": " + json_number(r.rms) +
           ", \"max_signed_deviation\": " + json_number(r.max_signed) +
           ", \"min_signed_deviation\": " + json_number(r.min_signed) +
           ", \"max_distance\": " + json_number(r.max_distance) +
           ", \"unprojected\": " + std::to_string(r.unprojected) +
           ", \"overdetermined\": " + std::to_string(r.overdetermined) +
           ", \"iterations\": " + std::to_string(r.iterations) +
           ", \"converged\": " + (r.converged ? "true" : "false") + "}\n";
}

std::string bestfit2d_usage_text() {
    return R"(Usage: metrofit bestfit2d --contour FILE <points> [--probe-radius R]
                          [--tolerance T] [--lock-origin X,Y | --lock-axis DX,DY]
                          [--band LO,HI] [--json]

bestfit2d: the rigid motion of the plane (turn and shift) that carries
measured points onto a nominal profile of line segments and circular arcs,
in the least-squares sense.

The profile (--contour) holds one element per line, numbers separated by
spaces, tabs or commas, '#' starts a comment:
  line x1 y1 x2 y2         a segment from (x1, y1) to (x2, y2)
  arc x1 y1 xm ym x2 y2    an arc from (x1, y1) through (xm, ym) to (x2, y2)
Each element starts where the previous one ends (to 1e-6 of the
coordinates' size); the profile is closed when the last end meets the first
start. Its normal side is the left of the direction of travel: a closed
profile written clockwise has its normals outside.

<points> ("-" reads standard input) holds one point per line:
  x y nx ny [r]   a probe-ball centre, the approximate normal at the contact
                  (the probing direction reversed; any length but zero) and
                  the ball radius (at least 0; without it --probe-radius).
                  The touched point, not the centre, is fitted.
  x y             a point on the profile itself (radius 0), its deviation
                  signed along the profile's normal side.
A deviation is positive on the side the probe came from.

Options:
  --contour FILE       the nominal profile (required).
  --probe-radius R     the ball radius of 4-column rows (default 0).
  --tolerance T        stop when no point moves by T or more in a step
                       (default 1e-9; at most 50 steps).
  --lock-origin X,Y    the point (X, Y) stays where it is: the part only
                       turns about it.
  --lock-axis DX,DY    no turn: the part only slides along the direction.
                       (The two locks exclude each other.)
  --band LO,HI         the tolerance band of every point's deviation: kept
                       where it can be rather than minimising the squares;
                       limits that conflict with the others are dropped and
                       counted.
  --json               print one JSON object instead of the text report.
  -h, --help           print this help and exit.

Report: the 3 x 3 matrix of the transform (measured -> nominal, last row
0 0 1); per point its file line and deviation before and after the fit ('-'
where it does not project); the rms and the extremes of the deviations
after the fit, the largest distance to the partner point, the count of
points that do not project, of band limits dropped, and of steps taken.

Exit status: 0 fitted; 1 no points, or no point that projects; 2 a usage
error, a bad profile or a bad points file (the message names the line).
)";
}

int run_bestfit2d(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                  std::ostream& err) {
    Bestfit2dOptions o;
    std::string error;
    const int parsed = parse_bestfit2d_options(args, o, error);
    const int early = finish_early(parsed, error, o.help, o.version, out, err, "bestfit2d",
                                   bestfit2d_usage_text());
    if (early >= 0) return early;

    tsCurve2 contour;
    if (!read_input_file(
            o.contour, in,
            [&](std::istream& s, std::string& why) {
                const std::string text((std::istreambuf_iterator<char>(s)),
                                       std::istreambuf_iterator<char>());
                return tsCurve2::parse(text, contour, why) == 1;
            },
            err))
        return kExitUsage;
    std::vector<Bestfit2dPoint> points;
    if (!read_input_file(
            o.file, in,
            [&](std::istream& s, std::string& why) {
                return read_bestfit2d_points(s, points, why);
            },
            err))
        return kExitUsage;
    Bestfit2dReport report;
    const int status = bestfit2d_points(o, contour, points, report, error);
    if (status != kExitOk) {
        err << "metrofit: " << o.file << ": " << error << "\n";
        return status;
    }
    out << (o.json ? format_bestfit2d_json(report) : format_bestfit2d_human(report));
    return kExitOk;
}

}  // namespace metrofit_tool
