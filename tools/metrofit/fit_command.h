// The metrofit command line: parsing the arguments, running a fit on a
// point table, and writing the result for people or as JSON. The hull
// command lives in hull_command.h; run_metrofit() hands it its arguments.
//
// run_metrofit() is the whole program behind main(), with its streams
// passed in so that tests can run it in-process. Exit status: 0 done,
// 1 the fit refused the points, 2 a usage error or a bad input file.
#pragma once

#include <cstddef>
#include <functional>
#include <initializer_list>
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

enum class Feature {
    line2,
    line3,
    plane,
    circle2,
    circle3,
    sphere,
    cylinder,
    cone,
    axis,
    torus,
    ellipse2,
    ellipse3
};

// The angle the axis and surface directions of a cylinder or cone may
// deviate by from --axis and --normals when --angle is not given.
constexpr double kDefaultAngleDegrees = 10.0;

struct Options {
    bool help = false;
    bool version = false;
    Feature feature = Feature::sphere;
    std::string file;  // "-" reads standard input
    bool probed = false;
    double probe_radius = 0.0;
    bool inside = false;
    bool json = false;
    // Cylinder and cone only: a file of one surface normal per point ("-" reads
    // standard input; empty: none), a nominal axis direction (empty: none,
    // else three numbers of non-zero length) and the angle both may deviate by.
    std::string normals_file;
    std::vector<double> axis;
    double angle_degrees = kDefaultAngleDegrees;
    bool angle_given = false;
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
    // False for the axis of a surface of revolution: its residuals measure
    // how well the normal lines meet the axis, not the form of a surface,
    // and no distribution measure exists for it.
    bool form_and_quality = true;
    // Remarks for standard error that do not stop the run (a fitted axis
    // beyond the allowed angle of the nominal one, for example).
    std::vector<std::string> warnings;
};

// Fits the table as the options ask. Returns kExitOk with the report,
// kExitRefused when the fit refuses the points, or kExitUsage for data the
// fit cannot take (a contact direction or normal of zero length, a normals
// table whose row count is not the points'); `message` then says why.
// `normals` holds the rows of --normals (nx ny nz), or none.
int fit_table(const Options& options, const PointTable& table, const PointTable& normals,
              FitReport& report, std::string& message);
int fit_table(const Options& options, const PointTable& table, FitReport& report,
              std::string& message);

std::string format_human(const FitReport& report);
std::string format_json(const FitReport& report);
std::string usage_text();

// Shared by the commands.

// A number as JSON writes it: %.17g (exact), null for a non-finite value.
std::string json_number(double v);

// Whether args[i] is the option `name`, given as "--name VALUE" or
// "--name=VALUE". When it is, `value` receives the value (i moves past it),
// or `error` says it is missing or repeated (`given` tells a repeat).
bool valued_option(const std::vector<std::string>& args, std::size_t& i, const std::string& name,
                   bool& given, std::string& value, std::string& error);

// valued_option for one finite number at least 0 (--tolerance,
// --probe-radius) into `out`; `error` also says when the value is not one.
bool nonnegative_option(const std::vector<std::string>& args, std::size_t& i,
                        const std::string& name, bool& given, double& out, std::string& error);

// valued_option for --band LO,HI (finite, LO <= HI) into lower and upper.
bool band_option(const std::vector<std::string>& args, std::size_t& i, bool& given, double& lower,
                 double& upper, std::string& error);

// The numbers of an option value ("1.5", "0,0,1", "0 0 1"); empty for
// anything else.
std::vector<double> option_numbers(const std::string& value);

// Exactly `count` numbers of an option value into `out`, of non-zero length
// when `nonzero` is set; false otherwise.
bool numbers_value(const std::string& value, std::size_t count, bool nonzero, double* out);

// One field of a data line as a finite number, with the point file's
// messages; false with the reason in `error`.
bool number_field(const std::string& field, double& value, std::string& error);

// A tolerance limit: a finite number, or an open end written "-", "-inf"
// (lower) or "inf" (upper); `open` says which. An infinity at the wrong end
// would empty the band and is refused.
bool limit_field(const std::string& field, bool upper, bool& open, double& value,
                 std::string& error);

// v printed with a printf format of one double.
std::string formatted_number(double v, const char* format);

// Whether the arguments run the command `name`: the first of them that is
// not -h, --help, --version, --json or one of `other_flags` is `name`.
bool command_is(const std::vector<std::string>& args, const std::string& name,
                std::initializer_list<const char*> other_flags = {});

// The flags every command takes: -h/--help, --version and --json. Returns
// true (setting the flag) when `a` is one of them.
bool common_flag(const std::string& a, bool& help, bool& version, bool& json);

// The positional arguments of a command that takes one file: the command's
// name, then the file. Returns kExitOk with the file, else kExitUsage with
// the message.
int command_file_argument(const std::vector<std::string>& positional, const std::string& command,
                          std::string& file, std::string& error);

// Reads the point table of file `name` ("-": `in`). On failure writes
// "metrofit: ..." with the reason to `err` and returns false.
bool read_table_file(const std::string& name, std::istream& in, int columns,
                     const std::string& column_names, PointTable& table, std::ostream& err);

// Reads file `name` ("-": `in`) with `reader`, which returns false with a
// reason. On failure writes "metrofit: ..." to `err` and returns false.
bool read_input_file(const std::string& name, std::istream& in,
                     const std::function<bool(std::istream&, std::string&)>& reader,
                     std::ostream& err);

// After parsing: reports a usage error (kExitUsage), prints the help or the
// version (kExitOk), or returns -1 when the command is to run. A command
// with help of its own names itself and gives its usage text.
int finish_early(int parse_status, const std::string& error, bool help, bool version,
                 std::ostream& out, std::ostream& err, const std::string& command = "",
                 const std::string& usage = "");

int run_metrofit(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
                 std::ostream& err);

}  // namespace metrofit_tool
