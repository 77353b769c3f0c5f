// The rps command: the known motion of the sample recovered from its file and
// from standard input under several positionings, and bad descriptions
// refused with their lines.
#include "tools/metrofit/rps_command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "metrofit/platform/geometry/xform.h"
#include "tests/support/tool_files.h"
#include "tools/metrofit/fit_command.h"

namespace {

using namespace metrofit_tool;

const std::string kExamples = METROFIT_TEST_DATA_DIR "/../../examples/";

struct Outcome {
    int status;
    std::string out, err;
};

Outcome run(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), "rps");
    std::istringstream in(input);
    std::ostringstream out, err;
    const int status = run_rps(args, in, out, err);
    return {status, out.str(), err.str()};
}

// The text with every line that starts with `key` edited: `from` replaced
// by `to`, or the line dropped when `from` is empty.
std::string edited(const std::string& text, const std::string& key, const std::string& from,
                   const std::string& to) {
    std::istringstream in(text);
    std::string out, line;
    while (std::getline(in, line)) {
        const std::size_t at = from.empty() ? 0 : line.find(from);
        if (line.compare(0, key.size(), key) != 0 || at == std::string::npos) {
            out += line + "\n";
        } else if (!from.empty()) {
            out += line.replace(at, from.size(), to) + "\n";
        }
    }
    return out;
}

// The sample as read from standard input: its surface named absolutely.
std::string sample_for_stdin() {
    std::stringstream s;
    s << std::ifstream(kExamples + "rps.txt").rdbuf();
    return edited(s.str(), "surface", "bestfit_part.stl", kExamples + "bestfit_part.stl");
}

// Every number (null as NaN) of "key" up to the bracket that closes its value.
std::vector<double> numbers(const std::string& json, const std::string& key) {
    std::vector<double> v;
    const std::size_t at = json.find("\"" + key + "\": ");
    if (at == std::string::npos) return v;
    int depth = 0;
    for (const char* p = json.c_str() + at + key.size() + 4; *p; ++p) {
        char* end = nullptr;
        const double x = std::strtod(p, &end);
        if (std::strncmp(p, "null", 4) == 0)
            v.push_back(NAN), p += 3;
        else if (end != p)
            v.push_back(x), p = end - 1;  // on its last character
        depth += (*p == '[' || *p == '{') - (*p == ']' || *p == '}');
        if (depth <= 0 && (*p == ']' || *p == '}' || *p == ',')) break;
    }
    return v;
}

// The motion the sample's measured points were generated with.
const giXform3 kMotion =
    giXform3(giVector3(0.2, -0.2, 0.1)) *
    giXform3::rotation(giPoint3(20, 15, 10), giVector3(2, -1, 2), giAngle(giANGLE_DEGREES, 0.5));

// Each variant holds the part differently: the fit must undo the motion at
// every corner of the box, and the positioning points that hold (locked or
// spare) must end on their nominal planes.
TEST(RpsCommand, RecoversTheSampleMotion) {
    const std::string text = sample_for_stdin();
    const struct {
        const char* name;
        std::vector<std::string> args;
        std::string input;
        std::size_t positions;
        // The range of the largest positioning deviation. Held points weigh
        // 1000 times a fitting point: they stay far below the noise; soft
        // ones weigh as much as a fitting point and give way by the noise.
        double least, most;
    } cases[] = {
        {"file", {kExamples + "rps.txt", "--json"}, "", 6, 0, 1e-5},
        {"stdin", {"-", "--json"}, text, 6, 0, 1e-5},
        {"spare", {"-", "--json"}, edited(text, "position", " L", " X"), 6, 0, 1e-5},
        {"soft", {"-", "--json"}, edited(text, "position", " L", " S"), 6, 1e-4, 5 * 0.002},
        {"overconstrained", {"-", "--json"}, text + "overconstrained\n", 6, 0, 1e-5},
        {"no positioning", {"-", "--json"}, edited(text, "position", "", ""), 0, 0, 0},
    };
    std::string first;
    for (const auto& c : cases) {
        const Outcome r = run(c.args, c.input);
        ASSERT_EQ(r.status, kExitOk) << c.name << r.err;
        EXPECT_EQ(numbers(r.out, "status"), std::vector<double>{0}) << c.name;
        const std::vector<double> m = numbers(r.out, "transform");
        ASSERT_EQ(m.size(), 16u) << c.name;
        EXPECT_EQ(std::vector<double>(m.begin() + 12, m.end()), (std::vector<double>{0, 0, 0, 1}));
        const giXform3 T(utConvert, m.data());
        // 2 um of noise on 6 positioning points some 30 apart: a few um at
        // the corners; 10 um leaves a margin.
        for (int k = 0; k < 8; ++k) {
            const giPoint3 corner(40 * (k & 1), 30 * (k >> 1 & 1), 20 * (k >> 2));
            EXPECT_LT((T * (kMotion * corner) - corner).length(), 1e-2) << c.name << k;
        }
        EXPECT_LT(numbers(r.out, "rms_after").at(0), 2.5 * 0.002) << c.name;  // noise 0.002
        EXPECT_GT(numbers(r.out, "rms_before").at(0), 0.1) << c.name;
        // Per point: its line and three deviations (NaN where ignored).
        const std::vector<double> p = numbers(r.out, "positioning");
        ASSERT_EQ(p.size(), 4 * c.positions) << c.name;
        double largest = 0;
        for (std::size_t k = 0; k < p.size(); ++k)
            largest = std::max(largest, k % 4 && !std::isnan(p[k]) ? std::fabs(p[k]) : 0.0);
        EXPECT_GE(largest, c.least) << c.name;
        EXPECT_LE(largest, c.most) << c.name;
        EXPECT_EQ(numbers(r.out, "standard_deviation_of_nominals").at(0) > 0, c.positions > 0);
        if (first.empty()) first = r.out;
        if (std::string(c.name) == "stdin") {
            EXPECT_EQ(r.out, first);  // the same mesh found from either place
        }
    }
    EXPECT_EQ(run({kExamples + "rps.txt", "--json"}).out, first);  // bit for bit again
}

TEST(RpsCommand, RefusesBadDescriptionsWithTheirLines) {
    const std::string stl = "surface " + kExamples + "bestfit_part.stl\n";
    const std::string description = testsupport::temp_file(
        "rps", "d.txt", "# relative to this file's folder\nsurface missing_part.stl\n");
    const struct {
        std::string input;
        int status;
        std::string message;
        std::vector<std::string> args = {"-"};
    } cases[] = {
        {stl + "shift 1 2 3\n", kExitUsage, "line 2: unknown keyword 'shift'"},
        {stl + "\npoint 1 2 3 0 0\n", kExitUsage, "line 3: point takes 6, 7 or 9 values"},
        {stl + "balance 1 2 3 0 0 1 1\n", kExitUsage, "line 2: balance takes 14 values"},
        {stl + "position 1 2 3 1 2 3 L Q -\n", kExitUsage, "line 2: the state of the y"},
        {stl + "position 1 2 3 1 2 3 - - -\n", kExitUsage, "line 2: the positioning point"},
        {stl + "position 0 0 0 0 0 0 L - - 0 0 2 0 0 -1\n", kExitUsage, "are parallel"},
        {"# no surface\npoint 1 2 3 0 0 1\n", kExitUsage, "names no surface"},
        {stl + stl, kExitUsage, "line 2: surface given twice (first on line 1)"},
        {stl + "probe-radius 1\ntolerance 0\ntolerance 1\n", kExitUsage, "line 4: tolerance given"},
        {stl + "point 1 2 3 0 0 0\n", kExitUsage, "line 2: the approximate normal has"},
        {stl + "balance 1 2 3 0 0 1 1 1 2 3 0 0 0 -1\n", kExitUsage, "line 2: the approximate"},
        {stl + "balance 1 2 3 0 0 1 0 1 2 3 0 0 1 0\n", kExitUsage, "both 0"},
        {stl + "point 1 2 3 0 0 1 -1\n", kExitUsage, "line 2: the probe radius must be"},
        {stl + "point 1 2 3 0 0 1 1 1 -1\n", kExitUsage, "line 2: the lower limit 1 lies"},
        {stl + "point 1 2 3 0 0 1 1 inf 0\n", kExitUsage, "lower limit cannot be 'inf'"},
        {stl + "point 1 nan 3 0 0 1\n", kExitUsage, "line 2: value is not finite"},
        {stl + "iterations 0\n", kExitUsage, "line 2: iterations needs a whole number"},
        {stl + "overconstrained 1\n", kExitUsage, "line 2: overconstrained takes no"},
        {"surface /nonexistent/part.stl\n", kExitRefused, "/nonexistent/part.stl"},
        {"", kExitRefused, ::testing::TempDir() + "missing_part.stl", {description}},
        {stl, kExitRefused, "the fit failed (status -1)"},
        {"", kExitUsage, "rps needs a file", {}},
        {"", kExitUsage, "unknown option '--surface'", {"-", "--surface", "x.stl"}},
    };
    for (const auto& c : cases) {
        const Outcome r = run(c.args, c.input);
        EXPECT_EQ(r.status, c.status) << c.message;
        EXPECT_TRUE(r.out.empty()) << r.out;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
    EXPECT_TRUE(is_rps_command({"--json", "rps", "x"}));
    EXPECT_FALSE(is_rps_command({"bestfit", "rps"}));
}

}  // namespace
