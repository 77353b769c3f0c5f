#include "tools/metrofit/fit_command.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/sampling.h"
#include "tests/support/tool_files.h"

namespace {

using namespace metrofit_tool;
using namespace testsupport;
constexpr auto npos = std::string::npos;
const std::string kExamples = std::string(METROFIT_TEST_DATA_DIR) + "/../../examples/";

struct ToolRun {
    int status;
    std::string out, err;
};

// Runs the tool in-process with `input` as standard input (file "-").
ToolRun run_tool(const std::vector<std::string>& args, const std::string& input = "") {
    std::istringstream in(input);
    std::ostringstream out, err;
    const int status = run_metrofit(args, in, out, err);
    return {status, out.str(), err.str()};
}

// Points as rows of a point file.
std::string rows(const giPoint3coDynArr& pts) {
    std::ostringstream s;
    s.precision(17);
    for (const giPoint3& p : pts) s << p.x() << ", " << p.y() << ", " << p.z() << "\n";
    return s.str();
}

// The numbers of "key" in the tool's JSON: one number, or every number up to
// the bracket that closes its array (nested arrays included).
std::vector<double> json_numbers(const std::string& json, const std::string& key) {
    std::vector<double> v;
    const std::size_t at = json.find("\"" + key + "\": ");
    if (at == npos) return v;
    int depth = 0;
    for (const char* p = json.c_str() + at + key.size() + 4; *p; ++p) {
        char* end = nullptr;
        const double x = std::strtod(p, &end);
        if (end != p) v.push_back(x), p = end - 1;  // on its last digit
        depth += (*p == '[') - (*p == ']');
        if (depth == 0 && (*p == ']' || *p == ',' || *p == '}')) break;
    }
    return v;
}
double number(const std::string& json, const std::string& key) {
    const std::vector<double> v = json_numbers(json, key);
    return v.empty() ? NAN : v[0];
}
// Whether the numbers of "key" lie within tol of `want`, one by one.
::testing::AssertionResult near(const std::string& json, const std::string& key,
                                const std::vector<double>& want, double tol) {
    const std::vector<double> got = json_numbers(json, key);
    bool ok = got.size() == want.size();
    for (std::size_t k = 0; ok && k < got.size(); ++k) ok = std::fabs(got[k] - want[k]) <= tol;
    if (ok) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "\"" << key << "\" is off in " << json;
}

// The figures of a JSON report on 60 points with noise sigma 0.001: the
// RMS near sigma, a form spanning several sigma, a quality in (0, 1).
void expect_noise_figures(const std::string& json) {
    EXPECT_EQ(number(json, "points"), 60);
    EXPECT_NEAR(number(json, "rms"), 0.001, 4e-4);
    EXPECT_GT(number(json, "form_deviation"), 2e-3);  // max - min of 60 residuals
    EXPECT_LT(number(json, "form_deviation"), 1e-2);
    EXPECT_GT(number(json, "distribution_quality"), 0.0);
    EXPECT_LT(number(json, "distribution_quality"), 1.0);
}

// ---- refusals ------------------------------------------------------------------

// Usage errors and bad files stop with status 2, refused fits with status 1:
// nothing on standard output, the reason on standard error.
TEST(ToolRefusal, StatusAndReasonWithoutAReport) {
    const int usage = kExitUsage, refused = kExitRefused;
    const struct {
        const char* args;  // split at spaces
        int status;
        const char* input;
        const char* message;
    } cases[] = {
        {"", usage, "", "no command"},
        {"fit", usage, "", "needs a feature"},
        {"fit sphere", usage, "", "needs a file"},
        {"fit cube f", usage, "", "unknown feature 'cube'"},
        {"fit sphere f --jsn", usage, "", "unknown option '--jsn'"},
        {"fit line3 f --probe-radius 1", usage, "", "line3 has no probed fit"},
        {"fit sphere f --inside", usage, "", "--inside needs --probe-radius"},
        {"fit plane f --probe-radius 1 --inside", usage, "", "does not apply"},
        {"fit sphere f --probe-radius nan", usage, "", "finite number of at least 0, not 'nan'"},
        {"fit sphere /nonexistent/points.txt", usage, "", "cannot open"},
        {"fit cylinder f --axis 0,0,0", usage, "", "non-zero length"},
        {"fit cylinder f --axis 0,0,1 --angle 0", usage, "", "above 0"},
        {"fit cone f --normals n --angle 91", usage, "", "at most 90"},
        {"fit cylinder f --angle 5", usage, "", "needs --axis or --normals"},
        {"fit sphere f --normals n", usage, "", "applies to cylinder and cone only"},
        {"fit axis f --axis 0,0,1", usage, "", "cylinder and cone only, not axis"},
        {"fit cylinder - --normals /nonexistent/n", usage, "0 0 0\n", "open '/nonexistent/n'"},
        // Bad rows, numbered with the comments counted.
        {"fit plane -", usage, "0 0 0\n# note\n0 1 inf\n", "-: line 3: value is not finite: 'inf'"},
        {"fit plane - --probe-radius 1", usage, "0 0 0\n", "expected 6 numbers (x y z nx ny nz)"},
        {"fit axis -", usage, "0 0 0 1 0 0\n1 0 0\n",
         "line 2: expected 6 numbers (x y z nx ny nz)"},
        {"fit axis -", usage, "0 0 0 1 0 0\n# c\n1 0 0 0 0 0\n", "line 3: surface normal has no"},
        // Too few points for the feature.
        {"fit sphere -", refused, "0 0 1\n0 1 0\n1 0 0\n", "at least 4 points; the file has 3"},
        {"fit cone -", refused, "0 0 0\n1 0 0\n0 1 0\n1 1 0\n2 1 0\n", "6 points; the file has 5"},
        {"fit axis -", refused,
         "1 0 0 1 0 0\n0 1 0 0 1 0\n-1 0 0 -1 0 0\n0 -1 0 0 -1 0\n1 0 1 1 0 0\n",
         "the axis fit needs at least 6 points; the file has 5"},
        {"fit ellipse2 -", refused, "0 0\n1 1\n2 2\n3 3\n4 4\n5 5\n", "do not fix an ellipse"},
        // The hull command.
        {"hull", usage, "", "hull needs a file"},
        {"hull - --inside 1", usage, "", "two finite numbers X,Y, not '1'"},
        {"hull -", usage, "0 0\n1 0\n0 1 2\n", "-: line 3: expected 2 numbers (x y)"},
        {"hull -", refused, "# no points\n", "at least one point; the file has 0"},
    };
    for (const auto& c : cases) {
        std::istringstream words(c.args);
        const std::vector<std::string> args{std::istream_iterator<std::string>(words), {}};
        const ToolRun r = run_tool(args, c.input);
        EXPECT_EQ(r.status, c.status) << c.args;
        EXPECT_TRUE(r.out.empty()) << r.out;
        EXPECT_NE(r.err.find(c.message), npos) << c.args << ": " << r.err;
    }
}

// ---- fits ------------------------------------------------------------------

TEST(ToolFit, SphereReportIsTheFitAndDeterministic) {
    const std::string input =
        rows(sphere_points(60, giPoint3(10, -20, 30), 25.0, 120.0, 0.001, 41));
    const ToolRun r = run_tool({"fit", "sphere", "-", "--json"}, input);
    ASSERT_EQ(r.status, kExitOk) << r.err;
    EXPECT_TRUE(r.err.empty());
    // Centre and radius within a few sigma / sqrt(n) of the truth, the cap's
    // weaker axis included.
    EXPECT_TRUE(near(r.out, "centre", {10, -20, 30}, 2e-3));
    EXPECT_TRUE(near(r.out, "radius", {25}, 2e-3));
    expect_noise_figures(r.out);
    EXPECT_EQ(run_tool({"fit", "sphere", "-", "--json"}, input).out, r.out);

    const ToolRun human = run_tool({"fit", "sphere", "-"}, input);
    ASSERT_EQ(human.status, kExitOk);
    for (const char* label :
         {"feature   sphere", "points    60", "centre", "radius", "rms", "form", "quality"})
        EXPECT_NE(human.out.find(label), npos) << label;
}

// Every sample file in examples/ fits close to the feature its comment
// names (the files carry noise of a few micrometres).
TEST(ToolFit, SampleFilesFitTheirStatedFeatures) {
    const struct {
        const char* feature;
        const char* key;
        std::vector<double> value;
        double tol;
        bool either_sense = false;  // a direction or normal without a fixed sense
    } cases[] = {
        {"sphere", "centre", {10, -20, 30}, 0.02},
        {"circle2", "centre", {50, 20}, 0.005},
        {"circle3", "centre", {100, 50, 20}, 0.01},
        {"circle3", "radius", {30}, 0.01},
        {"plane", "normal", {0.049928, -0.019971, 0.998553}, 1e-4, true},
        {"line2", "direction", {std::cos(kPi / 6), std::sin(kPi / 6)}, 1e-4, true},
        {"line3", "direction", {1.0 / 3, 2.0 / 3, 2.0 / 3}, 1e-4, true},
        {"cylinder", "axis", {-0.309426, 0.206284, 0.928279}, 1e-4, true},
        {"cylinder", "radius", {12.5}, 0.005},
        // The apex lies 15 below the nearest ring: it moves most with the noise.
        {"cone", "apex", {10, 20, 30}, 0.02},
        {"cone", "axis", {0.436436, -0.218218, 0.872872}, 3e-4},  // from the apex into the cone
        {"cone", "half_angle", {20}, 0.01},
        {"axis", "axis", {0.182574, -0.365148, 0.912871}, 2e-4},
        {"axis", "point", {7.738613, -8.477226, 25.693065}, 1e-3},  // 15 along from (5, -3, 12)
    };
    for (const auto& e : cases) {
        SCOPED_TRACE(std::string(e.feature) + " " + e.key);
        const ToolRun r = run_tool({"fit", e.feature, kExamples + e.feature + ".txt", "--json"});
        ASSERT_EQ(r.status, kExitOk) << r.err;
        std::vector<double> opposite = e.value;
        for (double& v : opposite) v = -v;
        EXPECT_TRUE(near(r.out, e.key, e.value, e.tol) ||
                    (e.either_sense && near(r.out, e.key, opposite, e.tol)));
        EXPECT_LT(number(r.out, "rms"), 0.01);
    }
}

// ---- hull --------------------------------------------------------------------

// The square [0, 4]^2 shuffled with an inner point and its edges' midpoints;
// from the pivot (4, 0) the midpoint of the closing edge is no vertex.
const char* kSquare = "2 2\n0 4\n2 0  # closing edge\n4 2\n0 0\n1 3\n4 4\n2 4\n4 0\n0 2\n";

TEST(ToolHull, SquareGivesItsVerticesCounterClockwiseFromThePivot) {
    const std::vector<double> hull = {4, 0, 4, 2, 4, 4, 2, 4, 0, 4, 0, 2, 0, 0};
    const ToolRun r = run_tool({"hull", "-"}, kSquare);
    ASSERT_EQ(r.status, kExitOk) << r.err;
    EXPECT_EQ(r.out.rfind("# 7 hull vertices of 10 points", 0), 0u) << r.out;
    std::istringstream back(r.out);  // the report is itself a point file
    PointTable table;
    std::string error;
    ASSERT_TRUE(read_point_table(back, 2, "x y", table, error)) << error;
    EXPECT_EQ(table.values, hull);

    const ToolRun j = run_tool({"--json", "hull", "-"}, kSquare);  // flags may come first
    ASSERT_EQ(j.status, kExitOk) << j.err;
    EXPECT_EQ(json_numbers(j.out, "points"), std::vector<double>{10});
    EXPECT_EQ(json_numbers(j.out, "hull"), hull);
    EXPECT_EQ(json_numbers(j.out, "indices"), (std::vector<double>{8, 3, 6, 7, 1, 9, 4}));
    EXPECT_TRUE(r.err.empty() && j.err.empty()) << r.err << j.err;
    // A chain of points 6e-13 apart: the hull keeps its ends (1.2e-12 apart),
    // the indices only its first point, and the tool says that they differ.
    const ToolRun chain = run_tool({"hull", "-", "--json"},
                                   "1 0\n1 1\n0 1\n0 1.0000000000006\n0 1.0000000000012\n0 0\n");
    EXPECT_EQ(json_numbers(chain.out, "hull").size(), 10u);
    EXPECT_EQ(json_numbers(chain.out, "indices"), (std::vector<double>{0, 1, 4, 5}));
    EXPECT_NE(chain.err.find("indices do not match the vertices"), npos) << chain.err;
}

}  // namespace
