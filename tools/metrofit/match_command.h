// `metrofit match`: the transform that carries measured points onto their
// corresponding nominal points, from a file of pairs.
//
// A pair is a measured point and its nominal partner: "mx my mz qx qy qz" in
// space or "mx my qx qy" in the plane (the first data line decides; every
// line must then hold as many numbers). --rigid (the default) finds the
// least-squares rotation and shift (tsPointsToPoints, plane or space);
// --affine TYPE a restricted affine transform of space (tsPointsAffineMatch):
// full, xy, scale, scale-translate, xy-scale, xy-scale-xyz-translate, x, y
// or z. The report gives the transform (measured -> nominal) and each
// pair's residual |T m - q| with its rms and largest value.
//
// run_match() is the whole command, with its streams passed in as for
// run_metrofit(), and the same exit status: 0 done, 1 the pairs do not
// determine the transform, 2 a usage error or a bad input file.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace metrofit_tool {

struct MatchOptions {
    bool help = false;
    bool version = false;
    bool json = false;
    std::string file;      // "-" reads standard input
    int affine_type = -1;  // -1: rigid; else the tsAffineMatchXformType value
};

// Whether the first argument that is not -h, --help, --version or --json
// is "match".
bool is_match_command(const std::vector<std::string>& args);

// Parses the arguments (the word "match" among them). Returns kExitOk, or
// kExitUsage with a message in `error`.
int parse_match_options(const std::vector<std::string>& args, MatchOptions& options,
                        std::string& error);

struct MatchPairs {
    int dimension = 0;  // 2 or 3; 0 without data lines
    // Per pair, `dimension` coordinates each.
    std::vector<double> measured, nominal;
    int count() const { return dimension ? static_cast<int>(measured.size()) / dimension : 0; }
};

// Reads the pairs of a file. On a bad line returns false with "line N: ..."
// in `error`.
bool read_match_pairs(std::istream& in, MatchPairs& pairs, std::string& error);

struct MatchReport {
    std::string model;  // "rigid" or "affine TYPE"
    int dimension = 3;
    // measured -> nominal, row by row, dimension + 1 rows and columns; the
    // last row is 0 ... 0 1.
    std::vector<std::vector<double>> transform;
    std::vector<double> residuals;  // |T m - q| per pair, in file order
    double rms = 0.0, max = 0.0;
};

// Matches the pairs as the options ask. Returns kExitOk with the report, or
// kExitRefused with a message in `message`.
int match_pairs(const MatchOptions& options, const MatchPairs& pairs, MatchReport& report,
                std::string& message);

std::string format_match_human(const MatchReport& report);
std::string format_match_json(const MatchReport& report);
std::string match_usage_text();

int run_match(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
              std::ostream& err);

}  // namespace metrofit_tool
