// `metrofit hull`: the convex hull of points in the plane and, on request,
// where a given point lies relative to it.
//
// run_hull() is the whole command, with its streams passed in as for
// run_metrofit(), and the same exit status: 0 done, 1 no points to take
// the hull of, 2 a usage error or a bad input file.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "tools/metrofit/point_file.h"

namespace metrofit_tool {

struct HullOptions {
    bool help = false;
    bool version = false;
    bool json = false;
    std::string file;  // "-" reads standard input
    // --inside X,Y: a point whose position relative to the hull is asked for.
    bool query = false;
    double query_x = 0.0;
    double query_y = 0.0;
};

// Whether the arguments run the hull command: the first of them that is not
// one of the flags -h, --help, --version or --json is "hull".
bool is_hull_command(const std::vector<std::string>& args);

// Parses the arguments (the word "hull" among them). Returns kExitOk, or
// kExitUsage with a message in `error`.
int parse_hull_options(const std::vector<std::string>& args, HullOptions& options,
                       std::string& error);

struct HullReport {
    int points = 0;
    // The hull vertices counter-clockwise from the pivot, and the row of the
    // table each comes from.
    std::vector<double> xs, ys;
    std::vector<int> indices;
    // False when the point form and the index form of the hull disagree
    // (chains of points closer than 1e-12 merged differently): the indices
    // then do not name the vertices one to one.
    bool indices_match = true;
    // With --inside: "inside", "vertex", "edge" or "outside".
    bool query = false;
    double query_x = 0.0;
    double query_y = 0.0;
    std::string position;
};

// Takes the hull of the table's rows (x y). Returns kExitOk with the
// report, or kExitRefused with a message for a table without points.
int hull_table(const HullOptions& options, const PointTable& table, HullReport& report,
               std::string& message);

std::string format_hull_human(const HullReport& report);
std::string format_hull_json(const HullReport& report);

int run_hull(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
             std::ostream& err);

}  // namespace metrofit_tool
