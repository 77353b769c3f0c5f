// The metrofit command line: parsing the arguments, running a fit on a
// point table, and writing the result for people or as JSON.
//
// run_metrofit() is the whole program behind main(), with its streams
// passed in so that tests can run it in-process. Exit status: 0 done,
// 1 the fit refused the points, 2 a usage error or a bad input file.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "tools/metrofit/point_file.h"

namespace metrofit_tool {

constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;
constexpr int kExitUsage = 2;

enum class Feature { line2, line3, plane, circle2, circle3, sphere };

struct Options {
    bool help = false;
    bool version = false;
    Feature feature = Feature::sphere;
    std::string file;  // "-" reads standard input
    bool probed = false;
    double probe_radius = 0.0;
    bool inside = false;
    bool json = false;
};

// The columns a data line must hold for the feature, and their names.
int expected_columns(const Options& options);
std::string column_names(const Options& options);

// Parses the arguments after the program name. Returns kExitOk, or
// kExitUsage with a message in `error`.
int parse_options(const std::vector<std::string>& args, Options& options, std::string& error);

// A fitted feature ready to print: its named parameters in output order,
// and the figures every fit reports.
struct FitReport {
    std::string feature;
    int points = 0;
    bool probed = false;
    double probe_radius = 0.0;
    bool inside = false;
    std::vector<std::pair<std::string, std::vector<double>>> parameters;
    double rms = 0.0;
    double form_deviation = 0.0;
    double distribution_quality = 0.0;
};

// Fits the table as the options ask. Returns kExitOk with the report,
// kExitRefused when the fit refuses the points, or kExitUsage for data the
// fit cannot take (a contact direction of zero length); `message` then
// says why.
int fit_table(const Options& options, const PointTable& table, FitReport& report,
              std::string& message);

std::string format_human(const FitReport& report);
std::string format_json(const FitReport& report);
std::string usage_text();

int run_metrofit(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                 std::ostream& err);

}  // namespace metrofit_tool
