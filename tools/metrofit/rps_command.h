// `metrofit rps`: alignment of a measured part onto its nominal surface (an
// STL mesh) by a reference point system: a few positioning points hold the
// part like the locators of a fixture while many fitting points measured on
// its faces are best-fitted onto the mesh (tsRPSFitting).
//
// The description file is line based: a keyword, then its values, separated
// by spaces, tabs or commas; '#' starts a comment. Settings may stand
// anywhere and apply to the whole file; each is given at most once:
//   surface PART.stl   the nominal surface (exactly one; the rest of the
//                      line is the path, relative to the description's
//                      directory, or to the current one for standard input)
//   probe-radius R     the ball radius of points without their own (0)
//   tolerance T        stop when no point moves by T or more (1e-6)
//   iterations N       the iteration limit, 1 to 10000 (50)
//   overconstrained    drop positioning entries that add nothing to the pose
// and the data, as many lines as needed:
//   position mx my mz qx qy qz SX SY SZ [zx zy zz xx xy xz]
//       a positioning point, measured m and nominal q, with the state of the
//       x, y and z direction of its workplane: L locked, S soft, - ignored,
//       X spare; optionally the workplane's z and x axis (world axes else).
//   point x y z nx ny nz [r [lower upper]]
//       a fitting point: probe centre, approximate normal at the contact
//       (any length but zero), radius, tolerance band of its deviation.
//   balance x1 y1 z1 nx1 ny1 nz1 c1 x2 y2 z2 nx2 ny2 nz2 c2
//       two fitting points whose deviations enter as c1 d1 + c2 d2.
//
// run_rps() is the whole command, with its streams passed in as for
// run_metrofit(). Exit status: 0 fitted (a fit that reached the iteration
// limit warns on standard error), 1 a surface the STL reader refuses or a
// failed fit, 2 a usage error or a bad description.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "metrofit/platform/surface/mesh_surface.h"

namespace metrofit_tool {

struct RpsOptions {
    bool help = false;
    bool version = false;
    bool json = false;
    std::string file;  // the description; "-" reads standard input
};

// Whether the first argument that is not -h, --help, --version or --json
// is "rps".
bool is_rps_command(const std::vector<std::string>& args);

// Parses the arguments (the word "rps" among them). Returns kExitOk, or
// kExitUsage with a message in `error`.
int parse_rps_options(const std::vector<std::string>& args, RpsOptions& options,
                      std::string& error);

struct RpsPosition {
    double measured[3] = {0, 0, 0};
    double nominal[3] = {0, 0, 0};
    // The x, y and z direction of the workplane: 'L', 'S', '-' or 'X'.
    char states[3] = {'-', '-', '-'};
    double z_axis[3] = {0, 0, 1};  // unit
    double x_axis[3] = {1, 0, 0};  // unit, not parallel to z_axis
    int line = 0;
};

struct RpsPoint {
    double centre[3] = {0, 0, 0};
    double normal[3] = {0, 0, 1};  // unit
    bool has_radius = false;
    double radius = 0.0;
    bool lower_open = true, upper_open = true;
    double lower = 0.0, upper = 0.0;
    int line = 0;
};

struct RpsBalance {
    double centre[2][3] = {};
    double normal[2][3] = {};  // unit
    double coefficient[2] = {1, -1};
    int line = 0;
};

struct RpsDescription {
    std::string surface;  // as written
    int surface_line = 0;
    double probe_radius = 0.0;
    double tolerance = 1e-6;
    int iterations = 50;
    bool overconstrained = false;
    std::vector<RpsPosition> positions;
    std::vector<RpsPoint> points;
    std::vector<RpsBalance> balances;
};

// Reads a description. On a bad line returns false with "line N: ..." in
// `error`; a description without a surface line is refused too.
bool read_rps_description(std::istream& in, RpsDescription& description, std::string& error);

// The path the surface is read from: `surface` itself when absolute or when
// the description came from standard input ("-"), else relative to the
// directory of `description_file`.
std::string rps_surface_path(const std::string& description_file, const std::string& surface);

// What a status of the fit means, in a few words.
std::string rps_status_meaning(int status);

struct RpsReport {
    int status = 0;
    int iterations = 0;
    // measured -> nominal, row by row; the last row is 0 0 0 1.
    double transform[4][4] = {};
    int points = 0;
    int valid_projections = 0;
    // Over the fitting points (balanced ones one by one) that project onto
    // the surface, without motion and under the transform: the rms and the
    // largest |signed deviation|.
    double rms_before = 0.0, max_before = 0.0;
    double rms_after = 0.0, max_after = 0.0;
    // Per positioning point, in file order: its line, its states and the
    // signed deviation (T m - q) . axis along each workplane axis under the
    // transform (NaN for an ignored direction).
    struct Positioning {
        int line = 0;
        char states[3] = {'-', '-', '-'};
        double deviation[3] = {0, 0, 0};
    };
    std::vector<Positioning> positioning;
    // The rms of the held positioning deviations as the fit judges them.
    double nominal_deviation = 0.0;
};

// Runs the fit of the description onto the mesh. Returns kExitOk with the
// report (status 0 or 1), or kExitRefused with a message in `message`.
int rps_fit(const RpsDescription& description, const srkMeshSurf& surface, RpsReport& report,
            std::string& message);

std::string format_rps_human(const RpsReport& report);
std::string format_rps_json(const RpsReport& report);
std::string rps_usage_text();

int run_rps(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
            std::ostream& err);

}  // namespace metrofit_tool
