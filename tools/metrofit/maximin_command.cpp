#include "tools/metrofit/maximin_command.h"

#include <cfloat>
#include <cmath>
#include <limits>
#include <sstream>

#include "metrofit/bestfit/surface_bestfit.h"
#include "metrofit/bestfit/surface_maximin.h"
#include "tools/metrofit/fit_command.h"
#include "tools/metrofit/point_file.h"

namespace metrofit_tool {

namespace {

// Adjacent facet normals within this angle count as one when the normal of
// a surface point (a 3-column row) is taken.
const giAngle kFlatAngle(giANGLE_RADIANS, 1e-9);

const char* status_name(int status) {
    switch (status) {
        case tsSURFACE_MAXIMIN_CONVERGED:
            return "converged";
        case tsSURFACE_MAXIMIN_ITERATION_LIMIT:
            return "iteration limit";
        default:
            return "stalled";
    }
}

}  // namespace

bool is_maximin_command(const std::vector<std::string>& args) {
    return command_is(args, "maximin",
                      {"--lock-rotations", "--lower-column", "--no-even", "--bestfit-first"});
}

int parse_maximin_options(const std::vector<std::string>& args, MaximinOptions& o,
                          std::string& error) {
    o = MaximinOptions();
    std::vector<std::string> positional;
    bool surface_given = false, tolerance_given = false, radius_given = false, lower_given = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        std::string value;
        if (common_flag(a, o.help, o.version, o.json)) continue;
        if (a == "--lock-rotations") {
            o.lock_rotations = true;
        } else if (a == "--no-even") {
            o.even = false;
        } else if (a == "--bestfit-first") {
            o.bestfit_first = true;
        } else if (a == "--lower-column") {
            o.lower_column = true;
        } else if (valued_option(args, i, "--surface", surface_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            o.surface = value;
        } else if (nonnegative_option(args, i, "--tolerance", tolerance_given, o.tolerance,
                                      error)) {
            if (!error.empty()) return kExitUsage;
        } else if (nonnegative_option(args, i, "--probe-radius", radius_given, o.probe_radius,
                                      error)) {
            if (!error.empty()) return kExitUsage;
        } else if (valued_option(args, i, "--lower", lower_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            if (!numbers_value(value, 1, false, &o.lower)) {
                error = "--lower needs a finite number, not '" + value + "'";
                return kExitUsage;
            }
        } else if (a.size() > 1 && a[0] == '-') {
            error = "unknown option '" + a +
                    "' for maximin (it takes --surface, --probe-radius, --lower, --lower-column, "
                    "--tolerance, --lock-rotations, --no-even, --bestfit-first and --json)";
            return kExitUsage;
        } else {
            positional.push_back(a);
        }
    }
    if (o.help || o.version) return kExitOk;
    if (command_file_argument(positional, "maximin", o.file, error) != kExitOk) return kExitUsage;
    if (!surface_given) {
        error = "maximin needs the nominal surface: --surface FILE.stl";
        return kExitUsage;
    }
    if (lower_given && o.lower_column) {
        error = "--lower and --lower-column exclude each other";
        return kExitUsage;
    }
    return kExitOk;
}

bool read_maximin_points(std::istream& in, bool lower_column, std::vector<MaximinPoint>& points,
                         std::string& error) {
    points.clear();
    return read_number_rows(
        in,
        [&](std::vector<double>& row, int number, std::string& message) {
            MaximinPoint p;
            if (lower_column) {
                if (row.size() != 4 && row.size() != 7 && row.size() != 8) {
                    message = "expected 4, 7 or 8 numbers (x y z [nx ny nz [r]] lower), found " +
                              std::to_string(row.size());
                    return false;
                }
                p.has_lower = true;
                p.lower = row.back();
                row.pop_back();
            }
            // The rest is a bestfit row.
            if (!parse_bestfit_row(row, p.point, message)) return false;
            p.point.line = number;
            points.push_back(p);
            return true;
        },
        error);
}

int maximin_points(const MaximinOptions& o, const srkMeshSurf& surface,
                   const std::vector<MaximinPoint>& points, MaximinReport& r,
                   std::string& message) {
    r = MaximinReport();
    r.points = static_cast<int>(points.size());
    if (points.empty()) {
        message = "the maximin needs at least one point; the file has 0";
        return kExitRefused;
    }
    const tsSurfProjectorForFitting3 projector(&surface);
    tsSurfaceMaximin fit;
    fit.set_projector(&projector);
    fit.reserve_points(r.points);
    srkSurfPointList feet;
    for (const MaximinPoint& mp : points) {
        const BestfitPoint& p = mp.point;
        const giPoint3 at(p.position[0], p.position[1], p.position[2]);
        giUnitVec3 normal(p.normal[0], p.normal[1], p.normal[2]);
        if (!p.has_normal) {
            // A point on the surface counts as touched from outside.
            feet.clear(0);
            int info = 0;
            if (surface.project_all(at, feet, info) < 1) {
                message = "line " + std::to_string(p.line) + ": no point of the surface near it";
                return kExitRefused;
            }
            normal = surface.normal_at(feet[0], kFlatAngle);
        }
        const double radius = p.has_radius ? p.radius : p.has_normal ? o.probe_radius : 0.0;
        const double lower = mp.has_lower ? mp.lower : o.lower;
        fit.add_point(tsFitPoint3coPrf(new tsProbedPoint3(at, normal, radius)), lower);
        r.lower.push_back(lower);
    }
    if (o.lock_rotations)
        fit.lock_rotations(giVector3(1, 0, 0), giVector3(0, 1, 0), giVector3(0, 0, 1));
    fit.set_even(o.even ? 1 : 0);
    if (o.bestfit_first) {
        // The least-squares fit of the same points as the start: it brings a
        // part that lies far off close to its place.
        tsSurfaceBestfit rough;
        rough.set_projector(&projector);
        for (int i = 0; i < fit.nb_points(); ++i) rough.add_point(fit.point(i));
        if (o.lock_rotations)
            rough.lock_rotations(giVector3(1, 0, 0), giVector3(0, 1, 0), giVector3(0, 0, 1));
        giXform3 start;
        double max_distance = 0.0, max_signed = 0.0, min_signed = 0.0;
        int unprojected = 0;
        rough.fit(o.tolerance > 1e-6 ? o.tolerance : 1e-6, start, max_distance, max_signed,
                  min_signed, unprojected);
        if (!start.is_set() || unprojected == fit.nb_points()) {
            message = "no point projects onto the surface";
            return kExitRefused;
        }
        fit.set_start(start);
    }

    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (int i = 0; i < r.points; ++i) {
        tsProjectedPoint3 q;
        fit.point(i)->initial_projection(q, &projector);
        r.before.push_back(q.invalid() ? nan : q.signed_distance());
    }
    giXform3 T;
    intcoDynArr holding;
    const int status = fit.fit(o.tolerance, T, r.margin, holding, r.unprojected);
    if (status <= 0) {
        message = status == tsSURFACE_MAXIMIN_UNBOUNDED
                      ? "the points do not enclose the part: a motion raises every deviation, "
                        "so the margin has no largest value"
                      : "no point projects onto the surface";
        return kExitRefused;
    }
    r.status = status;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) r.transform[i][j] = T(i, j);
    r.transform[3][3] = 1.0;
    for (int i : holding) r.holding.push_back(i);
    for (double level : fit.levels()) r.levels.push_back(level);
    const tsProjectedPoint3coDynArr& cloud = fit.get_pointcloud();
    for (int i = 0; i < cloud.size(); ++i)
        r.after.push_back(cloud[i].invalid() ? nan : cloud[i].signed_distance());
    return kExitOk;
}

std::string format_maximin_human(const MaximinReport& r) {
    std::string s = "transform (measured -> nominal)\n";
    for (const auto& row : r.transform) {
        for (int j = 0; j < 4; ++j) s += (j ? " " : "  ") + formatted_number(row[j], "%.12g");
        s += "\n";
    }
    s += "points       " + std::to_string(r.points) + "\n";
    s += "status       " + std::string(status_name(r.status)) + "\n";
    s += "margin       " + formatted_number(r.margin, "%.9g") + "\n";
    s += "holding      ";
    for (std::size_t k = 0; k < r.holding.size(); ++k)
        s += (k ? " " : "") + std::to_string(r.holding[k] + 1);
    s += "\nlevels      ";
    for (double level : r.levels) s += " " + formatted_number(level, "%.9g");
    s += "\nunprojected  " + std::to_string(r.unprojected) + "\n";
    s += "point  lower  before  after\n";
    for (int i = 0; i < r.points; ++i)
        s += "  " + std::to_string(i + 1) + "  " + formatted_number(r.lower[i], "%.6g") + "  " +
             formatted_number(r.before[i], "%.6f") + "  " + formatted_number(r.after[i], "%.6f") +
             "\n";
    return s;
}

std::string format_maximin_json(const MaximinReport& r) {
    auto list = [](const std::vector<double>& v) {
        std::string s = "[";
        for (std::size_t k = 0; k < v.size(); ++k) s += (k ? ", " : "") + json_number(v[k]);
        return s + "]";
    };
    std::string s = "{\"points\": " + std::to_string(r.points) + ", \"status\": \"" +
                    status_name(r.status) + "\", \"transform\": [";
    for (int i = 0; i < 4; ++i) {
        s += i ? ", [" : "[";
        for (int j = 0; j < 4; ++j) s += (j ? ", " : "") + json_number(r.transform[i][j]);
        s += "]";
    }
    s += "], \"margin\": " + json_number(r.margin) + ", \"holding\": [";
    for (std::size_t k = 0; k < r.holding.size(); ++k)
        s += (k ? ", " : "") + std::to_string(r.holding[k] + 1);
    return s + "], \"levels\": " + list(r.levels) +
           ", \"unprojected\": " + std::to_string(r.unprojected) + ", \"lower\": " + list(r.lower) +
           ", \"before\": " + list(r.before) + ", \"after\": " + list(r.after) + "}\n";
}

std::string maximin_usage_text() {
    return R"(Usage: metrofit maximin --surface FILE.stl <points> [--probe-radius R]
                        [--lower L | --lower-column] [--tolerance T]
                        [--lock-rotations] [--no-even] [--bestfit-first]
                        [--json]

maximin: the rigid motion (rotation and shift) that carries measured points
onto a nominal surface, a triangle mesh read from an STL file (the facets'
winding gives the outward side), so that the smallest signed deviation less
the point's lower limit (the margin) is as large as it can be: the machining
stock of a raw part, positive everywhere and as even as the tightest points
allow. <points> ("-" reads standard input) has the rows of `metrofit
bestfit` (x y z nx ny nz [r], a probe-ball centre with the approximate
normal, or x y z, a point on the surface touched from outside).

Options:
  --surface FILE.stl   the nominal surface (required).
  --probe-radius R     the ball radius of 6-column rows (default 0).
  --lower L            every point's lower limit (default 0).
  --lower-column       one more number ends every row: that point's lower
                       limit (rows of 4, 7 or 8 numbers).
  --tolerance T        stop when no point moves by T or more in a step
                       (default 1e-9; at most 100 steps); points within
                       max(T, 1e-9 of the part's size) of the margin hold it.
  --lock-rotations     no rotation: shifts along x, y and z only.
  --no-even            the margin only: leave the motions it does not fix
                       where the iteration stops instead of evening the
                       rest of the stock.
  --bestfit-first      start from the least-squares fit of the points (as
                       `metrofit bestfit` finds it) instead of where they
                       lie: for a part measured far from its place.
  --json               print one JSON object instead of the text report.
  -h, --help           print this help and exit.

After the margin, the fit evens the rest of the stock level by level: the
points at the level reached are held there, and the motions that keep them
raise the smallest deviation of the others (a block tightest across y is
then also centred along x and z).

The fit starts from the points as given: a part turned by more than a few
degrees needs a rough alignment first (--bestfit-first).

Report: the 4 x 4 transform (measured -> nominal, last row 0 0 0 1); the
point count; how the fit ended (converged, iteration limit, stalled); the
margin; the holding points (line order, from 1); the levels (the margin,
then the level each evening stage reached); the count of points that do
not project; per point its lower limit and its signed deviation before
(as given) and after the fit. --json: {"points", "status", "transform",
"margin", "holding", "levels", "unprojected", "lower", "before", "after"}
(null for a point that does not project).

Exit status: 0 fitted; 1 a surface file the STL reader refuses, no points,
no point that projects, or points that leave the margin without bound (all
on one side of the part); 2 a usage error or a bad points file.
)";
}

int run_maximin(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                std::ostream& err) {
    MaximinOptions o;
    std::string error;
    const int parsed = parse_maximin_options(args, o, error);
    const int early =
        finish_early(parsed, error, o.help, o.version, out, err, "maximin", maximin_usage_text());
    if (early >= 0) return early;

    std::vector<MaximinPoint> points;
    if (!read_input_file(
            o.file, in,
            [&](std::istream& s, std::string& why) {
                return read_maximin_points(s, o.lower_column, points, why);
            },
            err))
        return kExitUsage;
    srkMeshSurf surface;
    if (!srkMeshSurf::read_stl(o.surface, surface, error)) {
        err << "metrofit: " << o.surface << ": " << error << "\n";
        return kExitRefused;
    }
    MaximinReport report;
    const int status = maximin_points(o, surface, points, report, error);
    if (status != kExitOk) {
        err << "metrofit: " << o.file << ": " << error << "\n";
        return status;
    }
    out << (o.json ? format_maximin_json(report) : format_maximin_human(report));
    return kExitOk;
}

}  // namespace metrofit_tool
