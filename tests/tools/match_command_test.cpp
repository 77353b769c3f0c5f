#include "tools/metrofit/match_command.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/sampling.h"
#include "tools/metrofit/fit_command.h"

namespace {

using namespace metrofit_tool;

struct MatchRun {
    int status;
    std::string out, err;
};

MatchRun match(std::vector<std::string> args, const std::string& input) {
    args.insert(args.begin(), {"match", "-"});
    std::istringstream in(input);
    std::ostringstream out, err;
    const int status = run_match(args, in, out, err);
    return {status, out.str(), err.str()};
}

// The numbers of the JSON value of `key`, up to the key that follows.
std::vector<double> numbers(const std::string& json, const std::string& key) {
    std::vector<double> v;
    const std::size_t from = json.find("\"" + key + "\": ") + key.size() + 4;
    const std::string text = json.substr(from, json.find('"', from) - from);
    for (const char* p = text.c_str(); *p; ++p) {
        char* end = nullptr;
        const double x = std::strtod(p, &end);
        if (end != p) v.push_back(x), p = end - 1;
    }
    return v;
}

// Pairs m, T m of six points spread in space (comma separated) or in the
// plane (space separated), 17 digits.
std::string pairs(const giXform3& T, bool plane) {
    testsupport::Rng rng(5);
    std::ostringstream s;
    s.precision(17);
    const char* sep = plane ? " " : ", ";
    for (int i = 0; i < 6; ++i) {
        const giPoint3 m(rng.uniform(-50, 50), rng.uniform(-50, 50),
                         plane ? 0 : rng.uniform(-50, 50));
        const giPoint3 ends[2] = {m, T * m};
        for (int e = 0; e < 2; ++e) {
            s << (e ? sep : "") << ends[e].x() << sep << ends[e].y();
            if (!plane) s << sep << ends[e].z();
        }
        s << "\n";
    }
    return s.str();
}

// The transform the report prints is the one that generated the pairs, in
// space, in the plane and for an affine family; the residuals vanish.
TEST(ToolMatch, RecoversTheGeneratingTransform) {
    const giXform3 turn(giPoint3(0, 0, 0), giVector3(0, 0, 1), giAngle(giANGLE_RADIANS, 0.3));
    double scale_rows[12] = {1.002, 0, 0, 5, 0, 0.998, 0, -7, 0, 0, 1.0005, 2};
    const std::tuple<std::vector<std::string>, giXform3, bool> cases[] = {
        {{"--json"}, testsupport::random_motion(30, 1e3, 4), false},
        {{"--json", "--rigid"}, giXform3(giVector3(3, -4, 0)) * turn, true},
        {{"--json", "--affine", "scale-translate"}, giXform3(utConvert, scale_rows), false}};
    for (const auto& [args, T, plane] : cases) {
        const MatchRun run = match(args, pairs(T, plane));
        ASSERT_EQ(run.status, kExitOk) << run.err;
        const int d = plane ? 2 : 3;
        const std::vector<double> m = numbers(run.out, "transform");
        ASSERT_EQ(m.size(), static_cast<std::size_t>((d + 1) * (d + 1)));
        for (int r = 0; r < d; ++r)
            for (int k = 0; k <= d; ++k) {
                const int col = k == d ? 3 : k;  // the shift is column 3 of T
                EXPECT_NEAR(m[r * (d + 1) + k], T(r, col), col == 3 ? 1e-9 * 1e3 : 1e-12);
            }
        EXPECT_LT(numbers(run.out, "rms").at(0), 1e-9);
        EXPECT_EQ(numbers(run.out, "residuals").size(), 6u);
    }
}

// Pairs that do not fix the transform are refused (1); malformed files and
// arguments are usage errors (2) that say what is wrong.
TEST(ToolMatch, RefusesWhatItCannotMatch) {
    const std::string line_of_points = "0 0 0 1 1 1\n1 0 0 2 1 1\n2 0 0 3 1 1\n";
    const std::tuple<std::vector<std::string>, std::string, int, std::string> cases[] = {
        {{}, "# nothing\n", kExitRefused, "none"},
        {{}, line_of_points, kExitRefused, "one line"},
        {{"--affine", "full"}, line_of_points, kExitRefused, "do not determine the full"},
        {{"--affine", "scale"}, "1 2 3 1 2 3\n0 0 4 0 0 4\n", kExitOk, ""},
        {{"--affine", "xy"}, "0 0 1 1\n1 0 2 1\n0 1 1 2\n", kExitRefused, "in space"},
        {{}, "0 0 0 1 1 1\n1 0 1 1\n", kExitUsage, "line 2: expected 6"},
        {{}, "0 0 0 1 1\n", kExitUsage, "line 1: expected 6 numbers"},
        {{}, "0 0 nan 1 1 1\n", kExitUsage, "line 1"},
        {{"--affine", "shear"}, "", kExitUsage, "--affine takes"},
        {{"--affine", "full", "--rigid"}, "", kExitUsage, "exclude"},
        {{"--scale"}, "", kExitUsage, "unknown option"},
    };
    for (const auto& [args, input, status, message] : cases) {
        const MatchRun run = match(args, input);
        EXPECT_EQ(run.status, status) << input << run.err;
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    }
    EXPECT_TRUE(is_match_command({"--json", "match", "f"}));
    EXPECT_FALSE(is_match_command({"fit", "match"}));
}

}  // namespace
