#include "tools/metrofit/hull_command.h"

#include <cstdio>

#include "metrofit/util/convex_hull.h"
#include "tools/metrofit/fit_command.h"

namespace metrofit_tool {

namespace {

// Coordinates for people: 15 significant digits give back every decimal
// of up to 15 digits as it was written, so the vertices read as in the file.
std::string coordinate(double v) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.15g", v);
    return buffer;
}

const char* position_name(tsRelativePosition p) {
    switch (p) {
        case tsINSIDE:
            return "inside";
        case tsON_VERTEX:
            return "vertex";
        case tsON_EDGE:
            return "edge";
        case tsOUTSIDE:
            break;
    }
    return "outside";
}

}  // namespace

bool is_hull_command(const std::vector<std::string>& args) { return command_is(args, "hull"); }

int parse_hull_options(const std::vector<std::string>& args, HullOptions& o, std::string& error) {
    o = HullOptions();
    std::vector<std::string> positional;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        std::string value;
        if (common_flag(a, o.help, o.version, o.json)) continue;
        if (valued_option(args, i, "--inside", o.query, value, error)) {
            if (!error.empty()) return kExitUsage;
            const std::vector<double> xy = option_numbers(value);
            if (xy.size() != 2) {
                error = "--inside needs two finite numbers X,Y, not '" + value + "'";
                return kExitUsage;
            }
            o.query_x = xy[0];
            o.query_y = xy[1];
        } else if (a.size() > 1 && a[0] == '-') {
            error = "unknown option '" + a + "' for hull (it takes --inside X,Y and --json)";
            return kExitUsage;
        } else {
            positional.push_back(a);
        }
    }
    if (o.help || o.version) return kExitOk;
    if (command_file_argument(positional, "hull", o.file, error) != kExitOk) return kExitUsage;
    return kExitOk;
}

int hull_table(const HullOptions& o, const PointTable& t, HullReport& r, std::string& message) {
    r = HullReport();
    r.points = t.rows();
    giPoint2coDynArr pts;
    pts.reserve(t.rows());
    for (int i = 0; i < t.rows(); ++i) pts.append(giPoint2(t.at(i, 0), t.at(i, 1)));
    // The point form returns the vertices themselves (its array may hold
    // more than the count: the scan runs in place); the index form says
    // which rows they are.
    giPoint2coDynArr hull;
    intcoDynArr indices;
    const int n = ts_calculate_convex_hull(pts, hull);
    const int m = ts_calculate_convex_hull(pts, indices);
    if (n == 0 || m == 0) {
        message = "the hull needs at least one point; the file has " + std::to_string(t.rows());
        return kExitRefused;
    }
    for (int k = 0; k < n; ++k) {
        r.xs.push_back(hull[k].x());
        r.ys.push_back(hull[k].y());
    }
    r.indices_match = n == m;
    for (int k = 0; k < m; ++k) {
        r.indices.push_back(indices[k]);
        if (k < n && !(pts[indices[k]] == hull[k])) r.indices_match = false;
    }
    if (o.query) {
        r.query = true;
        r.query_x = o.query_x;
        r.query_y = o.query_y;
        r.position =
            position_name(ts_relative_position(giPoint2(o.query_x, o.query_y), hull.data(), n));
    }
    return kExitOk;
}

std::string format_hull_human(const HullReport& r) {
    std::string s = "# " + std::to_string(r.xs.size()) + " hull vertices of " +
                    std::to_string(r.points) + " points, counter-clockwise from the pivot\n";
    for (std::size_t k = 0; k < r.xs.size(); ++k)
        s += coordinate(r.xs[k]) + " " + coordinate(r.ys[k]) + "\n";
    if (r.query)
        s += "# position of " + coordinate(r.query_x) + " " + coordinate(r.query_y) + ": " +
             r.position + "\n";
    return s;
}

std::string format_hull_json(const HullReport& r) {
    std::string s = "{\"points\": " + std::to_string(r.points) + ", \"hull\": [";
    for (std::size_t k = 0; k < r.xs.size(); ++k)
        s += std::string(k ? ", " : "") + "[" + json_number(r.xs[k]) + ", " + json_number(r.ys[k]) +
             "]";
    s += "], \"indices\": [";
    for (std::size_t k = 0; k < r.indices.size(); ++k)
        s += (k ? ", " : "") + std::to_string(r.indices[k]);
    s += "]";
    if (r.query)
        s += ", \"query\": [" + json_number(r.query_x) + ", " + json_number(r.query_y) +
             "], \"position\": \"" + r.position + "\"";
    return s + "}\n";
}

int run_hull(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
             std::ostream& err) {
    HullOptions o;
    std::string error;
    const int parsed = parse_hull_options(args, o, error);
    const int early = finish_early(parsed, error, o.help, o.version, out, err);
    if (early >= 0) return early;
    PointTable table;
    if (!read_table_file(o.file, in, 2, "x y", table, err)) return kExitUsage;
    HullReport report;
    const int status = hull_table(o, table, report, error);
    if (status != kExitOk) {
        err << "metrofit: " << o.file << ": " << error << "\n";
        return status;
    }
    out << (o.json ? format_hull_json(report) : format_hull_human(report));
    if (!report.indices_match)
        err << "metrofit: warning: chains of points closer than 1e-12 to each other: the "
               "indices do not match the vertices one to one\n";
    return kExitOk;
}

}  // namespace metrofit_tool
