// `metrofit bestfit2d`: the rigid motion of the plane that carries measured
// points onto a nominal profile of line segments and circular arcs, in the
// least-squares sense.
//
// The profile file holds one element per line (see tsCurve2): `line x1 y1
// x2 y2` or `arc x1 y1 xm ym x2 y2` (start, a point on the arc, end), each
// starting where the last ended; its normal side is the left of the
// direction of travel. A point row is either
//   x y nx ny [r]   a probe-ball centre, the approximate normal at the
//                   contact (the probing direction reversed; any length but
//                   zero) and optionally the ball radius (without it
//                   --probe-radius);
//   x y             a point on the profile itself: radius 0, deviation
//                   signed along the profile's normal side.
//
// run_bestfit2d() is the whole command, with its streams passed in. Exit
// status: 0 done, 1 no points or no point that projects onto the profile,
// 2 a usage error, a bad profile file or a bad points file.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "metrofit/bestfit/curve2.h"

namespace metrofit_tool {

struct Bestfit2dOptions {
    bool help = false;
    bool version = false;
    bool json = false;
    std::string contour;  // the profile file
    std::string file;     // the points; "-" reads standard input
    double tolerance = 1e-9;
    double probe_radius = 0.0;  // for 4-column rows
    // --lock-origin X,Y: the point stays where it is; the part turns about it.
    bool lock_origin = false;
    double origin[2] = {0, 0};
    // --lock-axis DX,DY: no turn; the part slides along the direction only.
    bool lock_axis = false;
    double axis[2] = {1, 0};
    bool band = false;
    double band_lower = 0.0, band_upper = 0.0;
};

// Whether the arguments run this command: the first of them that is not
// one of the flags -h, --help, --version or --json is "bestfit2d".
bool is_bestfit2d_command(const std::vector<std::string>& args);

int parse_bestfit2d_options(const std::vector<std::string>& args, Bestfit2dOptions& options,
                            std::string& error);

struct Bestfit2dPoint {
    double position[2] = {0, 0};
    bool has_normal = false;
    double normal[2] = {0, 1};  // unit, when given
    bool has_radius = false;
    double radius = 0.0;
    int line = 0;
};

// Reads the point rows (2, 4 or 5 numbers each). On a bad line returns
// false with "line N: ..." in `error`.
bool read_bestfit2d_points(std::istream& in, std::vector<Bestfit2dPoint>& points,
                           std::string& error);

struct Bestfit2dReport {
    int points = 0;
    double transform[3][3] = {};  // measured -> nominal; the last row 0 0 1
    // Per point, in file order: its line and signed deviation before and
    // after the fit (NaN where it does not project).
    std::vector<int> lines;
    std::vector<double> before, after;
    double rms = 0.0;  // over the points that project after the fit
    double max_signed = 0.0, min_signed = 0.0, max_distance = 0.0;
    int unprojected = 0;
    int overdetermined = 0;
    int iterations = 0;
    bool converged = false;
};

// Fits the points onto the profile. Returns kExitOk with the report, or
// kExitRefused with the reason in `message`.
int bestfit2d_points(const Bestfit2dOptions& options, const tsCurve2& contour,
                     const std::vector<Bestfit2dPoint>& points, Bestfit2dReport& report,
                     std::string& message);

std::string format_bestfit2d_human(const Bestfit2dReport& report);
std::string format_bestfit2d_json(const Bestfit2dReport& report);
std::string bestfit2d_usage_text();

int run_bestfit2d(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                  std::ostream& err);

}  // namespace metrofit_tool
