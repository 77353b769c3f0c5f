#include "tools/metrofit/match_command.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "metrofit/bestfit/affine_match.h"
#include "metrofit/bestfit/points_to_points.h"
#include "tools/metrofit/fit_command.h"

namespace metrofit_tool {

namespace {

// The --affine names, in the order of tsAffineMatchXformType.
const char* const kAffineNames[] = {
    "full", "xy", "scale", "scale-translate", "xy-scale", "xy-scale-xyz-translate", "x", "y", "z"};
constexpr int kAffineTypes = sizeof kAffineNames / sizeof kAffineNames[0];

// The residuals of T on the pairs, with their rms and maximum; false when
// one is not finite. `apply` maps a measured point (dimension coordinates).
template <class Apply>
bool residuals(const MatchPairs& p, Apply apply, MatchReport& r) {
    const int d = p.dimension;
    double ss = 0.0;
    for (int i = 0; i < p.count(); ++i) {
        double image[3];
        apply(&p.measured[i * d], image);
        double s = 0.0;
        for (int k = 0; k < d; ++k)
            s += (image[k] - p.nominal[i * d + k]) * (image[k] - p.nominal[i * d + k]);
        r.residuals.push_back(std::sqrt(s));
        ss += s;
        r.max = std::max(r.max, r.residuals.back());
    }
    r.rms = std::sqrt(ss / p.count());
    return std::isfinite(r.rms);
}

int rigid(const MatchPairs& p, MatchReport& r, std::string& message) {
    tsPointsToPoints match;
    bool ok = false;
    if (p.dimension == 3) {
        for (int i = 0; i < p.count(); ++i) {
            const double* a = &p.measured[3 * i];
            const double* b = &p.nominal[3 * i];
            match.add_pair(giPoint3(a[0], a[1], a[2]), giPoint3(b[0], b[1], b[2]));
        }
        giXform3 T(giIdentity);
        ok = match.get_xform(T);
        r.transform.assign(4, std::vector<double>(4, 0.0));
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 4; ++j) r.transform[i][j] = T(i, j);
        r.transform[3][3] = 1.0;
        ok = ok && residuals(
                       p,
                       [&](const double* m, double* out) {
                           const giPoint3 x = T * giPoint3(m[0], m[1], m[2]);
                           out[0] = x.x(), out[1] = x.y(), out[2] = x.z();
                       },
                       r);
    } else {
        for (int i = 0; i < p.count(); ++i) {
            const double* a = &p.measured[2 * i];
            const double* b = &p.nominal[2 * i];
            match.add_pair(giPoint2(a[0], a[1]), giPoint2(b[0], b[1]));
        }
        giXform2 T(giIdentity);
        ok = match.get_xform(T);
        r.transform.assign(3, std::vector<double>(3, 0.0));
        for (int i = 0; i < 2; ++i)
            for (int j = 0; j < 3; ++j) r.transform[i][j] = T(i, j);
        r.transform[2][2] = 1.0;
        ok = ok && residuals(
                       p,
                       [&](const double* m, double* out) {
                           const giPoint2 x = T * giPoint2(m[0], m[1]);
                           out[0] = x.x(), out[1] = x.y();
                       },
                       r);
    }
    if (!ok)
        message = "the " + std::to_string(p.count()) +
                  " pairs do not determine a rotation: it takes at least three measured "
                  "points not on one line";
    return ok ? kExitOk : kExitRefused;
}

int affine(const MatchPairs& p, int type, MatchReport& r, std::string& message) {
    tsPointsAffineMatch match;
    match.set_transform_type(static_cast<tsAffineMatchXformType>(type));
    for (int i = 0; i < p.count(); ++i) {
        const double* a = &p.measured[3 * i];
        const double* b = &p.nominal[3 * i];
        // The matcher maps its second points onto its first.
        match.add_pair(giPoint3(b[0], b[1], b[2]), giPoint3(a[0], a[1], a[2]));
    }
    giXform3 T(giIdentity);
    if (!match.xform(T)) {
        message = "the " + std::to_string(p.count()) + " pairs do not determine the " +
                  kAffineNames[type] +
                  " transform (too few, or the measured points do not spread along its axes)";
        return kExitRefused;
    }
    r.transform.assign(4, std::vector<double>(4, 0.0));
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) r.transform[i][j] = T(i, j);
    r.transform[3][3] = 1.0;
    if (!residuals(
            p,
            [&](const double* m, double* out) {
                const giPoint3 x = T * giPoint3(m[0], m[1], m[2]);
                out[0] = x.x(), out[1] = x.y(), out[2] = x.z();
            },
            r)) {
        message = "the match gave no finite transform";
        return kExitRefused;
    }
    return kExitOk;
}

}  // namespace

bool is_match_command(const std::vector<std::string>& args) { return command_is(args, "match"); }

int parse_match_options(const std::vector<std::string>& args, MatchOptions& o, std::string& error) {
    o = MatchOptions();
    std::vector<std::string> positional;
    bool affine_given = false, rigid = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        std::string value;
        if (common_flag(a, o.help, o.version, o.json)) continue;
        if (a == "--rigid") {
            rigid = true;
        } else if (valued_option(args, i, "--affine", affine_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            const auto* name = std::find(kAffineNames, kAffineNames + kAffineTypes, value);
            if (name == kAffineNames + kAffineTypes) {
                error =
                    "--affine takes full, xy, scale, scale-translate, xy-scale, "
                    "xy-scale-xyz-translate, x, y or z, not '" +
                    value + "'";
                return kExitUsage;
            }
            o.affine_type = static_cast<int>(name - kAffineNames);
        } else if (a.size() > 1 && a[0] == '-') {
            error = "unknown option '" + a + "' for match (it takes --rigid, --affine and --json)";
            return kExitUsage;
        } else {
            positional.push_back(a);
        }
    }
    if (o.help || o.version) return kExitOk;
    if (rigid && affine_given) {
        error = "--rigid and --affine exclude each other";
        return kExitUsage;
    }
    return command_file_argument(positional, "match", o.file, error);
}

bool read_match_pairs(std::istream& in, MatchPairs& pairs, std::string& error) {
    pairs = MatchPairs();
    return read_number_rows(
        in,
        [&](std::vector<double>& row, int, std::string& message) {
            const int columns = static_cast<int>(row.size());
            if (pairs.dimension == 0 && (columns == 4 || columns == 6))
                pairs.dimension = columns / 2;
            if (columns != 2 * pairs.dimension) {
                message =
                    pairs.dimension == 0
                        ? "expected 6 numbers (mx my mz qx qy qz) or 4 (mx my qx qy), found " +
                              std::to_string(columns)
                        : "expected " + std::to_string(2 * pairs.dimension) +
                              " numbers like the first pair, found " + std::to_string(columns);
                return false;
            }
            pairs.measured.insert(pairs.measured.end(), row.begin(), row.begin() + pairs.dimension);
            pairs.nominal.insert(pairs.nominal.end(), row.begin() + pairs.dimension, row.end());
            return true;
        },
        error);
}

int match_pairs(const MatchOptions& o, const MatchPairs& p, MatchReport& r, std::string& message) {
    r = MatchReport();
    r.dimension = p.dimension ? p.dimension : 3;
    r.model = o.affine_type < 0 ? "rigid" : std::string("affine ") + kAffineNames[o.affine_type];
    if (p.count() == 0) {
        message = "the match needs pairs of points; the file has none";
        return kExitRefused;
    }
    if (o.affine_type >= 0 && p.dimension != 3) {
        message = "--affine matches points in space (6 numbers a line)";
        return kExitRefused;
    }
    return o.affine_type < 0 ? rigid(p, r, message) : affine(p, o.affine_type, r, message);
}

std::string format_match_human(const MatchReport& r) {
    std::string s = r.model + " transform (measured -> nominal)\n";
    for (const auto& row : r.transform) {
        for (std::size_t j = 0; j < row.size(); ++j)
            s += (j ? " " : "  ") + formatted_number(row[j], "%.12g");
        s += "\n";
    }
    s += " pair     residual\n";
    for (std::size_t i = 0; i < r.residuals.size(); ++i) {
        char line[64];
        std::snprintf(line, sizeof line, "%5zu %12.6g\n", i, r.residuals[i]);
        s += line;
    }
    s += "rms   " + formatted_number(r.rms, "%.6g") + "\n";
    s += "max   " + formatted_number(r.max, "%.6g") + "\n";
    return s;
}

std::string format_match_json(const MatchReport& r) {
    std::string s = "{\"model\": \"" + r.model + "\", \"transform\": [";
    for (std::size_t i = 0; i < r.transform.size(); ++i) {
        s += i ? ", [" : "[";
        for (std::size_t j = 0; j < r.transform[i].size(); ++j)
            s += (j ? ", " : "") + json_number(r.transform[i][j]);
        s += "]";
    }
    s += "], \"residuals\": [";
    for (std::size_t i = 0; i < r.residuals.size(); ++i)
        s += (i ? ", " : "") + json_number(r.residuals[i]);
    return s + "], \"rms\": " + json_number(r.rms) + ", \"max\": " + json_number(r.max) + "}\n";
}

std::string match_usage_text() {
    return R"(Usage: metrofit match <file> [--rigid | --affine TYPE] [--json]

match: the least-squares transform that carries measured points onto their
nominal partners, from <file> ("-" reads standard input). One pair per line,
numbers separated by commas, spaces or tabs, '#' starts a comment:
  mx my mz qx qy qz    a measured point m and its nominal point q in space
  mx my qx qy          the same in the plane (--rigid only)
The first data line decides; every line must hold as many numbers.

Options:
  --rigid         rotation and shift, no scale (the default); at least three
                  measured points not on one line.
  --affine TYPE   a restricted affine transform of space, q = T m:
                    full                    12 unknowns, q = A m + t
                    xy                      x and y affine in (mx, my), z kept
                    scale                   a scale per axis, no shift
                    scale-translate         a scale and a shift per axis
                    xy-scale                a scale on x and on y, z kept
                    xy-scale-xyz-translate  a scale on x and y, a shift on all
                    x, y, z                 a scale and shift of that axis only
  --json          print one JSON object instead of the text report.
  -h, --help      print this help and exit.

Report: the matrix of the transform (measured -> nominal; 4 x 4 in space,
3 x 3 in the plane, last row 0 ... 0 1), each pair's residual |T m - q|
(counted from 0 in file order), and their rms and largest value. --json:
{"model", "transform": [[...], ...], "residuals": [...], "rms", "max"}.

Exit status: 0 matched; 1 no pairs, or pairs that do not determine the
transform (too few, on one line, or not spread along the fitted axes); 2 a
usage error or a bad input file (the message names the line).
)";
}

int run_match(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
              std::ostream& err) {
    MatchOptions o;
    std::string error;
    const int parsed = parse_match_options(args, o, error);
    const int early =
        finish_early(parsed, error, o.help, o.version, out, err, "match", match_usage_text());
    if (early >= 0) return early;

    MatchPairs pairs;
    if (!read_input_file(
            o.file, in,
            [&](std::istream& s, std::string& why) { return read_match_pairs(s, pairs, why); },
            err))
        return kExitUsage;
    MatchReport report;
    const int status = match_pairs(o, pairs, report, error);
    if (status != kExitOk) {
        err << "metrofit: " << o.file << ": " << error << "\n";
        return status;
    }
    out << (o.json ? format_match_json(report) : format_match_human(report));
    return kExitOk;
}

}  // namespace metrofit_tool
