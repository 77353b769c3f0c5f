// `metrofit align`: the rigid motion that carries measured points onto
// nominal planes, from a file of entries.
//
// An entry is a measured point, the nominal point and the nominal surface
// normal there (any length but zero; the tool makes it unit, so deviations
// and limits are distances). A bestfit entry (kind B) may add a tolerance
// band, lower and upper limit of its signed deviation, and a weight; a
// positioning entry (kind P, the row starts with "P") holds the part like a
// locating point of a fixture and has neither.
//
// The motion comes from the direct fit of tsPointsToPlanes, or, with
// --steps N, from up to N linear steps, each computed for the points as the
// steps before have moved them and composed onto the transform, stopping
// when no measured point moves by the tolerance or more.
//
// run_align() is the whole command, with its streams passed in as for
// run_metrofit(), and the same exit status: 0 done, 1 nothing to align or a
// step that failed, 2 a usage error or a bad input file.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace metrofit_tool {

struct AlignOptions {
    bool help = false;
    bool version = false;
    bool json = false;
    std::string file;  // "-" reads standard input
    double tolerance = 1e-9;
    // --lock-direction A:B: the measured direction A is carried onto the
    // nominal direction B (both of non-zero length).
    bool lock_direction = false;
    double measured_direction[3] = {0, 0, 0};
    double nominal_direction[3] = {0, 0, 1};
    // --lock-rotations: no rotation, shifts along x, y and z only.
    bool lock_rotations = false;
    int steps = 0;  // 0: the direct fit
};

// Whether the arguments run the align command: the first of them that is
// not one of the flags -h, --help, --version, --json or --lock-rotations is
// "align".
bool is_align_command(const std::vector<std::string>& args);

// Parses the arguments (the word "align" among them). Returns kExitOk, or
// kExitUsage with a message in `error`.
int parse_align_options(const std::vector<std::string>& args, AlignOptions& options,
                        std::string& error);

struct AlignEntry {
    bool positioning = false;
    double measured[3] = {0, 0, 0};
    double nominal[3] = {0, 0, 0};
    double normal[3] = {0, 0, 1};  // unit
    bool lower_open = true, upper_open = true;
    double lower = 0.0, upper = 0.0;
    double weight = 1.0;
    int line = 0;
};

// Reads the entries of a file. On a bad line returns false with
// "line N: ..." in `error` and `entries` holding the entries before it.
bool read_align_entries(std::istream& in, std::vector<AlignEntry>& entries, std::string& error);

struct AlignReport {
    // measured -> nominal, row by row; the last row is 0 0 0 1.
    double transform[4][4] = {};
    // Per entry, in file order: P or B, signed deviation before and after.
    std::vector<char> kinds;
    std::vector<double> before, after;
    double rms_before = 0.0, rms_after = 0.0;
    double max_before = 0.0, max_after = 0.0;
    // The direct fit: the value it returned. With --steps: the steps taken
    // and the largest point movement of the last one.
    bool direct = true;
    double fit_value = 0.0;
    int steps = 0;
    double last_movement = 0.0;
    // Limit constraints the last step dropped as conflicting, numbered over
    // the finite limits of the bounded B entries (lower before upper), and
    // the entry (counted in file order from 0) and limit each one is.
    std::vector<int> overdetermined;
    std::vector<int> overdetermined_entries;
    std::vector<bool> overdetermined_upper;
};

// Aligns the entries as the options ask. Returns kExitOk with the report,
// or kExitRefused with a message in `message`.
int align_entries(const AlignOptions& options, const std::vector<AlignEntry>& entries,
                  AlignReport& report, std::string& message);

std::string format_align_human(const AlignReport& report);
std::string format_align_json(const AlignReport& report);
std::string align_usage_text();

int run_align(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
              std::ostream& err);

}  // namespace metrofit_tool
