#include "tools/metrofit/bestfit_command.h"

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <fstream>

#include "metrofit/bestfit/scaled_bestfit.h"
#include "metrofit/bestfit/surface_bestfit.h"
#include "tools/metrofit/fit_command.h"

namespace metrofit_tool {

namespace {

// Adjacent facet normals within this angle count as one when the normal of
// a surface point (a 3-column row) is taken: a flat face split into
// triangles keeps its exact normal.
const giAngle kFlatAngle(giANGLE_RADIANS, 1e-9);

giPoint3 point(const double p[3]) { return giPoint3(p[0], p[1], p[2]); }

// Why a scaled fit failed, for its status.
std::string scaled_failure(int status) {
    switch (status) {
        case tsSCALED_BESTFIT_NONE_PROJECTING:
            return "no point projects onto the surface";
        case tsSCALED_BESTFIT_SCALE_UNDETERMINED:
            return "the points do not determine a scale (a single plane, for example); fit "
                   "without --scale";
        case tsSCALED_BESTFIT_TOO_FEW_PAIRS:
            return "the rough start needs at least 3 pairs";
        case tsSCALED_BESTFIT_DEGENERATE_PAIRS:
            return "the pairs lie on one line or coincide: they fix no start";
        case tsSCALED_BESTFIT_DIVERGED:
            return "the scaled fit diverged; give --pairs for a start";
        default:
            return "the points determine no motion (they coincide)";
    }
}
giVector3 vector(const double v[3]) { return giVector3(v[0], v[1], v[2]); }

}  // namespace

bool is_bestfit_command(const std::vector<std::string>& args) {
    return command_is(args, "bestfit", {"--lock-rotations", "--scale"});
}

int parse_bestfit_options(const std::vector<std::string>& args, BestfitOptions& o,
                          std::string& error) {
    o = BestfitOptions();
    std::vector<std::string> positional;
    bool surface_given = false, tolerance_given = false, radius_given = false;
    bool pairs_given = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        std::string value;
        if (common_flag(a, o.help, o.version, o.json)) continue;
        if (a == "--lock-rotations") {
            o.lock_rotations = true;
        } else if (a == "--scale") {
            o.scale = true;
        } else if (valued_option(args, i, "--scale-centre", o.scale_centre_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            if (!numbers_value(value, 3, false, o.scale_centre)) {
                error = "--scale-centre needs three finite numbers X,Y,Z, not '" + value + "'";
                return kExitUsage;
            }
        } else if (valued_option(args, i, "--pairs", pairs_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            o.pairs = value;
        } else if (valued_option(args, i, "--surface", surface_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            o.surface = value;
        } else if (nonnegative_option(args, i, "--tolerance", tolerance_given, o.tolerance,
                                      error)) {
            if (!error.empty()) return kExitUsage;
        } else if (nonnegative_option(args, i, "--probe-radius", radius_given, o.probe_radius,
                                      error)) {
            if (!error.empty()) return kExitUsage;
        } else if (valued_option(args, i, "--lock-origin", o.lock_origin, value, error)) {
            if (!error.empty()) return kExitUsage;
            if (!numbers_value(value, 3, false, o.origin)) {
                error = "--lock-origin needs three finite numbers X,Y,Z, not '" + value + "'";
                return kExitUsage;
            }
        } else if (valued_option(args, i, "--lock-axis", o.lock_axis, value, error)) {
            if (!error.empty()) return kExitUsage;
            if (!numbers_value(value, 3, true, o.axis)) {
                error = "--lock-axis needs a direction of non-zero length AX,AY,AZ, not '" + value +
                        "'";
                return kExitUsage;
            }
        } else if (band_option(args, i, o.band, o.band_lower, o.band_upper, error)) {
            if (!error.empty()) return kExitUsage;
        } else if (a.size() > 1 && a[0] == '-') {
            error =
                "unknown option '" + a +
                "' for bestfit (it takes --surface, --probe-radius, --tolerance, "
                "--lock-rotations, --lock-origin, --lock-axis, --band, --scale, --scale-centre, "
                "--pairs and --json)";
            return kExitUsage;
        } else {
            positional.push_back(a);
        }
    }
    if (o.help || o.version) return kExitOk;
    if (command_file_argument(positional, "bestfit", o.file, error) != kExitOk) return kExitUsage;
    if (!surface_given) {
        error = "bestfit needs the nominal surface: --surface FILE.stl";
        return kExitUsage;
    }
    if (o.lock_rotations + o.lock_origin + o.lock_axis > 1) {
        error = "--lock-rotations, --lock-origin and --lock-axis exclude each other";
        return kExitUsage;
    }
    if ((o.scale_centre_given || pairs_given) && !o.scale) {
        error = "--scale-centre and --pairs go with --scale";
        return kExitUsage;
    }
    return kExitOk;
}

bool parse_bestfit_row(const std::vector<double>& row, BestfitPoint& p, std::string& error) {
    p = BestfitPoint();
    const std::size_t n = row.size();
    if (n != 3 && n != 6 && n != 7) {
        error = "expected 3, 6 or 7 numbers (x y z [nx ny nz [r]]), found " + std::to_string(n);
        return false;
    }
    for (int k = 0; k < 3; ++k) p.position[k] = row[k];
    if (n == 3) return true;
    const double length = std::hypot(std::hypot(row[3], row[4]), row[5]);
    if (!(length > 0.0)) {
        error = "the approximate normal has no length";
        return false;
    }
    p.has_normal = true;
    for (int k = 0; k < 3; ++k) p.normal[k] = row[3 + k] / length;
    if (n == 7) {
        if (!(row[6] >= 0.0)) {
            error = "the probe radius must be at least 0, not " + formatted_number(row[6], "%.10g");
            return false;
        }
        p.has_radius = true;
        p.radius = row[6];
    }
    return true;
}

bool read_bestfit_pairs(std::istream& in, std::vector<BestfitPair>& pairs, std::string& error) {
    pairs.clear();
    return read_number_rows(
        in,
        [&](std::vector<double>& row, int, std::string& message) {
            if (row.size() != 6) {
                message =
                    "expected 6 numbers (mx my mz nx ny nz), found " + std::to_string(row.size());
                return false;
            }
            BestfitPair p;
            for (int k = 0; k < 3; ++k) {
                p.measured[k] = row[k];
                p.nominal[k] = row[3 + k];
            }
            pairs.push_back(p);
            return true;
        },
        error);
}

bool read_bestfit_points(std::istream& in, std::vector<BestfitPoint>& points, std::string& error) {
    points.clear();
    return read_number_rows(
        in,
        [&](std::vector<double>& row, int number, std::string& message) {
            BestfitPoint p;
            if (!parse_bestfit_row(row, p, message)) return false;
            p.line = number;
            points.push_back(p);
            return true;
        },
        error);
}

int bestfit_points(const BestfitOptions& o, const srkMeshSurf& surface,
                   const std::vector<BestfitPoint>& points, BestfitReport& r,
                   std::string& message) {
    return bestfit_points(o, surface, points, {}, r, message);
}

int bestfit_points(const BestfitOptions& o, const srkMeshSurf& surface,
                   const std::vector<BestfitPoint>& points, const std::vector<BestfitPair>& pairs,
                   BestfitReport& r, std::string& message) {
    r = BestfitReport();
    r.points = static_cast<int>(points.size());
    if (points.empty()) {
        message = "the bestfit needs at least one point; the file has 0";
        return kExitRefused;
    }
    const tsSurfProjectorForFitting3 projector(&surface);
    tsSurfaceBestfit fit;
    fit.set_projector(&projector);
    fit.reserve_points(r.points);
    tsScaledSurfaceBestfit scaled;
    scaled.set_projector(&projector);
    if (o.scale) scaled.reserve_points(r.points);
    srkSurfPointList feet;
    for (const BestfitPoint& p : points) {
        const giPoint3 at = point(p.position);
        giUnitVec3 normal(vector(p.normal));
        if (!p.has_normal) {
            // A point on the surface: its side is the outside, the mesh's
            // normal at its nearest point.
            feet.clear(0);
            int info = 0;
            if (surface.project_all(at, feet, info) < 1) {
                message = "line " + std::to_string(p.line) + ": no point of the surface near it";
                return kExitRefused;
            }
            normal = surface.normal_at(feet[0], kFlatAngle);
        }
        const double radius = p.has_radius ? p.radius : p.has_normal ? o.probe_radius : 0.0;
        const tsFitPoint3coPrf probed(new tsProbedPoint3(at, normal, radius));
        const double lower = o.band ? o.band_lower : -DBL_MAX;
        const double upper = o.band ? o.band_upper : DBL_MAX;
        if (o.scale)
            scaled.add_point(probed, lower, upper, 1.0);
        else
            fit.add_point(probed, lower, upper, 1.0);
    }
    if (o.scale) {
        for (const BestfitPair& p : pairs) scaled.add_pair(point(p.measured), point(p.nominal));
        scaled.set_scale_centre(point(o.scale_centre));
        if (o.lock_rotations)
            scaled.lock_rotations(giVector3(1, 0, 0), giVector3(0, 1, 0), giVector3(0, 0, 1));
        if (o.lock_origin) scaled.lock_origin(point(o.origin), point(o.origin));
        if (o.lock_axis)
            scaled.lock_axis(tsSURFACE_BESTFIT_AXIS_DIRECTION, vector(o.axis), vector(o.axis),
                             giPoint3(-DBL_MAX, 0, 0), giPoint3(-DBL_MAX, 0, 0));
        giXform3 T;
        const int status = scaled.fit(o.tolerance, T, r.scale);
        if (status <= 0) {
            message = scaled_failure(status);
            return kExitRefused;
        }
        r.scaled = true;
        for (int k = 0; k < 3; ++k) r.scale_centre[k] = o.scale_centre[k];
        r.max_distance = scaled.max_distance();
        r.max_signed = scaled.max_signed_distance();
        r.min_signed = scaled.min_signed_distance();
        r.unprojected = scaled.n_unprojected();
        r.overdetermined = scaled.overdetermined_constraints().size();
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 4; ++j) r.transform[i][j] = T(i, j);
        r.transform[3][3] = 1.0;
        return kExitOk;
    }
    if (o.lock_rotations)
        fit.lock_rotations(giVector3(1, 0, 0), giVector3(0, 1, 0), giVector3(0, 0, 1));
    if (o.lock_origin) fit.lock_origin(point(o.origin), point(o.origin));
    if (o.lock_axis)
        fit.lock_axis(tsSURFACE_BESTFIT_AXIS_DIRECTION, vector(o.axis), vector(o.axis), giPoint3(),
                      giPoint3());

    giXform3 T;
    fit.fit(o.tolerance, T, r.max_distance, r.max_signed, r.min_signed, r.unprojected);
    if (!T.is_set() || r.unprojected == r.points) {
        message = "no point projects onto the surface";
        return kExitRefused;
    }
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) r.transform[i][j] = T(i, j);
    r.transform[3][3] = 1.0;
    r.overdetermined = fit.overdetermined_constraints().size();
    return kExitOk;
}

std::string format_bestfit_human(const BestfitReport& r) {
    std::string s = "transform (measured -> nominal)\n";
    for (const auto& row : r.transform) {
        for (int j = 0; j < 4; ++j) s += (j ? " " : "  ") + formatted_number(row[j], "%.12g");
        s += "\n";
    }
    s += "points          " + std::to_string(r.points) + "\n";
    s += "max deviation   " + formatted_number(r.max_signed, "%.6g") + "\n";
    s += "min deviation   " + formatted_number(r.min_signed, "%.6g") + "\n";
    s += "max distance    " + formatted_number(r.max_distance, "%.6g") + "\n";
    s += "unprojected     " + std::to_string(r.unprojected) + "\n";
    s += "overdetermined  " + std::to_string(r.overdetermined) + "\n";
    if (r.scaled) {
        s += "scale           " + formatted_number(r.scale, "%.12g") + "\n";
        s += "scale centre    ";
        for (int k = 0; k < 3; ++k)
            s += (k ? " " : "") + formatted_number(r.scale_centre[k], "%.12g");
        s += "\n";
    }
    return s;
}

std::string format_bestfit_json(const BestfitReport& r) {
    std::string s = "{\"points\": " + std::to_string(r.points) + ", \"transform\": [";
    for (int i = 0; i < 4; ++i) {
        s += i ? ", [" : "[";
        for (int j = 0; j < 4; ++j) s += (j ? ", " : "") + json_number(r.transform[i][j]);
        s += "]";
    }
    return s + "], \"max_signed_deviation\": " + json_number(r.max_signed) +
           ", \"min_signed_deviation\": " + json_number(r.min_signed) +
           ", \"max_distance\": " + json_number(r.max_distance) +
           ", \"unprojected\": " + std::to_string(r.unprojected) +
           ", \"overdetermined\": " + std::to_string(r.overdetermined) +
           (r.scaled ? ", \"scale\": " + json_number(r.scale) + ", \"scale_centre\": [" +
                           json_number(r.scale_centre[0]) + ", " + json_number(r.scale_centre[1]) +
                           ", " + json_number(r.scale_centre[2]) + "]"
                     : std::string()) +
           "}\n";
}

std::string bestfit_usage_text() {
    return R"(Usage: metrofit bestfit --surface FILE.stl <points> [--probe-radius R]
                        [--tolerance T] [--lock-rotations | --lock-origin X,Y,Z |
                        --lock-axis AX,AY,AZ] [--band LO,HI]
                        [--scale [--scale-centre X,Y,Z] [--pairs FILE]] [--json]

bestfit: the rigid motion (rotation and shift) that carries measured points
onto a nominal surface, a triangle mesh read from an STL file (binary or
ASCII; the facets' winding gives the outward side), in the least-squares
sense. <points> ("-" reads standard input) holds one point per line, numbers
separated by commas, spaces or tabs, '#' starts a comment:
  x y z nx ny nz [r]
      a probe-ball centre, the approximate surface normal at the contact
      (the probing direction reversed; any length but zero: it only tells
      the side the ball came from) and the ball radius r (at least 0;
      without it, --probe-radius). The touched surface point, not the
      centre, is fitted.
  x y z
      a point on the surface itself (radius 0). It counts as touched from
      outside: its approximate normal is the mesh's outward normal at the
      mesh point nearest to it, taken once before the fit.
The signed deviation of a point is measured along the nominal normal at its
partner on the surface, positive on the side the probe came from.

Options:
  --surface FILE.stl   the nominal surface (required).
  --probe-radius R     the ball radius of 6-column rows (default 0).
  --tolerance T        stop when no point moves by T or more in a step
                       (default 1e-6; at most 50 steps).
  --lock-rotations     no rotation: shifts along x, y and z only.
  --lock-origin X,Y,Z  the point (X, Y, Z) stays where it is: the part only
                       turns about it.
  --lock-axis AX,AY,AZ the direction A keeps its direction: the part only
                       turns about it, and shifts freely.
                       (The three locks exclude each other.)
  --band LO,HI         the tolerance band of every point's deviation: the fit
                       keeps the deviations inside it where it can rather than
                       minimising their squares; limits that conflict with the
                       others are dropped and counted.
  --scale              fit a uniform scale s as well (an unknown scanner
                       scale, shrinkage, thermal expansion): measured x goes
                       to R (c + s (x - c)) + t. Takes every lock and --band
                       (a locked origin is also the centre the part scales
                       about). A surface that does not fix a scale (a single
                       plane) is refused.
  --scale-centre X,Y,Z the centre c of the scale (default 0,0,0).
  --pairs FILE         rows "mx my mz nx ny nz": measured points and their
                       nominal partners (at least 3, not on one line) for a
                       rough start, when the points lie far from place.
  --json               print one JSON object instead of the text report.
  -h, --help           print this help and exit.

Report: the 4 x 4 matrix of the transform (measured -> nominal, last row
0 0 0 1); the point count; over the points that project onto the surface
after the fit, the largest deviation (at least 0), the smallest (at most 0)
and the largest distance to the partner point; the count of points that do
not project (no foot point of the surface along the probing side); the count
of band limits dropped as conflicting. --json: {"points", "transform":
[[4 numbers] x 4], "max_signed_deviation", "min_signed_deviation",
"max_distance", "unprojected", "overdetermined"}; with --scale the text
adds "scale" and "scale centre" lines and the JSON "scale" and
"scale_centre": [3 numbers]; the transform's linear part is then s R.

Exit status: 0 fitted; 1 a surface file the STL reader refuses (its message
says why), no points, no point that projects, or a scaled fit that fails (a
scale the points do not fix, too few pairs or pairs on one line); 2 a usage
error or a bad points or pairs file (the message names the line).
)";
}

int run_bestfit(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                std::ostream& err) {
    BestfitOptions o;
    std::string error;
    const int parsed = parse_bestfit_options(args, o, error);
    const int early =
        finish_early(parsed, error, o.help, o.version, out, err, "bestfit", bestfit_usage_text());
    if (early >= 0) return early;

    std::vector<BestfitPoint> points;
    if (!read_input_file(
            o.file, in,
            [&](std::istream& s, std::string& why) { return read_bestfit_points(s, points, why); },
            err))
        return kExitUsage;
    srkMeshSurf surface;
    if (!srkMeshSurf::read_stl(o.surface, surface, error)) {
        err << "metrofit: " << o.surface << ": " << error << "\n";
        return kExitRefused;
    }
    std::vector<BestfitPair> pairs;
    if (!o.pairs.empty() &&
        !read_input_file(
            o.pairs, in,
            [&](std::istream& s, std::string& why) { return read_bestfit_pairs(s, pairs, why); },
            err))
        return kExitUsage;
    BestfitReport report;
    const int status = bestfit_points(o, surface, points, pairs, report, error);
    if (status != kExitOk) {
        err << "metrofit: " << o.file << ": " << error << "\n";
        return status;
    }
    out << (o.json ? format_bestfit_json(report) : format_bestfit_human(report));
    return kExitOk;
}

}  // namespace metrofit_tool
