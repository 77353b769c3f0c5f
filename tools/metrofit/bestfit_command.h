// `metrofit bestfit`: the rigid motion (with --scale, and a uniform scale)
// that carries measured points onto a nominal surface given as a triangle
// mesh (an STL file), in the least-squares sense.
//
// A point row is either
//   x y z nx ny nz [r]  a probe-ball centre, the approximate surface normal
//                       at the contact (the probing direction reversed; any
//                       length but zero: it only picks the side of the
//                       surface the ball came from) and optionally the ball
//                       radius r (at least 0; without it --probe-radius);
//   x y z               a point on the surface itself: radius 0, and the
//                       approximate normal is the mesh's own (outward)
//                       normal at the point of the mesh nearest to it, found
//                       once before the fit, so the point counts as touched
//                       from outside the material.
// The deviation of a point is signed along the nominal normal at its
// partner on the surface, positive on the side the probe came from.
//
// run_bestfit() is the whole command, with its streams passed in as for
// run_metrofit(). Exit status: 0 done, 1 a surface file the STL reader
// refuses, no points, no point that projects onto the surface, or a scaled
// fit (--scale) that fails, 2 a usage error or a bad points or pairs file.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "metrofit/platform/surface/mesh_surface.h"

namespace metrofit_tool {

struct BestfitOptions {
    bool help = false;
    bool version = false;
    bool json = false;
    std::string surface;  // the STL file
    std::string file;     // the points; "-" reads standard input
    double tolerance = 1e-6;
    double probe_radius = 0.0;  // for 6-column rows
    // --lock-rotations: no rotation, shifts along x, y and z only.
    bool lock_rotations = false;
    // --lock-origin X,Y,Z: the point stays where it is; the part turns about it.
    bool lock_origin = false;
    double origin[3] = {0, 0, 0};
    // --lock-axis AX,AY,AZ: the direction keeps its direction; the part
    // turns about it only and shifts freely.
    bool lock_axis = false;
    double axis[3] = {0, 0, 1};
    // --band LO,HI: the tolerance band of every point's signed deviation.
    bool band = false;
    double band_lower = 0.0, band_upper = 0.0;
    // --scale: a uniform scale about the centre is fitted too (with
    // --lock-rotations or alone; not with the other locks or --band).
    bool scale = false;
    // --scale-centre X,Y,Z: the centre of the scale (default the origin).
    bool scale_centre_given = false;
    double scale_centre[3] = {0, 0, 0};
    // --pairs FILE: rows "mx my mz nx ny nz", a measured point and its
    // nominal partner, for the rough start (at least 3, not on one line).
    std::string pairs;
};

// Whether the arguments run the bestfit command: the first of them that is
// not one of the flags -h, --help, --version, --json, --lock-rotations or
// --scale is "bestfit".
bool is_bestfit_command(const std::vector<std::string>& args);

// Parses the arguments (the word "bestfit" among them). Returns kExitOk, or
// kExitUsage with a message in `error`.
int parse_bestfit_options(const std::vector<std::string>& args, BestfitOptions& options,
                          std::string& error);

struct BestfitPoint {
    double position[3] = {0, 0, 0};
    bool has_normal = false;
    double normal[3] = {0, 0, 1};  // unit, when given
    bool has_radius = false;
    double radius = 0.0;
    int line = 0;
};

// Reads the point rows of a file (3, 6 or 7 numbers each). On a bad line
// returns false with "line N: ..." in `error` and `points` holding the rows
// before it.
bool read_bestfit_points(std::istream& in, std::vector<BestfitPoint>& points, std::string& error);

// One row of numbers (x y z, or x y z nx ny nz [r]) into a point; false
// with the reason in `error`.
bool parse_bestfit_row(const std::vector<double>& row, BestfitPoint& p, std::string& error);

// A measured point and its nominal partner, for the rough start.
struct BestfitPair {
    double measured[3] = {0, 0, 0};
    double nominal[3] = {0, 0, 0};
};

// Reads the pair rows of a file (6 numbers each). On a bad line returns
// false with "line N: ..." in `error`.
bool read_bestfit_pairs(std::istream& in, std::vector<BestfitPair>& pairs, std::string& error);

struct BestfitReport {
    int points = 0;
    // measured -> nominal, row by row; the last row is 0 0 0 1.
    double transform[4][4] = {};
    // Over the points that projected, after the fit: the largest and the
    // smallest signed deviation (the first at least 0, the second at most 0)
    // and the largest distance to the partner point.
    double max_signed = 0.0, min_signed = 0.0, max_distance = 0.0;
    int unprojected = 0;
    // Band limits the fit dropped as conflicting with the others.
    int overdetermined = 0;
    // With --scale: the fitted scale s about the centre (the transform's
    // linear part is s R).
    bool scaled = false;
    double scale = 1.0;
    double scale_centre[3] = {0, 0, 0};
};

// Fits the points onto the mesh as the options ask. Returns kExitOk with the
// report, or kExitRefused with a message in `message`.
int bestfit_points(const BestfitOptions& options, const srkMeshSurf& surface,
                   const std::vector<BestfitPoint>& points, BestfitReport& report,
                   std::string& message);
// The same with pairs for the rough start of a scaled fit (ignored without
// --scale).
int bestfit_points(const BestfitOptions& options, const srkMeshSurf& surface,
                   const std::vector<BestfitPoint>& points, const std::vector<BestfitPair>& pairs,
                   BestfitReport& report, std::string& message);

std::string format_bestfit_human(const BestfitReport& report);
std::string format_bestfit_json(const BestfitReport& report);
std::string bestfit_usage_text();

int run_bestfit(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                std::ostream& err);

}  // namespace metrofit_tool
