#include "tools/metrofit/align_command.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <fstream>

#include "metrofit/alignment/points_to_planes.h"
#include "tools/metrofit/fit_command.h"

namespace metrofit_tool {

namespace {

constexpr int kMaxSteps = 10000;

const char* kColumns = "mx my mz qx qy qz nx ny nz [lower upper [weight]]";

// Three finite numbers of non-zero length, as an option value.
bool direction_value(const std::string& value, double out[3]) {
    const std::vector<double> v = option_numbers(value);
    if (v.size() != 3 || !(v[0] * v[0] + v[1] * v[1] + v[2] * v[2] > 0.0)) return false;
    std::copy(v.begin(), v.end(), out);
    return true;
}

// Parses the fields of one data line into an entry, or says why not.
bool parse_entry(const std::vector<std::string>& fields, AlignEntry& e, std::string& error) {
    e = AlignEntry();
    e.positioning = fields[0] == "P";
    const std::size_t first = e.positioning ? 1 : 0;
    const std::size_t count = fields.size() - first;
    if (e.positioning && count != 9) {
        error = "a positioning row takes 9 numbers after P (mx my mz qx qy qz nx ny nz), found " +
                std::to_string(count);
        return false;
    }
    if (!e.positioning && count != 9 && count != 11 && count != 12) {
        error = "expected 9, 11 or 12 numbers (" + std::string(kColumns) + "), found " +
                std::to_string(count);
        return false;
    }
    double v[9];
    for (std::size_t k = 0; k < 9; ++k)
        if (!number_field(fields[first + k], v[k], error)) return false;
    std::copy(v, v + 3, e.measured);
    std::copy(v + 3, v + 6, e.nominal);
    const double length = std::hypot(std::hypot(v[6], v[7]), v[8]);
    if (!(length > 0.0)) {
        error = "the normal has no length";
        return false;
    }
    for (int k = 0; k < 3; ++k) e.normal[k] = v[6 + k] / length;
    if (count >= 11) {
        if (!limit_field(fields[9], false, e.lower_open, e.lower, error) ||
            !limit_field(fields[10], true, e.upper_open, e.upper, error))
            return false;
        if (!e.lower_open && !e.upper_open && e.lower > e.upper) {
            error = "the lower limit " + formatted_number(e.lower, "%.10g") +
                    " lies above the upper " + formatted_number(e.upper, "%.10g");
            return false;
        }
    }
    if (count == 12) {
        if (!number_field(fields[11], e.weight, error)) return false;
        if (!(e.weight > 0.0)) {
            error = "the weight must be above 0, not " + formatted_number(e.weight, "%.10g");
            return false;
        }
    }
    return true;
}

giPoint3 point(const double p[3]) { return giPoint3(p[0], p[1], p[2]); }
giVector3 vector(const double v[3]) { return giVector3(v[0], v[1], v[2]); }

// The entry as the library keeps it, its measured point moved by T.
tsPlaneAndPoint library_entry(const AlignEntry& e, const giXform3& T) {
    return tsPlaneAndPoint(T * point(e.measured), point(e.nominal), vector(e.normal), 1,
                           e.lower_open ? -DBL_MAX : e.lower, e.upper_open ? DBL_MAX : e.upper,
                           e.weight);
}

// The alignment problem with the measured points (and the measured locked
// direction) moved by T.
void load(const AlignOptions& o, const std::vector<AlignEntry>& entries, const giXform3& T,
          tsPointsToPlanes& p) {
    p.reserve_bestfit(static_cast<int>(entries.size()));
    for (const AlignEntry& e : entries) {
        const tsPlaneAndPoint x = library_entry(e, T);
        if (e.positioning)
            p.add_positioning(x.measured_point, x.nominal_point, vector(e.normal), 1);
        else
            p.add_bestfit(x.measured_point, x.nominal_point, vector(e.normal), x.lower_limit,
                          x.upper_limit, x.weight);
    }
    if (o.lock_direction)
        p.lock_direction(T * vector(o.measured_direction), vector(o.nominal_direction), 0);
    if (o.lock_rotations)
        p.lock_rotations(giVector3(1, 0, 0), giVector3(0, 1, 0), giVector3(0, 0, 1));
}

void summarise(const std::vector<double>& d, double& rms, double& max) {
    double ss = 0.0;
    max = 0.0;
    for (double x : d) {
        ss += x * x;
        max = std::max(max, std::fabs(x));
    }
    rms = d.empty() ? 0.0 : std::sqrt(ss / d.size());
}

// Maps the constraint numbers of the bounded B entries back to the entries.
void name_constraints(const std::vector<AlignEntry>& entries, AlignReport& r) {
    for (int c : r.overdetermined) {
        int k = 0;
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const AlignEntry& e = entries[i];
            if (e.positioning) continue;
            for (int upper = 0; upper < 2; ++upper) {
                if (upper ? e.upper_open : e.lower_open) continue;
                if (k++ == c) {
                    r.overdetermined_entries.push_back(static_cast<int>(i));
                    r.overdetermined_upper.push_back(upper == 1);
                }
            }
        }
    }
}

}  // namespace

bool is_align_command(const std::vector<std::string>& args) {
    return command_is(args, "align", {"--lock-rotations"});
}

int parse_align_options(const std::vector<std::string>& args, AlignOptions& o, std::string& error) {
    o = AlignOptions();
    std::vector<std::string> positional;
    bool tolerance_given = false, direction_given = false, steps_given = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        std::string value;
        if (common_flag(a, o.help, o.version, o.json)) continue;
        if (a == "--lock-rotations") {
            o.lock_rotations = true;
        } else if (nonnegative_option(args, i, "--tolerance", tolerance_given, o.tolerance,
                                      error)) {
            if (!error.empty()) return kExitUsage;
        } else if (valued_option(args, i, "--lock-direction", direction_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            const std::size_t colon = value.find(':');
            o.lock_direction = true;
            if (colon == std::string::npos ||
                !direction_value(value.substr(0, colon), o.measured_direction) ||
                !direction_value(value.substr(colon + 1), o.nominal_direction)) {
                error =
                    "--lock-direction needs two directions of non-zero length, "
                    "AX,AY,AZ:BX,BY,BZ, not '" +
                    value + "'";
                return kExitUsage;
            }
        } else if (valued_option(args, i, "--steps", steps_given, value, error)) {
            if (!error.empty()) return kExitUsage;
            const bool digits = !value.empty() && value.size() <= 6 &&
                                value.find_first_not_of("0123456789") == std::string::npos;
            o.steps = digits ? std::stoi(value) : 0;
            if (o.steps < 1 || o.steps > kMaxSteps) {
                error = "--steps needs a whole number from 1 to " + std::to_string(kMaxSteps) +
                        ", not '" + value + "'";
                return kExitUsage;
            }
        } else if (a.size() > 1 && a[0] == '-') {
            error = "unknown option '" + a +
                    "' for align (it takes --tolerance, --lock-direction, --lock-rotations, "
                    "--steps and --json)";
            return kExitUsage;
        } else {
            positional.push_back(a);
        }
    }
    if (o.help || o.version) return kExitOk;
    if (command_file_argument(positional, "align", o.file, error) != kExitOk) return kExitUsage;
    if (o.lock_direction && o.lock_rotations) {
        error =
            "--lock-direction and --lock-rotations exclude each other (the latter allows no "
            "rotation at all)";
        return kExitUsage;
    }
    return kExitOk;
}

bool read_align_entries(std::istream& in, std::vector<AlignEntry>& entries, std::string& error) {
    entries.clear();
    return read_field_rows(
        in,
        [&](const std::string&, std::vector<std::string>& fields, int number,
            std::string& message) {
            AlignEntry e;
            if (!parse_entry(fields, e, message)) return false;
            e.line = number;
            entries.push_back(e);
            return true;
        },
        error);
}

int align_entries(const AlignOptions& o, const std::vector<AlignEntry>& entries, AlignReport& r,
                  std::string& message) {
    r = AlignReport();
    if (entries.empty()) {
        message = "the alignment needs at least one entry; the file has 0";
        return kExitRefused;
    }
    giXform3 T(giIdentity);
    if (o.steps == 0) {
        tsPointsToPlanes p;
        load(o, entries, T, p);
        r.fit_value = p.fit(T, o.tolerance, nullptr);
    } else {
        r.direct = false;
        // Each step is computed for the points where the steps before have
        // put them, so a fresh problem is loaded with the moved points.
        for (int k = 0; k < o.steps; ++k) {
            tsPointsToPlanes p;
            load(o, entries, T, p);
            giXform3 step;
            if (!p.single_linear_step(step) || !step.is_set()) {
                message = "linear step " + std::to_string(k + 1) + " found no motion";
                return kExitRefused;
            }
            double movement = 0.0;
            for (const AlignEntry& e : entries) {
                const giPoint3 m = T * point(e.measured);
                movement = std::max(movement, (step * m - m).length());
            }
            T.premultiply(step);
            r.steps = k + 1;
            r.last_movement = movement;
            r.overdetermined.assign(p.overdetermined_constraints().begin(),
                                    p.overdetermined_constraints().end());
            if (!(movement >= o.tolerance)) break;
        }
        name_constraints(entries, r);
    }
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) r.transform[i][j] = T(i, j);
    r.transform[3][3] = 1.0;
    bool finite = true;
    const giXform3 identity(giIdentity);
    for (const AlignEntry& e : entries) {
        const tsPlaneAndPoint x = library_entry(e, identity);
        r.kinds.push_back(e.positioning ? 'P' : 'B');
        r.before.push_back(x.deviation(identity));
        r.after.push_back(x.deviation(T));
        finite = finite && std::isfinite(r.after.back());
    }
    if (!finite) {
        message = "the alignment gave no finite transform";
        return kExitRefused;
    }
    summarise(r.before, r.rms_before, r.max_before);
    summarise(r.after, r.rms_after, r.max_after);
    return kExitOk;
}

std::string format_align_human(const AlignReport& r) {
    std::string s = "transform (measured -> nominal)\n";
    for (const auto& row : r.transform) {
        for (int j = 0; j < 4; ++j) s += (j ? " " : "  ") + formatted_number(row[j], "%.12g");
        s += "\n";
    }
    s += "entry kind       before        after\n";
    for (std::size_t i = 0; i < r.kinds.size(); ++i) {
        char line[96];
        std::snprintf(line, sizeof line, "%5zu %c    %12.6g %12.6g\n", i, r.kinds[i], r.before[i],
                      r.after[i]);
        s += line;
    }
    s += "rms       " + formatted_number(r.rms_before, "%.6g") + " -> " +
         formatted_number(r.rms_after, "%.6g") + "\n";
    s += "max       " + formatted_number(r.max_before, "%.6g") + " -> " +
         formatted_number(r.max_after, "%.6g") + "\n";
    if (r.direct)
        s += "fit       " + formatted_number(r.fit_value, "%.6g") + "\n";
    else
        s += "steps     " + std::to_string(r.steps) + " (last movement " +
             formatted_number(r.last_movement, "%.3g") + ")\n";
    if (!r.overdetermined.empty()) {
        s += "overdetermined";
        for (std::size_t k = 0; k < r.overdetermined.size(); ++k) {
            s += " " + std::to_string(r.overdetermined[k]);
            if (k < r.overdetermined_entries.size())
                s += " (entry " + std::to_string(r.overdetermined_entries[k]) +
                     (r.overdetermined_upper[k] ? " upper)" : " lower)");
        }
        s += "\n";
    }
    return s;
}

std::string format_align_json(const AlignReport& r) {
    std::string s = "{\"transform\": [";
    for (int i = 0; i < 4; ++i) {
        s += i ? ", [" : "[";
        for (int j = 0; j < 4; ++j) s += (j ? ", " : "") + json_number(r.transform[i][j]);
        s += "]";
    }
    s += "], \"deviations\": [";
    for (std::size_t i = 0; i < r.kinds.size(); ++i)
        s += std::string(i ? ", " : "") + "{\"kind\": \"" + r.kinds[i] +
             "\", \"before\": " + json_number(r.before[i]) +
             ", \"after\": " + json_number(r.after[i]) + "}";
    s += "], \"rms_before\": " + json_number(r.rms_before) +
         ", \"rms_after\": " + json_number(r.rms_after) +
         ", \"max_before\": " + json_number(r.max_before) +
         ", \"max_after\": " + json_number(r.max_after);
    if (r.direct)
        s += ", \"fit\": " + json_number(r.fit_value);
    else
        s += ", \"steps\": " + std::to_string(r.steps) +
             ", \"last_movement\": " + json_number(r.last_movement);
    s += ", \"overdetermined\": [";
    for (std::size_t k = 0; k < r.overdetermined.size(); ++k)
        s += (k ? ", " : "") + std::to_string(r.overdetermined[k]);
    return s + "]}\n";
}

std::string align_usage_text() {
    return R"(Usage: metrofit align <file> [--tolerance T] [--lock-direction A:B]
                      [--lock-rotations] [--steps N] [--json]

align: the rigid motion (rotation and shift) that carries measured points onto
nominal planes, in the least-squares sense, from <file> ("-" reads standard
input). One entry per line, numbers separated by commas, spaces or tabs, '#'
starts a comment:
  mx my mz qx qy qz nx ny nz [lower upper [weight]]
      a bestfit entry (B): the measured point m, a nominal point q and the
      nominal normal n there (any length but zero; made unit), optionally
      the tolerance band of its signed deviation (lower and upper limit;
      -inf, inf or - for an open end) and a weight (above 0, default 1).
  P mx my mz qx qy qz nx ny nz
      a positioning entry (P): a locating point of the part, held 1000 times
      more firmly than a bestfit entry; no band, weight 1.
The signed deviation of an entry is (T m - q) . n, positive on the side the
normal points to. With a band, the fit keeps the deviations inside it where it
can (centring them in their bands) rather than minimising their squares.

Options:
  --tolerance T       the accuracy the fit may stop at (default 1e-9); with
                      --steps, the point movement below which stepping stops.
  --lock-direction AX,AY,AZ:BX,BY,BZ
                      carry the measured direction A onto the nominal B; the
                      turn about B and the shift stay free.
  --lock-rotations    no rotation: shifts along x, y and z only.
  --steps N           instead of the direct fit, up to N linear steps
                      (1 to 10000), each for the points as the steps before
                      moved them. With P entries every step takes the first
                      P point onto its nominal point and turns about it.
  --json              print one JSON object instead of the text report.
  -h, --help          print this help and exit.

Report: the 4 x 4 matrix of the transform (measured -> nominal, last row
0 0 0 1); per entry (counted from 0 in file order) its kind and signed
deviation before and after; the rms and the largest |deviation| over all
entries before -> after; the value the direct fit returned (its largest
deviation) or the steps taken; with bands, the limit constraints dropped as
conflicting, numbered over the finite limits of the bounded entries (lower
before upper). --json: {"transform": [[4 numbers] x 4], "deviations":
[{"kind", "before", "after"}, ...], "rms_before", "rms_after", "max_before",
"max_after", "fit" or "steps" and "last_movement", "overdetermined": [...]}.

Exit status: 0 aligned; 1 no entries, or a step found no motion; 2 a usage
error or a bad input file (the message names the line).
)";
}

int run_align(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
              std::ostream& err) {
    AlignOptions o;
    std::string error;
    const int parsed = parse_align_options(args, o, error);
    const int early =
        finish_early(parsed, error, o.help, o.version, out, err, "align", align_usage_text());
    if (early >= 0) return early;

    std::vector<AlignEntry> entries;
    if (!read_input_file(
            o.file, in,
            [&](std::istream& s, std::string& why) { return read_align_entries(s, entries, why); },
            err))
        return kExitUsage;
    AlignReport report;
    const int status = align_entries(o, entries, report, error);
    if (status != kExitOk) {
        err << "metrofit: " << o.file << ": " << error << "\n";
        return status;
    }
    out << (o.json ? format_align_json(report) : format_align_human(report));
    return kExitOk;
}

}  // namespace metrofit_tool
