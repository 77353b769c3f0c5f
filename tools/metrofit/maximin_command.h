// `metrofit maximin`: the rigid motion that carries measured points onto a
// nominal surface (a triangle mesh in an STL file) so that the smallest
// signed deviation, less the point's lower limit, is as large as it can be:
// the machining stock of a raw part, positive everywhere and as even as the
// tightest point allows.
//
// A point row is that of `metrofit bestfit` (x y z, or x y z nx ny nz [r]);
// with --lower-column one more number ends every row: the point's own lower
// limit. Otherwise every point has the limit of --lower (default 0).
//
// run_maximin() is the whole command, with its streams passed in as for
// run_metrofit(). Exit status: 0 done, 1 a surface file the STL reader
// refuses, no points, no point that projects, or points that leave the
// margin without bound, 2 a usage error or a bad points file. After the
// margin the rest of the stock is evened level by level (--no-even: not).
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "metrofit/platform/surface/mesh_surface.h"
#include "tools/metrofit/bestfit_command.h"

namespace metrofit_tool {

struct MaximinOptions {
    bool help = false;
    bool version = false;
    bool json = false;
    std::string surface;  // the STL file
    std::string file;     // the points; "-" reads standard input
    double tolerance = 1e-9;
    double probe_radius = 0.0;  // for 6-column rows
    double lower = 0.0;         // every point's lower limit
    bool lower_column = false;  // the last number of a row is its lower limit
    bool lock_rotations = false;
    bool even = true;            // even the stock the margin leaves free
    bool bestfit_first = false;  // start from the least-squares fit
};

// Whether the first argument that is not a flag is "maximin".
bool is_maximin_command(const std::vector<std::string>& args);

// Parses the arguments (the word "maximin" among them). Returns kExitOk, or
// kExitUsage with a message in `error`.
int parse_maximin_options(const std::vector<std::string>& args, MaximinOptions& options,
                          std::string& error);

struct MaximinPoint {
    BestfitPoint point;
    bool has_lower = false;
    double lower = 0.0;
};

// Reads the rows (3, 6 or 7 numbers, one more with lower_column). On a bad
// line returns false with "line N: ..." in `error`.
bool read_maximin_points(std::istream& in, bool lower_column, std::vector<MaximinPoint>& points,
                         std::string& error);

struct MaximinReport {
    int points = 0;
    int status = 0;               // the fit's status (1 converged, 2 iteration limit, 3 stalled)
    double transform[4][4] = {};  // measured -> nominal; last row 0 0 0 1
    double margin = 0.0;
    std::vector<int> holding;    // 0-based point indices
    std::vector<double> levels;  // the margin, then each evening level
    // Per point, signed deviation under the identity and after the fit (NaN
    // for a point that does not project), and its lower limit.
    std::vector<double> before, after, lower;
    int unprojected = 0;
};

int maximin_points(const MaximinOptions& options, const srkMeshSurf& surface,
                   const std::vector<MaximinPoint>& points, MaximinReport& report,
                   std::string& message);

std::string format_maximin_human(const MaximinReport& report);
std::string format_maximin_json(const MaximinReport& report);
std::string maximin_usage_text();

int run_maximin(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                std::ostream& err);

}  // namespace metrofit_tool
