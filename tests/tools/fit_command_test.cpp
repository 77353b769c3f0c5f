#include "tools/metrofit/fit_command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
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

// Points as rows of a point file, with `normals` (x y z nx ny nz) when given.
std::string rows(const giPoint3coDynArr& pts, const giUnitVec3coDynArr* normals = nullptr,
                 const std::vector<double>& scale = {1.0}) {
    std::ostringstream s;
    s.precision(17);
    for (int i = 0; i < pts.size(); ++i) {
        s << pts[i].x() << ", " << pts[i].y() << ", " << pts[i].z();
        if (normals) {
            const giVector3 n = scale[i % scale.size()] * giVector3((*normals)[i]);
            s << " " << n.x() << " " << n.y() << " " << n.z();
        }
        s << "\n";
    }
    return s.str();
}

std::string rows(const giPoint2coDynArr& pts) {
    std::ostringstream s;
    s.precision(17);
    for (const giPoint2& p : pts) s << p.x() << " " << p.y() << "\n";
    return s.str();
}

// A vector as one command-line value "x,y,z".
std::string arg(const giVector3& v) {
    std::ostringstream s;
    s.precision(17);
    s << v.x() << "," << v.y() << "," << v.z();
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
giVector3 centroid(const giPoint3coDynArr& pts) {
    giVector3 c(0, 0, 0);
    for (const giPoint3& p : pts) c += (p - giPoint3(giOrigin)) / pts.size();
    return c;
}
giVector3 vec(const std::string& json, const std::string& key) {
    const std::vector<double> v = json_numbers(json, key);
    return v.size() == 3 ? giVector3(v[0], v[1], v[2]) : giVector3(NAN, NAN, NAN);
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
        {"fits sphere f", usage, "",
         "commands are 'fit', 'hull', 'align', 'bestfit', 'match' and 'rps')"},
        {"fit cube f", usage, "", "unknown feature 'cube'"},
        {"fit sphere f g", usage, "", "unexpected argument 'g'"},
        {"fit sphere f --jsn", usage, "", "unknown option '--jsn'"},
        {"fit line3 f --probe-radius 1", usage, "", "line3 has no probed fit"},
        {"fit circle3 f --probe-radius=1", usage, "", "circle3 has no probed fit"},
        {"fit axis f --probe-radius 1", usage, "", "axis has no probed fit"},
        {"fit sphere f --inside", usage, "", "--inside needs --probe-radius"},
        {"fit plane f --probe-radius 1 --inside", usage, "", "does not apply"},
        {"fit sphere f --probe-radius", usage, "", "needs a value"},
        {"fit sphere f --probe-radius -1", usage, "", "at least 0"},
        {"fit sphere f --probe-radius nan", usage, "", "finite number of at least 0, not 'nan'"},
        {"fit sphere f --probe-radius 1 --probe-radius 1", usage, "", "twice"},
        {"fit sphere /nonexistent/points.txt", usage, "", "cannot open"},
        {"fit cylinder f --axis 0,0,0", usage, "", "non-zero length"},
        {"fit cylinder f --axis 1,2", usage, "", "three finite numbers"},
        {"fit cylinder f --axis=1,inf,0", usage, "", "three finite numbers"},
        {"fit cylinder f --axis 0,0,1 --angle 0", usage, "", "above 0"},
        {"fit cone f --normals n --angle 91", usage, "", "at most 90"},
        {"fit cylinder f --angle 5", usage, "", "needs --axis or --normals"},
        {"fit sphere f --normals n", usage, "", "applies to cylinder and cone only"},
        {"fit axis f --axis 0,0,1", usage, "", "cylinder and cone only, not axis"},
        {"fit circle3 f --axis 0,0,1", usage, "", "cylinder and cone only, not circle3"},
        {"fit cone - --normals -", usage, "", "both come from standard input"},
        {"fit cylinder - --normals /nonexistent/n", usage, "0 0 0\n", "open '/nonexistent/n'"},
        // Bad rows, numbered with the comments counted.
        {"fit plane -", usage, "0 0 0\n# note\n0 1 inf\n", "-: line 3: value is not finite: 'inf'"},
        {"fit plane - --probe-radius 1", usage, "0 0 0\n", "expected 6 numbers (x y z nx ny nz)"},
        {"fit line2 - --probe-radius 1", usage, "0 1 0 1\n1 1 0 0\n", "line 2: contact direction"},
        {"fit axis -", usage, "0 0 0 1 0 0\n1 0 0\n",
         "line 2: expected 6 numbers (x y z nx ny nz)"},
        {"fit axis -", usage, "0 0 0 1 0 0\n# c\n1 0 0 0 0 0\n", "line 3: surface normal has no"},
        // Too few points for the feature.
        {"fit sphere -", refused, "0 0 1\n0 1 0\n1 0 0\n", "at least 4 points; the file has 3"},
        {"fit cone -", refused, "0 0 0\n1 0 0\n0 1 0\n1 1 0\n2 1 0\n", "6 points; the file has 5"},
        {"fit axis -", refused,
         "1 0 0 1 0 0\n0 1 0 0 1 0\n-1 0 0 -1 0 0\n0 -1 0 0 -1 0\n1 0 1 1 0 0\n",
         "the axis fit needs at least 6 points; the file has 5"},
        {"fit line2 - --json", refused, "# empty\n", "the file has 0"},
        {"fit torus -", refused, "0 0 1\n0 1 0\n1 0 0\n1 1 0\n2 1 0\n", "at least 7 points"},
        {"fit ellipse2 -", refused, "0 0\n1 1\n2 2\n3 3\n4 4\n5 5\n", "do not fix an ellipse"},
        // The hull command.
        {"hull", usage, "", "hull needs a file"},
        {"hull - --inside 1", usage, "", "two finite numbers X,Y, not '1'"},
        {"hull - --probe-radius 1", usage, "", "unknown option '--probe-radius'"},
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

TEST(ToolHelp, DescribesEveryFeatureAndTheProbeColumns) {
    const ToolRun r = run_tool({"--help"});
    EXPECT_EQ(r.status, kExitOk);
    for (const char* word :
         {"line2",      "line3",          "plane",       "circle2",    "circle3",        "sphere",
          "cylinder",   "cone",           "apex",        "half_angle", "--probe-radius", "--inside",
          "--json",     "x y z nx ny nz", "--normals",   "--axis",     "--angle",        "axis",
          "surface of", "metrofit hull",  "--inside X,Y"})
        EXPECT_NE(r.out.find(word), npos) << word;
    EXPECT_EQ(run_tool({"fit", "sphere", "f", "-h"}).status, kExitOk);
    EXPECT_EQ(run_tool({"--version"}).status, kExitOk);
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

TEST(ToolFit, FormDeviationSpansTheResiduals) {
    // A square of side 10 with one corner raised by 0.4: the plane tilts,
    // residuals +-0.1 alternate around the corners, form = max - min.
    const ToolRun r =
        run_tool({"fit", "plane", "-", "--json"}, "0 0 0\n10 0 0\n0 10 0\n10 10 0.4\n");
    EXPECT_NEAR(number(r.out, "form_deviation"), 0.2, 1e-3);
    EXPECT_NEAR(number(r.out, "rms"), 0.1, 1e-3);
    // Points 0.1 off the x axis, which is the fitted line: form is twice the
    // largest distance, the zone's diameter.
    const ToolRun l =
        run_tool({"fit", "line3", "-", "--json"}, "0 0.1 0\n10 -0.1 0\n20 -0.1 0\n30 0.1 0\n");
    EXPECT_NEAR(number(l.out, "form_deviation"), 0.2, 1e-12);
    EXPECT_NEAR(number(l.out, "rms"), 0.1, 1e-12);
    // Collinear points fit a plane but fix no normal: the report comes with a
    // warning.
    const ToolRun flat = run_tool({"fit", "plane", "-"}, "0 0 0\n1 1 1\n2 2 2\n");
    EXPECT_EQ(flat.status, kExitOk);
    EXPECT_NE(flat.out.find("quality"), npos);
    EXPECT_NE(flat.err.find("warning"), npos) << flat.err;
}

// Probe centres 1.5 outside (or inside) a known surface of size 20 (a cone of
// half angle 30, apex at the origin): the tool reports the touched surface.
TEST(ToolFit, ProbedFitsReportTheTouchedSurface) {
    const double R = 20.0, rho = 1.5;
    giUnitVec3coDynArr outward;
    const giPoint3coDynArr cone = cone_points(40, 30, 10, 40, 300, 0, 33, &outward);
    for (const bool inside : {false, true}) {
        SCOPED_TRACE(inside ? "inside" : "outside");
        const double at = inside ? R - rho : R + rho;
        giPoint3coDynArr centres;
        for (int i = 0; i < cone.size(); ++i)
            centres.append(cone[i] + (inside ? -rho : rho) * outward[i]);
        const std::string sphere = rows(sphere_points(50, giPoint3(1, 2, 3), at, 150, 0, 7));
        const std::string circle = rows(circle_points2(30, giPoint2(-4, 9), at, 200, 0, 8));
        const std::string cylinder = rows(cylinder_points(40, at, 30, 300, 0, 9));
        const struct {
            const char* feature;
            std::string input;
            std::vector<std::pair<const char*, std::vector<double>>> truth;
            double tol;
        } cases[] = {{"sphere", sphere, {{"radius", {R}}}, 1e-9},
                     {"circle2", circle, {{"radius", {R}}, {"centre", {-4, 9}}}, 1e-9},
                     {"cylinder", cylinder, {{"radius", {R}}}, 1e-9},
                     {"cone",
                      rows(centres),
                      {{"apex", {0, 0, 0}}, {"axis", {0, 0, -1}}, {"half_angle", {30}}},
                      1e-8}};
        for (const auto& c : cases) {
            std::vector<std::string> args = {"fit", c.feature, "-", "--json", "--probe-radius=1.5"};
            if (inside) args.push_back("--inside");
            const ToolRun r = run_tool(args, c.input);
            ASSERT_EQ(r.status, kExitOk) << c.feature << ": " << r.err;
            EXPECT_NE(r.out.find(inside ? "\"inside\": true" : "\"inside\": false"), npos);
            EXPECT_LT(number(r.out, "form_deviation"), c.tol) << c.feature;
            for (const auto& [key, want] : c.truth) EXPECT_TRUE(near(r.out, key, want, c.tol));
        }
    }
}

// Probe centres 0.5 above the plane z = 1 (the line y = 2): the touched plane
// (line), its normal towards the probe, through the centroid's foot.
TEST(ToolFit, ProbedPlaneAndLineFollowTheContactDirections) {
    std::ostringstream plane, line;
    for (int i = 0; i < 20; ++i) {
        plane << i << " " << 7 * i % 20 << " 1.5 0 0 " << 2 + i << "\n";
        line << i << ", 2.5, 0, " << 0.5 + i << "\n";
    }
    const ToolRun p =
        run_tool({"fit", "plane", "-", "--probe-radius", "0.5", "--json"}, plane.str());
    ASSERT_EQ(p.status, kExitOk) << p.err;
    EXPECT_TRUE(near(p.out, "normal", {0, 0, 1}, 1e-12));
    EXPECT_TRUE(near(p.out, "point", {9.5, 9.5, 1.0}, 1e-9));
    EXPECT_LT(number(p.out, "form_deviation"), 1e-9);

    const ToolRun l =
        run_tool({"fit", "line2", "-", "--probe-radius", "0.5", "--json"}, line.str());
    ASSERT_EQ(l.status, kExitOk) << l.err;
    EXPECT_TRUE(near(l.out, "normal", {0, 1}, 1e-12));
    EXPECT_NEAR(std::fabs(number(l.out, "direction")), 1.0, 1e-12);
    EXPECT_TRUE(near(l.out, "point", {9.5, 2.0}, 1e-9));
    EXPECT_LT(number(l.out, "form_deviation"), 1e-9);
}

// A noisy cylinder and frustum moved 1e3: the axis in the sense of --axis (the
// cone's from the apex without it), sizes and point; a crossed --axis warns.
TEST(ToolFit, CylinderAndConeFollowTheAxisOption) {
    for (const bool cone : {false, true}) {
        SCOPED_TRACE(cone ? "cone" : "cylinder");
        const giXform3 t = random_motion(cone ? 50.0 : 40.0, 1e3, cone ? 31 : 12);
        const giPoint3coDynArr pts =
            transformed(t, cone ? cone_points(60, 25, 10, 40, 300, 0.001, 32)
                                : cylinder_points(60, 12.5, 40, 270, 0.001, 13));
        const giVector3 apex = t * giPoint3(giOrigin) - giPoint3(giOrigin);  // on the axis
        const giUnitVec3 axis = t * giUnitVec3(0, 0, cone ? -1 : 1);
        const std::pair<std::vector<std::string>, double> senses[] = {
            {{"--axis", arg(axis)}, 1.0}, {{"--axis", arg(-1.0 * axis)}, -1.0}, {{}, 1.0}};
        for (const auto& [extra, sense] : senses) {
            if (!cone && extra.empty()) continue;  // a cylinder's sense is free then
            std::vector<std::string> args = {"fit", cone ? "cone" : "cylinder", "-", "--json"};
            args.insert(args.end(), extra.begin(), extra.end());
            const ToolRun r = run_tool(args, rows(pts));
            ASSERT_EQ(r.status, kExitOk) << r.err;
            EXPECT_TRUE(r.err.empty()) << r.err;
            // A few sigma / sqrt(n) over lengths of 30 or more; the apex, 10
            // beyond the points, within a few times that lever.
            EXPECT_GT(dot(vec(r.out, "axis"), sense * axis), std::cos(1e-4));
            expect_noise_figures(r.out);
            if (cone) {
                EXPECT_LT((vec(r.out, "apex") - apex).length(), 4e-3);
                EXPECT_NEAR(number(r.out, "half_angle"), 25.0, 3e-3);
            } else {
                const giVector3 at = vec(r.out, "point") - apex;
                EXPECT_LT(cross(axis, at).length(), 2e-3);
                EXPECT_NEAR(dot(axis, vec(r.out, "point") - centroid(pts)), 0.0, 2e-3);
                EXPECT_NEAR(number(r.out, "radius"), 12.5, 1e-3);
            }
        }
        const ToolRun off = run_tool(
            {"fit", cone ? "cone" : "cylinder", "-", "--axis", arg(axis.any_normal())}, rows(pts));
        EXPECT_EQ(off.status, kExitOk);
        EXPECT_NE(off.out.find(cone ? "half_angle 2" : "radius    12.5"), npos) << off.out;
        EXPECT_NE(off.err.find(cone ? "no cone within the limit" : "beyond the 10 degrees"), npos)
            << off.err;
    }
}

// Normals match the points by order: outward or inward silently, unfollowable
// ones with a warning, a wrong count or a zero normal with status 2.
TEST(ToolFit, AxialNormalsMustBelongToThePoints) {
    // Normals outward (1), inward (-1) or along the axis (0), how many, the
    // first of no length, and what the tool says.
    const std::tuple<double, int, bool, int, std::string> cases[] = {
        {1, 40, false, kExitOk, ""},
        {-1, 40, false, kExitOk, ""},
        {0, 40, false, kExitOk, "not all within 10 degrees"},
        {1, 39, false, kExitUsage, "has 39 normals for 40 points"},
        {1, 40, true, kExitUsage, "line 1 of the normals file"}};
    for (const std::string feature : {"cylinder", "cone"}) {
        // A cone of half angle 30: its normals lie 60 degrees off the axis.
        const bool cone = feature == "cone";
        giUnitVec3coDynArr outward;
        const giPoint3coDynArr pts = cone ? cone_points(40, 30, 10, 30, 300, 0, 22, &outward)
                                          : cylinder_points(40, 5, 20, 300, 0, 21, &outward);
        for (const auto& [sense, count, zero_first, status, says] : cases) {
            SCOPED_TRACE(feature + " " + says);
            giPoint3coDynArr tips;
            for (int i = 0; i < count; ++i) {
                const giVector3 n = sense == 0 ? giVector3(0, 0, 1) : sense * outward[i];
                tips.append(giPoint3(giOrigin) + (zero_first && i == 0 ? 0.0 : 1.0) * n);
            }
            const std::string normals = temp_file("fit", "n.txt", rows(tips));
            const ToolRun r =
                run_tool({"fit", feature, "-", "--json", "--normals", normals}, rows(pts));
            ASSERT_EQ(r.status, status) << r.err;
            EXPECT_EQ(r.err.empty(), says.empty()) << r.err;
            EXPECT_NE(r.err.find(says), npos) << r.err;
            if (status == kExitOk) {
                EXPECT_NEAR(number(r.out, cone ? "half_angle" : "radius"), cone ? 30 : 5, 1e-9);
            }
        }
    }
    // Through the command line, normals on standard input.
    const ToolRun r = run_tool({"fit", "cylinder", kExamples + "cylinder.txt", "--normals", "-"},
                               "1 0 0\n0 1 0\n");
    EXPECT_EQ(r.status, kExitUsage);
    EXPECT_NE(r.err.find("has 2 normals for 40 points"), npos) << r.err;
}

// Exact frustum normals of assorted lengths and senses, turned and moved 1e3:
// the axis (largest component positive) through the centroid's foot.
TEST(ToolFit, AxisOfRevolutionRecoversAKnownAxis) {
    giUnitVec3coDynArr local;
    const giPoint3coDynArr cone = cone_points(40, 30, 10, 40, 300, 0, 51, &local);
    const giVector3 z(0, 0, 1);
    for (const giVector3& d : {giVector3(0.3, 0.1, -0.95), giVector3(-0.9, 0.2, 0.3),
                               giVector3(0.2, -0.7, -0.5), giVector3(0.6, -0.7, 0.4)}) {
        const giXform3 t =
            giXform3::translation(giVector3(1e3, -2e3, 500)) *
            giXform3::rotation(giPoint3(giOrigin), cross(z, d),
                               giAngle(giANGLE_RADIANS, std::acos(dot(z, d) / d.length())));
        const giPoint3coDynArr pts = transformed(t, cone);
        giUnitVec3coDynArr normals;
        for (const giUnitVec3& n : local) normals.append(t * n);
        const std::string input = rows(pts, &normals, {1.0, -2.5, 0.01});
        const ToolRun r = run_tool({"fit", "axis", "-", "--json"}, input);
        ASSERT_EQ(r.status, kExitOk) << r.err;
        EXPECT_TRUE(r.err.empty()) << r.err;
        EXPECT_EQ(number(r.out, "points"), 40);
        const giVector3 axis = vec(r.out, "axis"), truth = t * giUnitVec3(0, 0, 1);
        EXPECT_NEAR(axis.length(), 1.0, 1e-12);
        EXPECT_LT(cross(axis, truth).length(), 1e-9);
        EXPECT_EQ(std::max({axis.x(), axis.y(), axis.z()}),
                  std::max({std::fabs(axis.x()), std::fabs(axis.y()), std::fabs(axis.z())}));
        const giVector3 at = vec(r.out, "point");
        EXPECT_LT(cross(at - (t * giPoint3(giOrigin) - giPoint3(giOrigin)), truth).length(), 1e-7);
        EXPECT_NEAR(dot(at - centroid(pts), truth), 0.0, 1e-7);
        EXPECT_LT(number(r.out, "rms"), 1e-9);
        EXPECT_EQ(r.out.find("form_deviation"), npos);
        EXPECT_EQ(r.out.find("distribution_quality"), npos);
        EXPECT_EQ(run_tool({"fit", "axis", "-", "--json"}, input).out, r.out);
    }
    const ToolRun human = run_tool({"fit", "axis", "-"}, rows(cone, &local));
    ASSERT_EQ(human.status, kExitOk);
    for (const char* label : {"feature   axis", "points    40", "point ", "axis  ", "rms"})
        EXPECT_NE(human.out.find(label), npos) << label;
    EXPECT_EQ(human.out.find("quality"), npos);
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

TEST(ToolHull, InsideSaysWhereThePointLies) {
    const std::pair<const char*, const char*> cases[] = {
        {"2,2", "inside"}, {"3.9,0.1", "inside"}, {"4 2", "vertex"},      {"2,0", "edge"},
        {"1,4", "edge"},   {"5,1", "outside"},    {"-0.001,2", "outside"}};
    for (const auto& [point, position] : cases) {
        const ToolRun r = run_tool({"hull", "-", "--inside", point}, kSquare);
        EXPECT_NE(r.out.find(std::string(": ") + position + "\n"), npos) << point;
        const ToolRun j =
            run_tool({"hull", "-", "--json", std::string("--inside=") + point}, kSquare);
        EXPECT_NE(j.out.find(std::string("\"position\": \"") + position), npos) << point;
        EXPECT_EQ(json_numbers(j.out, "query"), option_numbers(point));
    }
}

// Exact points on a tilted half torus (also probed from outside), a 270-degree
// plane ellipse and that ellipse in the tilted plane: the generating features.
TEST(ToolFit, TorusAndEllipsesReportTheGeneratingFeature) {
    const double tilt = 20.0 * kPi / 180.0, turn = 30.0 * kPi / 180.0;
    const giVector3 axis(0, -std::sin(tilt), std::cos(tilt)), x(1, 0, 0);
    const giVector3 y = cross(axis, x);
    giPoint3coDynArr torus, centres, ellipse3;
    giPoint2coDynArr ellipse2;
    for (int k = 0; k < 40; ++k) {
        const double t = kPi * (k + 0.5) / 40, p = 2 * kPi * ((k * 7) % 40 + 0.5) / 40;
        const giVector3 d = std::cos(t) * x + std::sin(t) * y;
        const giVector3 n = std::cos(p) * d + std::sin(p) * axis;
        torus.append(giPoint3(5, -3, 8) + 30.0 * d + 6.0 * n);
        centres.append(giPoint3(5, -3, 8) + 30.0 * d + 7.0 * n);
    }
    for (int k = 0; k < 24; ++k) {
        const double t = 1.5 * kPi * k / 23, ex = 25 * std::cos(t), ey = 15 * std::sin(t);
        ellipse2.append(giPoint2(12 + ex * std::cos(turn) - ey * std::sin(turn),
                                 -4 + ex * std::sin(turn) + ey * std::cos(turn)));
        ellipse3.append(giPoint3(100, 50, -20) + ellipse2[k].x() * x + ellipse2[k].y() * y);
    }
    const giPoint3 centre3 = giPoint3(100, 50, -20) + 12.0 * x - 4.0 * y;
    const giVector3 major3 = std::cos(turn) * x + std::sin(turn) * y;
    const std::pair<std::vector<std::string>, std::string> runs[] = {
        {{"torus"}, rows(torus)},
        {{"torus", "--probe-radius", "1"}, rows(centres)},
        {{"ellipse2"}, rows(ellipse2)},
        {{"ellipse3"}, rows(ellipse3)}};
    std::string out[4];
    for (int k = 0; k < 4; ++k) {
        std::vector<std::string> args = {"fit", runs[k].first[0], "-", "--json"};
        args.insert(args.end(), runs[k].first.begin() + 1, runs[k].first.end());
        const ToolRun r = run_tool(args, runs[k].second);
        ASSERT_EQ(r.status, kExitOk) << k << r.err;
        EXPECT_LT(number(r.out, "rms"), 1e-9) << k;
        EXPECT_GT(number(r.out, "distribution_quality"), 0.01) << k;
        out[k] = r.out;
    }
    const double st = std::sin(tilt), ct = std::cos(tilt);
    const std::vector<double> c3 = {centre3.x(), centre3.y(), centre3.z()};
    const std::tuple<int, const char*, std::vector<double>> expected[] = {
        {0, "centre", {5, -3, 8}},   {0, "axis", {0, -st, ct}}, {0, "major_radius", {30}},
        {0, "minor_radius", {6}},    {1, "centre", {5, -3, 8}}, {1, "major_radius", {30}},
        {1, "minor_radius", {6}},    {2, "centre", {12, -4}},   {2, "semi_major", {25}},
        {2, "semi_minor", {15}},     {2, "angle", {30}},        {3, "centre", c3},
        {3, "normal", {0, -st, ct}}, {3, "semi_major", {25}},   {3, "semi_minor", {15}}};
    for (const auto& [k, key, value] : expected)
        EXPECT_TRUE(near(out[k], key, value, 1e-8)) << k << " " << key << out[k];
    // The major axis of the space ellipse, either sense.
    EXPECT_TRUE(near(out[3], "major_axis", {major3.x(), major3.y(), major3.z()}, 1e-8) ||
                near(out[3], "major_axis", {-major3.x(), -major3.y(), -major3.z()}, 1e-8));
}

}  // namespace
