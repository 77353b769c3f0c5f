#include "tools/metrofit/rps_command.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <limits>

#include "metrofit/alignment/rps_fitting.h"
#include "metrofit/bestfit/fit_points.h"
#include "metrofit/platform/geometry/workplane.h"
#include "tools/metrofit/fit_command.h"

namespace metrofit_tool {

namespace {

constexpr int kMaxIterations = 10000;

const char* kKeywords =
    "surface, probe-radius, tolerance, iterations, overconstrained, position, point and balance";

bool number_fields(const std::vector<std::string>& fields, std::size_t first, std::size_t count,
                   double* out, std::string& error) {
    for (std::size_t k = 0; k < count; ++k)
        if (!number_field(fields[first + k], out[k], error)) return false;
    return true;
}

// v made unit; false for a direction without length.
bool unit(const double v[3], double out[3]) {
    const double length = std::hypot(std::hypot(v[0], v[1]), v[2]);
    if (!(length > 0.0) || !std::isfinite(length)) return false;
    for (int k = 0; k < 3; ++k) out[k] = v[k] / length;
    return true;
}

bool count_error(const std::string& keyword, const std::string& counts, const std::string& columns,
                 std::size_t found, std::string& error) {
    error =
        keyword + " takes " + counts + " values (" + columns + "), found " + std::to_string(found);
    return false;
}

// The lines on which each setting was given (0: not yet).
struct Settings {
    int surface = 0, probe_radius = 0, tolerance = 0, iterations = 0, overconstrained = 0;
};

bool first_time(int& seen, int line, const std::string& keyword, std::string& error) {
    if (seen) {
        error = keyword + " given twice (first on line " + std::to_string(seen) + ")";
        return false;
    }
    seen = line;
    return true;
}

// The path after the keyword "surface": the rest of the line up to a
// comment, without the blanks (and one comma) that separate it.
std::string surface_argument(const std::string& line) {
    std::size_t end = line.find('#');
    if (end == std::string::npos) end = line.size();
    std::size_t from = line.find("surface") + 7;
    auto blank = [&](std::size_t i) {
        return line[i] == ' ' || line[i] == '\t' || line[i] == '\r';
    };
    while (from < end && blank(from)) ++from;
    if (from < end && line[from] == ',') ++from;
    while (from < end && blank(from)) ++from;
    while (end > from && blank(end - 1)) --end;
    return line.substr(from, end - from);
}

bool parse_position(const std::vector<std::string>& f, RpsPosition& p, std::string& error) {
    const std::size_t n = f.size() - 1;
    if (n != 9 && n != 15)
        return count_error("position", "9 or 15", "mx my mz qx qy qz SX SY SZ [zx zy zz xx xy xz]",
                           n, error);
    if (!number_fields(f, 1, 3, p.measured, error) || !number_fields(f, 4, 3, p.nominal, error))
        return false;
    const char* names[3] = {"x", "y", "z"};
    bool holds = false;
    for (int k = 0; k < 3; ++k) {
        const std::string& s = f[7 + k];
        const char c = s.size() == 1 ? s[0] : '?';
        if (c != 'L' && c != 'S' && c != '-' && c != 'X') {
            error = "the state of the " + std::string(names[k]) +
                    " direction must be L, S, - or X, not '" + s + "'";
            return false;
        }
        p.states[k] = c;
        holds = holds || c != '-';
    }
    if (!holds) {
        error = "the positioning point holds no direction (all three states are -)";
        return false;
    }
    if (n == 15) {
        double axes[6];
        if (!number_fields(f, 10, 6, axes, error)) return false;
        if (!unit(axes, p.z_axis) || !unit(axes + 3, p.x_axis)) {
            error = "the workplane's z and x axis need a length";
            return false;
        }
        giWorkplane3 frame;
        if (!frame.become(giPoint3(0, 0, 0), giUnitVec3(p.z_axis[0], p.z_axis[1], p.z_axis[2]),
                          giUnitVec3(p.x_axis[0], p.x_axis[1], p.x_axis[2]))) {
            error = "the workplane's z and x axis are parallel";
            return false;
        }
    }
    return true;
}

// The centre, the normal and what follows of a probed point starting at
// field `first`.
bool parse_probe(const std::vector<std::string>& f, std::size_t first, double centre[3],
                 double normal[3], std::string& error) {
    double v[6];
    if (!number_fields(f, first, 6, v, error)) return false;
    std::copy(v, v + 3, centre);
    if (!unit(v + 3, normal)) {
        error = "the approximate normal has no length";
        return false;
    }
    return true;
}

bool parse_fitting_point(const std::vector<std::string>& f, RpsPoint& p, std::string& error) {
    const std::size_t n = f.size() - 1;
    if (n != 6 && n != 7 && n != 9)
        return count_error("point", "6, 7 or 9", "x y z nx ny nz [r [lower upper]]", n, error);
    if (!parse_probe(f, 1, p.centre, p.normal, error)) return false;
    if (n >= 7) {
        if (!number_field(f[7], p.radius, error)) return false;
        if (!(p.radius >= 0.0)) {
            error = "the probe radius must be at least 0, not " + f[7];
            return false;
        }
        p.has_radius = true;
    }
    if (n == 9) {
        if (!limit_field(f[8], false, p.lower_open, p.lower, error) ||
            !limit_field(f[9], true, p.upper_open, p.upper, error))
            return false;
        if (!p.lower_open && !p.upper_open && p.lower > p.upper) {
            error = "the lower limit " + f[8] + " lies above the upper " + f[9];
            return false;
        }
    }
    return true;
}

bool parse_balance(const std::vector<std::string>& f, RpsBalance& b, std::string& error) {
    const std::size_t n = f.size() - 1;
    if (n != 14)
        return count_error("balance", "14", "x1 y1 z1 nx1 ny1 nz1 c1 x2 y2 z2 nx2 ny2 nz2 c2", n,
                           error);
    for (int k = 0; k < 2; ++k)
        if (!parse_probe(f, 1 + 7 * k, b.centre[k], b.normal[k], error) ||
            !number_field(f[7 + 7 * k], b.coefficient[k], error))
            return false;
    if (b.coefficient[0] == 0.0 && b.coefficient[1] == 0.0) {
        error = "the balance coefficients are both 0";
        return false;
    }
    return true;
}

// One data line into the description, or says why not.
bool parse_line(const std::string& line, const std::vector<std::string>& f, int number,
                RpsDescription& d, Settings& seen, std::string& error) {
    const std::string& key = f[0];
    const std::size_t n = f.size() - 1;
    double value = 0.0;
    if (key == "surface") {
        if (!first_time(seen.surface, number, key, error)) return false;
        d.surface = surface_argument(line);
        d.surface_line = number;
        if (d.surface.empty()) {
            error = "surface needs a file name";
            return false;
        }
    } else if (key == "probe-radius" || key == "tolerance") {
        int& at = key == "tolerance" ? seen.tolerance : seen.probe_radius;
        if (!first_time(at, number, key, error)) return false;
        if (n != 1) return count_error(key, "1", key == "tolerance" ? "T" : "R", n, error);
        if (!number_field(f[1], value, error)) return false;
        if (!(value >= 0.0)) {
            error = key + " must be at least 0, not " + f[1];
            return false;
        }
        (key == "tolerance" ? d.tolerance : d.probe_radius) = value;
    } else if (key == "iterations") {
        if (!first_time(seen.iterations, number, key, error)) return false;
        if (n != 1) return count_error(key, "1", "N", n, error);
        const std::string& v = f[1];
        const bool digits =
            !v.empty() && v.size() <= 6 && v.find_first_not_of("0123456789") == std::string::npos;
        d.iterations = digits ? std::stoi(v) : 0;
        if (d.iterations < 1 || d.iterations > kMaxIterations) {
            error = "iterations needs a whole number from 1 to " + std::to_string(kMaxIterations) +
                    ", not '" + v + "'";
            return false;
        }
    } else if (key == "overconstrained") {
        if (!first_time(seen.overconstrained, number, key, error)) return false;
        if (n != 0) {
            error = "overconstrained takes no values, found " + std::to_string(n);
            return false;
        }
        d.overconstrained = true;
    } else if (key == "position") {
        RpsPosition p;
        if (!parse_position(f, p, error)) return false;
        p.line = number;
        d.positions.push_back(p);
    } else if (key == "point") {
        RpsPoint p;
        if (!parse_fitting_point(f, p, error)) return false;
        p.line = number;
        d.points.push_back(p);
    } else if (key == "balance") {
        RpsBalance b;
        if (!parse_balance(f, b, error)) return false;
        b.line = number;
        d.balances.push_back(b);
    } else {
        error = "unknown keyword '" + key + "' (the keywords are " + kKeywords + ")";
        return false;
    }
    return true;
}

giPoint3 point(const double p[3]) { return giPoint3(p[0], p[1], p[2]); }
giVector3 vector(const double v[3]) { return giVector3(v[0], v[1], v[2]); }

tsPointsToPlanes::PLANE_STATE plane_state(char c) {
    switch (c) {
        case 'L':
            return tsPointsToPlanes::PLANE_LOCKED;
        case 'S':
            return tsPointsToPlanes::PLANE_SOFT;
        case 'X':
            return tsPointsToPlanes::PLANE_SPARE;
        default:
            return tsPointsToPlanes::PLANE_IGNORED;
    }
}

giWorkplane3 workplane(const RpsPosition& p) {
    return giWorkplane3(point(p.nominal), giUnitVec3(vector(p.z_axis)),
                        giUnitVec3(vector(p.x_axis)));
}

// The rms and the largest |signed deviation| of the points that project
// onto the surface under T (0 and 0 when none does).
void deviations(const std::vector<tsFitPoint3coPrf>& points, const tsFitPointProjector3& projector,
                const giXform3& T, double& rms, double& max) {
    double ss = 0.0;
    int n = 0;
    max = 0.0;
    for (const tsFitPoint3coPrf& p : points) {
        tsProjectedPoint3 projected;
        p->project_from_position(T, projected, &projector);
        if (projected.invalid()) continue;
        const double d = projected.signed_distance();
        ss += d * d;
        max = std::max(max, std::fabs(d));
        ++n;
    }
    rms = n ? std::sqrt(ss / n) : 0.0;
}

std::string cell(double v) { return std::isnan(v) ? "-" : formatted_number(v, "%.6g"); }

}  // namespace

bool is_rps_command(const std::vector<std::string>& args) { return command_is(args, "rps"); }

int parse_rps_options(const std::vector<std::string>& args, RpsOptions& o, std::string& error) {
    o = RpsOptions();
    std::vector<std::string> positional;
    for (const std::string& a : args) {
        if (common_flag(a, o.help, o.version, o.json)) continue;
        if (a.size() > 1 && a[0] == '-') {
            error = "unknown option '" + a +
                    "' for rps (it takes --json; the description file holds the settings)";
            return kExitUsage;
        }
        positional.push_back(a);
    }
    if (o.help || o.version) return kExitOk;
    return command_file_argument(positional, "rps", o.file, error);
}

bool read_rps_description(std::istream& in, RpsDescription& d, std::string& error) {
    d = RpsDescription();
    Settings seen;
    const bool read = read_field_rows(
        in,
        [&](const std::string& line, std::vector<std::string>& fields, int number,
            std::string& message) { return parse_line(line, fields, number, d, seen, message); },
        error);
    if (!read) return false;
    if (!seen.surface) {
        error = "the description names no surface (a line 'surface PART.stl')";
        return false;
    }
    return true;
}

std::string rps_surface_path(const std::string& description_file, const std::string& surface) {
    if (description_file == "-" || surface.empty() || surface[0] == '/') return surface;
    const std::size_t slash = description_file.rfind('/');
    return slash == std::string::npos ? surface : description_file.substr(0, slash + 1) + surface;
}

std::string rps_status_meaning(int status) {
    switch (status) {
        case tsRPS_FITTING_OK:
            return "fitted";
        case tsRPS_FITTING_NOT_CONVERGED:
            return "fitted, but the iteration limit was reached before the points settled";
        case tsRPS_FITTING_TOO_FEW_PROJECTIONS:
            return "fewer than 3 fitting points project onto the surface and nothing positions "
                   "the part";
        case tsRPS_FITTING_STEP_FAILED:
            return "an intermediate fit gave no usable transform";
        case tsRPS_FITTING_PROJECTIONS_LOST:
            return "more than half of the first projections were lost during the fit";
        default:
            return "unknown status";
    }
}

int rps_fit(const RpsDescription& d, const srkMeshSurf& surface, RpsReport& r,
            std::string& message) {
    r = RpsReport();
    const tsSurfProjectorForFitting3 projector(&surface);
    tsRPSFitting fit(d.iterations, d.tolerance);
    fit.set_projector(&projector);
    if (d.overconstrained) fit.overconstrained_mode(1);
    for (const RpsPosition& p : d.positions)
        fit.add_positioning(point(p.measured), workplane(p), point(p.nominal),
                            plane_state(p.states[0]), plane_state(p.states[1]),
                            plane_state(p.states[2]));
    // The handles are kept to measure the deviations before and after.
    std::vector<tsFitPoint3coPrf> all;
    fit.reserve_points(static_cast<int>(d.points.size() + 2 * d.balances.size()));
    auto probed = [&](const double c[3], const double n[3], double radius) {
        all.emplace_back(new tsProbedPoint3(point(c), giUnitVec3(vector(n)), radius));
        return all.back();
    };
    for (const RpsPoint& p : d.points)
        fit.add_point(probed(p.centre, p.normal, p.has_radius ? p.radius : d.probe_radius),
                      p.lower_open ? -DBL_MAX : p.lower, p.upper_open ? DBL_MAX : p.upper);
    for (const RpsBalance& b : d.balances) {
        const tsFitPoint3coPrf first = probed(b.centre[0], b.normal[0], d.probe_radius);
        fit.add_balance(first, b.coefficient[0], probed(b.centre[1], b.normal[1], d.probe_radius),
                        b.coefficient[1]);
    }

    r.status = fit.fit();
    if (r.status < 0) {
        message = "the fit failed (status " + std::to_string(r.status) +
                  "): " + rps_status_meaning(r.status);
        return kExitRefused;
    }
    const giXform3 T = fit.transform();
    bool finite = T.is_set();
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) {
            r.transform[i][j] = T(i, j);
            finite = finite && std::isfinite(T(i, j));
        }
    if (!finite) {
        message = "the fit gave no finite transform";
        return kExitRefused;
    }
    r.transform[3][3] = 1.0;
    r.iterations = fit.get_iterations();
    r.points = fit.nb_points();
    r.valid_projections = fit.num_valid_projections();
    deviations(all, projector, giXform3(giIdentity), r.rms_before, r.max_before);
    deviations(all, projector, T, r.rms_after, r.max_after);
    for (const RpsPosition& p : d.positions) {
        const giWorkplane3 w = workplane(p);
        const giVector3 miss = T * point(p.measured) - point(p.nominal);
        const giVector3 axes[3] = {w.x_axis(), w.y_axis(), w.z_axis()};
        RpsReport::Positioning out;
        out.line = p.line;
        for (int k = 0; k < 3; ++k) {
            out.states[k] = p.states[k];
            out.deviation[k] =
                p.states[k] == '-' ? std::numeric_limits<double>::quiet_NaN() : dot(miss, axes[k]);
        }
        r.positioning.push_back(out);
    }
    r.nominal_deviation = fit.standard_deviation_of_nominals();
    return kExitOk;
}

std::string format_rps_human(const RpsReport& r) {
    std::string s =
        "status          " + std::to_string(r.status) + " (" + rps_status_meaning(r.status) + ")\n";
    s += "iterations      " + std::to_string(r.iterations) + "\n";
    s += "transform (measured -> nominal)\n";
    for (const auto& row : r.transform) {
        for (int j = 0; j < 4; ++j) s += (j ? " " : "  ") + formatted_number(row[j], "%.12g");
        s += "\n";
    }
    s += "points          " + std::to_string(r.points) + " (" +
         std::to_string(r.valid_projections) + " projected)\n";
    s += "rms             " + formatted_number(r.rms_before, "%.6g") + " -> " +
         formatted_number(r.rms_after, "%.6g") + "\n";
    s += "max             " + formatted_number(r.max_before, "%.6g") + " -> " +
         formatted_number(r.max_after, "%.6g") + "\n";
    if (!r.positioning.empty()) {
        s += "positioning     deviation along the workplane axes after the fit\n";
        s += "   line  states            x            y            z\n";
        for (const RpsReport::Positioning& p : r.positioning) {
            char line[128];
            std::snprintf(line, sizeof line, "  %5d  %c%c%c    %12s %12s %12s\n", p.line,
                          p.states[0], p.states[1], p.states[2], cell(p.deviation[0]).c_str(),
                          cell(p.deviation[1]).c_str(), cell(p.deviation[2]).c_str());
            s += line;
        }
    }
    s += "nominal rms     " + formatted_number(r.nominal_deviation, "%.6g") + "\n";
    return s;
}

std::string format_rps_json(const RpsReport& r) {
    std::string s = "{\"status\": " + std::to_string(r.status) + ", \"meaning\": \"" +
                    rps_status_meaning(r.status) +
                    "\", \"iterations\": " + std::to_string(r.iterations) + ", \"transform\": [";
    for (int i = 0; i < 4; ++i) {
        s += i ? ", [" : "[";
        for (int j = 0; j < 4; ++j) s += (j ? ", " : "") + json_number(r.transform[i][j]);
        s += "]";
    }
    s += "], \"points\": " + std::to_string(r.points) +
         ", \"valid_projections\": " + std::to_string(r.valid_projections) +
         ", \"rms_before\": " + json_number(r.rms_before) +
         ", \"max_before\": " + json_number(r.max_before) +
         ", \"rms_after\": " + json_number(r.rms_after) +
         ", \"max_after\": " + json_number(r.max_after) + ", \"positioning\": [";
    for (std::size_t i = 0; i < r.positioning.size(); ++i) {
        const RpsReport::Positioning& p = r.positioning[i];
        s += std::string(i ? ", " : "") + "{\"line\": " + std::to_string(p.line) +
             ", \"states\": \"" + std::string(p.states, 3) + "\", \"deviations\": [" +
             json_number(p.deviation[0]) + ", " + json_number(p.deviation[1]) + ", " +
             json_number(p.deviation[2]) + "]}";
    }
    return s + "], \"standard_deviation_of_nominals\": " + json_number(r.nominal_deviation) + "}\n";
}

std::string rps_usage_text() {
    return R"(Usage: metrofit rps <description> [--json]

rps: aligns a measured part onto its nominal surface, a triangle mesh read
from an STL file, by a reference point system: positioning points hold the
part like the locators of a fixture, and fitting points measured on its
faces are best-fitted onto the mesh while they hold. <description> ("-"
reads standard input) holds one keyword per line with its values, separated
by spaces, tabs or commas; '#' starts a comment. Settings apply to the whole
file wherever they stand, each at most once:
  surface PART.stl   the nominal surface, required once; the rest of the line
                     is the path, relative to the description's directory
                     (to the current directory for standard input).
  probe-radius R     the ball radius of fitting points without one (default 0).
  tolerance T        the fit ends when no point moves by T or more in a step
                     (default 1e-6).
  iterations N       the iteration limit, 1 to 10000 (default 50).
  overconstrained    positioning directions that add nothing to the pose are
                     set aside, and without fitting points the pose is the
                     least-squares pose of the positioning alone.
Data lines, as many as needed:
  position mx my mz qx qy qz SX SY SZ [zx zy zz xx xy xz]
      a positioning point: measured m, nominal q, and one state letter for
      each of the x, y and z direction of its workplane: L locked, S soft
      (held lightly), - ignored, X spare (held only when the others leave
      the pose open). The workplane's z and x axis (any length but zero, not
      parallel) default to the world axes.
  point x y z nx ny nz [r [lower upper]]
      a fitting point: the probe-ball centre, the approximate surface normal
      at the contact (any length but zero; it tells the side the ball came
      from), the ball radius (at least 0; default probe-radius) and the
      tolerance band of its signed deviation (-inf, inf or - for an open
      end).
  balance x1 y1 z1 nx1 ny1 nz1 c1 x2 y2 z2 nx2 ny2 nz2 c2
      two fitting points (radius probe-radius) whose deviations d1, d2 enter
      as the one residual c1 d1 + c2 d2: 1 and -1 centre the part between
      two opposite faces.
The signed deviation of a fitting point is measured along the nominal normal
at its partner on the surface, positive on the side the probe came from.

Report: the status of the fit and its meaning, the iterations, the 4 x 4
matrix of the transform (measured -> nominal, last row 0 0 0 1), the number
of fitting points and of those that projected in the last iteration, the rms
and the largest |signed deviation| of the fitting points before (no motion)
-> after the fit, per positioning point (by its line) the signed deviation
(T m - q) . axis along each workplane axis it does not ignore, and the rms of
the held positioning deviations. --json: {"status", "meaning",
"iterations", "transform": [[4 numbers] x 4], "points", "valid_projections",
"rms_before", "max_before", "rms_after", "max_after", "positioning":
[{"line", "states", "deviations": [x, y, z or null]}, ...],
"standard_deviation_of_nominals"}.

Exit status: 0 fitted (status 0, or 1 with a warning that the iteration
limit was reached); 1 a failed fit (its status and meaning are printed) or a
surface file the STL reader refuses; 2 a usage error or a bad description
(the message names the line).
)";
}

int run_rps(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
            std::ostream& err) {
    RpsOptions o;
    std::string error;
    const int parsed = parse_rps_options(args, o, error);
    const int early =
        finish_early(parsed, error, o.help, o.version, out, err, "rps", rps_usage_text());
    if (early >= 0) return early;

    RpsDescription description;
    if (!read_input_file(
            o.file, in,
            [&](std::istream& s, std::string& why) {
                return read_rps_description(s, description, why);
            },
            err))
        return kExitUsage;
    const std::string path = rps_surface_path(o.file, description.surface);
    srkMeshSurf surface;
    if (!srkMeshSurf::read_stl(path, surface, error)) {
        err << "metrofit: " << path << ": " << error << "\n";
        return kExitRefused;
    }
    RpsReport report;
    const int status = rps_fit(description, surface, report, error);
    if (status != kExitOk) {
        err << "metrofit: " << o.file << ": " << error << "\n";
        return status;
    }
    out << (o.json ? format_rps_json(report) : format_rps_human(report));
    if (report.status == tsRPS_FITTING_NOT_CONVERGED)
        err << "metrofit: warning: " << o.file << ": the iteration limit ("
            << description.iterations << ") was reached before the points settled\n";
    return kExitOk;
}

}  // namespace metrofit_tool
