#include "tools/metrofit/fit_command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/sampling.h"

namespace {

using namespace metrofit_tool;
using testsupport::kPi;

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

std::string rows(const giPoint3coDynArr& pts) {
    std::ostringstream s;
    s.precision(17);
    for (const giPoint3& p : pts) s << p.x() << ", " << p.y() << ", " << p.z() << "\n";
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

giVector3 vec(const std::vector<double>& v) { return giVector3(v.at(0), v.at(1), v.at(2)); }

// The numbers of "key" in the tool's JSON: one number, or every number up to
// the bracket that closes its array (nested arrays included).
std::vector<double> json_numbers(const std::string& json, const std::string& key) {
    std::vector<double> v;
    const std::size_t at = json.find("\"" + key + "\": ");
    if (at == std::string::npos) return v;
    int depth = 0;
    for (const char* p = json.c_str() + at + key.size() + 4; *p; ++p) {
        char* end = nullptr;
        const double x = std::strtod(p, &end);
        if (end != p) {
            v.push_back(x);
            p = end - 1;
            continue;
        }
        if (*p == '[') ++depth;
        if (*p == ']') --depth;
        if (depth == 0 && (*p == ']' || *p == ',' || *p == '}')) break;
    }
    return v;
}

// The figures of a JSON report on 60 points with noise sigma 0.001: the
// RMS near sigma, a form spanning several sigma, a positive quality.
void expect_noise_figures(const std::string& json) {
    EXPECT_EQ(json_numbers(json, "points").at(0), 60);
    EXPECT_NEAR(json_numbers(json, "rms").at(0), 0.001, 4e-4);
    const double form = json_numbers(json, "form_deviation").at(0);
    EXPECT_GT(form, 2e-3);  // max - min of 60 residuals spans several sigma
    EXPECT_LT(form, 1e-2);
    EXPECT_GT(json_numbers(json, "distribution_quality").at(0), 0.0);
}

// ---- arguments ---------------------------------------------------------------

struct UsageCase {
    std::vector<std::string> args;
    std::string message;
};

class ToolUsage : public ::testing::TestWithParam<UsageCase> {};

TEST_P(ToolUsage, RefusesWithStatusTwoAndSaysWhy) {
    const ToolRun r = run_tool(GetParam().args);
    EXPECT_EQ(r.status, kExitUsage);
    EXPECT_TRUE(r.out.empty());
    EXPECT_NE(r.err.find(GetParam().message), std::string::npos) << r.err;
}

INSTANTIATE_TEST_SUITE_P(
    Tool, ToolUsage,
    ::testing::Values(
        UsageCase{{}, "no command"}, UsageCase{{"fit"}, "needs a feature"},
        UsageCase{{"fit", "sphere"}, "needs a file"},
        UsageCase{{"fits", "sphere", "f"}, "unknown command 'fits'"},
        UsageCase{{"fit", "cube", "f"}, "unknown feature 'cube'"},
        UsageCase{{"fit", "sphere", "f", "g"}, "unexpected argument 'g'"},
        UsageCase{{"fit", "sphere", "f", "--jsn"}, "unknown option '--jsn'"},
        UsageCase{{"fit", "line3", "f", "--probe-radius", "1"}, "line3 has no probed fit"},
        UsageCase{{"fit", "circle3", "f", "--probe-radius=1"}, "circle3 has no probed fit"},
        UsageCase{{"fit", "sphere", "f", "--inside"}, "--inside needs --probe-radius"},
        UsageCase{{"fit", "plane", "f", "--probe-radius", "1", "--inside"}, "does not apply"},
        UsageCase{{"fit", "sphere", "f", "--probe-radius"}, "needs a value"},
        UsageCase{{"fit", "sphere", "f", "--probe-radius", "-1"}, "at least 0"},
        UsageCase{{"fit", "sphere", "f", "--probe-radius", "nan"}, "finite number"},
        UsageCase{{"fit", "sphere", "f", "--probe-radius", "2mm"}, "'2mm'"},
        UsageCase{{"fit", "sphere", "f", "--probe-radius", "1", "--probe-radius", "1"}, "twice"},
        UsageCase{{"fit", "sphere", "/nonexistent/points.txt"}, "cannot open"},
        UsageCase{{"fit", "cylinder", "f", "--axis", "0,0,0"}, "non-zero length"},
        UsageCase{{"fit", "cylinder", "f", "--axis", "1,2"}, "three finite numbers"},
        UsageCase{{"fit", "cylinder", "f", "--axis=1,x,0"}, "three finite numbers"},
        UsageCase{{"fit", "cylinder", "f", "--axis", "1,inf,0"}, "three finite numbers"},
        UsageCase{{"fit", "cylinder", "f", "--axis"}, "--axis needs a value"},
        UsageCase{{"fit", "cylinder", "f", "--axis", "1,0,0", "--axis", "0,1,0"}, "twice"},
        UsageCase{{"fit", "cylinder", "f", "--axis", "0,0,1", "--angle", "0"}, "above 0"},
        UsageCase{{"fit", "cylinder", "f", "--normals", "n", "--angle", "91"}, "at most 90"},
        UsageCase{{"fit", "cylinder", "f", "--angle", "5"}, "needs --axis or --normals"},
        UsageCase{{"fit", "sphere", "f", "--normals", "n"}, "applies to cylinder and cone only"},
        UsageCase{{"fit", "cylinder", "-", "--normals", "-"}, "both come from standard input"},
        UsageCase{{"fit", "cylinder", "f", "--normals", "/nonexistent/n.txt"}, "cannot open"},
        // The cone takes the cylinder's axial options under the same rules.
        UsageCase{{"fit", "cone", "f", "--axis", "0,0,0"}, "non-zero length"},
        UsageCase{{"fit", "cone", "f", "--axis", "0,0,1", "--angle", "90.5"}, "at most 90"},
        UsageCase{{"fit", "cone", "f", "--angle", "5"}, "needs --axis or --normals"},
        UsageCase{{"fit", "cone", "-", "--normals", "-"}, "both come from standard input"},
        UsageCase{{"fit", "cone", "f", "--inside"}, "--inside needs --probe-radius"},
        UsageCase{{"fit", "cones", "f"}, "unknown feature 'cones'"},
        UsageCase{{"fit", "circle3", "f", "--axis", "0,0,1"}, "cylinder and cone only"},
        // The axis of revolution takes its normals from the file, no options.
        UsageCase{{"fit", "axis", "f", "--probe-radius", "1"}, "axis has no probed fit"},
        UsageCase{{"fit", "axis", "f", "--normals", "n"}, "cylinder and cone only, not axis"},
        UsageCase{{"fit", "axis", "f", "--axis", "0,0,1"}, "cylinder and cone only, not axis"}));

TEST(ToolHelp, DescribesEveryFeatureAndTheProbeColumns) {
    const ToolRun r = run_tool({"--help"});
    EXPECT_EQ(r.status, kExitOk);
    for (const char* word :
         {"line2",      "line3",          "plane",       "circle2",    "circle3",        "sphere",
          "cylinder",   "cone",           "apex",        "half_angle", "--probe-radius", "--inside",
          "--json",     "x y z nx ny nz", "--normals",   "--axis",     "--angle",        "axis",
          "surface of", "metrofit hull",  "--inside X,Y"})
        EXPECT_NE(r.out.find(word), std::string::npos) << word;
    EXPECT_EQ(run_tool({"fit", "sphere", "f", "-h"}).status, kExitOk);
    EXPECT_EQ(run_tool({"--version"}).status, kExitOk);
}

// ---- input errors and refusals --------------------------------------------

TEST(ToolInput, BadLineStopsWithItsNumberAndStatusTwo) {
    const ToolRun r = run_tool({"fit", "plane", "-"}, "0 0 0\n1 0 0\n# note\n0 1 inf\n1 1 0\n");
    EXPECT_EQ(r.status, kExitUsage);
    EXPECT_TRUE(r.out.empty());
    EXPECT_NE(r.err.find("-: line 4: value is not finite: 'inf'"), std::string::npos) << r.err;

    // A probed plane needs six numbers a line; plain coordinates are not
    // taken for it.
    const ToolRun columns = run_tool({"fit", "plane", "-", "--probe-radius", "1"}, "0 0 0\n");
    EXPECT_EQ(columns.status, kExitUsage);
    EXPECT_NE(columns.err.find("expected 6 numbers (x y z nx ny nz), found 3"), std::string::npos);

    const ToolRun zero =
        run_tool({"fit", "line2", "-", "--probe-radius", "1"}, "0 1 0 1\n1 1 0 1\n2 1 0 0\n");
    EXPECT_EQ(zero.status, kExitUsage);
    EXPECT_NE(zero.err.find("line 3: contact direction has no length"), std::string::npos);
}

TEST(ToolInput, RefusedFitGivesStatusOneAndAReason) {
    const ToolRun few = run_tool({"fit", "sphere", "-"}, "0 0 1\n0 1 0\n1 0 0\n");
    EXPECT_EQ(few.status, kExitRefused);
    EXPECT_TRUE(few.out.empty());
    EXPECT_NE(few.err.find("needs at least 4 points; the file has 3"), std::string::npos)
        << few.err;
    const ToolRun cone =
        run_tool({"fit", "cone", "-"}, rows(testsupport::plane_points(5, 1, 2, 0, 4)));
    EXPECT_EQ(cone.status, kExitRefused);
    EXPECT_NE(cone.err.find("needs at least 6 points; the file has 5"), std::string::npos);
    const ToolRun none = run_tool({"fit", "line2", "-", "--json"}, "# empty\n");
    EXPECT_EQ(none.status, kExitRefused);
    EXPECT_NE(none.err.find("the file has 0"), std::string::npos);
}

TEST(ToolInput, SetThatHardlyFixesTheFeatureWarns) {
    // Collinear points fit a plane (status 1) but fix no normal: the report
    // is printed, and a warning goes to standard error.
    const ToolRun r = run_tool({"fit", "plane", "-"}, "0 0 0\n1 1 1\n2 2 2\n");
    EXPECT_EQ(r.status, kExitOk);
    EXPECT_NE(r.out.find("quality"), std::string::npos);
    EXPECT_NE(r.err.find("warning"), std::string::npos) << r.err;
}

// ---- fits ------------------------------------------------------------------

TEST(ToolFit, SphereReportIsTheFitAndDeterministic) {
    const giPoint3 c(10, -20, 30);
    const std::string input = rows(testsupport::sphere_points(60, c, 25.0, 120.0, 0.001, 41));
    const ToolRun r = run_tool({"fit", "sphere", "-", "--json"}, input);
    ASSERT_EQ(r.status, kExitOk) << r.err;
    EXPECT_TRUE(r.err.empty());
    const std::vector<double> centre = json_numbers(r.out, "centre");
    ASSERT_EQ(centre.size(), 3u);
    // Centre and radius within a few sigma / sqrt(n) of the truth, the cap's
    // weaker axis included (sigma 0.001, n = 60).
    EXPECT_NEAR(centre[0], 10.0, 2e-3);
    EXPECT_NEAR(centre[1], -20.0, 2e-3);
    EXPECT_NEAR(centre[2], 30.0, 2e-3);
    EXPECT_NEAR(json_numbers(r.out, "radius").at(0), 25.0, 2e-3);
    const double rms = json_numbers(r.out, "rms").at(0);
    const double form = json_numbers(r.out, "form_deviation").at(0);
    EXPECT_NEAR(rms, 0.001, 0.0004);
    EXPECT_GT(form, 2.0 * rms);  // max - min of 60 residuals spans several sigma
    EXPECT_LT(form, 10.0 * rms);
    const double q = json_numbers(r.out, "distribution_quality").at(0);
    EXPECT_GT(q, 0.0);
    EXPECT_LT(q, 1.0);
    EXPECT_EQ(run_tool({"fit", "sphere", "-", "--json"}, input).out, r.out);

    const ToolRun human = run_tool({"fit", "sphere", "-"}, input);
    ASSERT_EQ(human.status, kExitOk);
    for (const char* label :
         {"feature   sphere", "points    60", "centre", "radius", "rms", "form", "quality"})
        EXPECT_NE(human.out.find(label), std::string::npos) << label;
}

// Probe centres at R + rho (outside) or R - rho (inside) from the centre:
// the tool reports the touched radius R, with residuals near zero.
TEST(ToolFit, ProbedSphereAndCircleReportTheTouchedSurface) {
    const double R = 20.0, rho = 1.5;
    for (const bool inside : {false, true}) {
        const double centres_at = inside ? R - rho : R + rho;
        std::vector<std::string> args = {"fit", "sphere", "-", "--json", "--probe-radius", "1.5"};
        if (inside) args.push_back("--inside");
        const ToolRun s = run_tool(
            args, rows(testsupport::sphere_points(50, giPoint3(1, 2, 3), centres_at, 150, 0, 7)));
        ASSERT_EQ(s.status, kExitOk) << s.err;
        EXPECT_NEAR(json_numbers(s.out, "radius").at(0), R, 1e-9);
        EXPECT_LT(json_numbers(s.out, "form_deviation").at(0), 1e-9);

        args[1] = "circle2";
        const ToolRun c = run_tool(
            args, rows(testsupport::circle_points2(30, giPoint2(-4, 9), centres_at, 200, 0, 8)));
        ASSERT_EQ(c.status, kExitOk) << c.err;
        const std::vector<double> centre = json_numbers(c.out, "centre");
        EXPECT_NEAR(json_numbers(c.out, "radius").at(0), R, 1e-9);
        EXPECT_NEAR(centre.at(0), -4.0, 1e-9);
        EXPECT_NEAR(centre.at(1), 9.0, 1e-9);
        EXPECT_LT(json_numbers(c.out, "form_deviation").at(0), 1e-9);

        args[1] = "cylinder";
        const ToolRun y =
            run_tool(args, rows(testsupport::cylinder_points(40, centres_at, 30, 300, 0, 9)));
        ASSERT_EQ(y.status, kExitOk) << y.err;
        EXPECT_NEAR(json_numbers(y.out, "radius").at(0), R, 1e-9);
        EXPECT_LT(json_numbers(y.out, "form_deviation").at(0), 1e-9);
        EXPECT_NE(y.out.find(inside ? "\"inside\": true" : "\"inside\": false"), std::string::npos);
    }
}

// A 270-degree cylinder moved 1e3 from the origin and turned: the tool
// reports its radius, its axis (in the sense of --axis) and the point of
// the axis level with the points' centroid; an --axis far from the fit
// draws a warning.
TEST(ToolFit, CylinderRecoversAxisRadiusAndCentroidFoot) {
    const giXform3 t = testsupport::random_motion(40.0, 1e3, 12);
    const giPoint3coDynArr pts =
        testsupport::transformed(t, testsupport::cylinder_points(60, 12.5, 40, 270, 0.001, 13));
    const giUnitVec3 axis = t * giUnitVec3(0, 0, 1);
    const giPoint3 on_axis = t * giPoint3(giOrigin);
    giVector3 centroid(0, 0, 0);
    for (const giPoint3& q : pts) centroid += (q - on_axis) / pts.size();
    for (const double sense : {1.0, -1.0}) {
        const ToolRun r =
            run_tool({"fit", "cylinder", "-", "--json", "--axis", arg(sense * axis)}, rows(pts));
        ASSERT_EQ(r.status, kExitOk) << r.err;
        EXPECT_TRUE(r.err.empty()) << r.err;
        // Axis within 1e-4 rad (noise 0.001 over a length of 40), in the
        // sense asked for; the point on the true axis, level with the
        // centroid (a few sigma / sqrt(n)).
        EXPECT_GT(dot(vec(json_numbers(r.out, "axis")), sense * axis), std::cos(1e-4));
        const giVector3 at =
            vec(json_numbers(r.out, "point")) - giVector3(on_axis.x(), on_axis.y(), on_axis.z());
        EXPECT_LT(cross(axis, at).length(), 2e-3);
        EXPECT_NEAR(dot(axis, at - centroid), 0.0, 2e-3);
        EXPECT_NEAR(json_numbers(r.out, "radius").at(0), 12.5, 1e-3);
        expect_noise_figures(r.out);
    }
    const ToolRun off =
        run_tool({"fit", "cylinder", "-", "--axis", arg(axis.any_normal())}, rows(pts));
    EXPECT_EQ(off.status, kExitOk);
    EXPECT_NE(off.out.find("radius    12.5"), std::string::npos) << off.out;
    EXPECT_NE(off.err.find("beyond the 10 degrees"), std::string::npos) << off.err;
}

// Fits the points of `feature` (a cylinder or cone, size its radius or half
// angle) with normals derived from their outward ones, case by case.
void check_normals_against(const std::string& feature, const giPoint3coDynArr& pts,
                           const giUnitVec3coDynArr& outward, double size) {
    PointTable table;
    std::string error;
    std::istringstream point_rows(rows(pts));
    ASSERT_TRUE(read_point_table(point_rows, 3, "x y z", table, error));
    Options o;
    ASSERT_EQ(parse_options({"fit", feature, "p", "--normals", "n"}, o, error), kExitOk);
    struct Case {
        double sense;  // normals outward (1), inward (-1) or along the axis (0)
        int count;
        bool zero_first;
        int status;
        std::string says;
    };
    const Case cases[] = {{1, 40, false, kExitOk, ""},
                          {-1, 40, false, kExitOk, ""},
                          {0, 40, false, kExitOk, "not all within 10 degrees"},
                          {1, 39, false, kExitUsage, "has 39 normals for 40 points"},
                          {1, 40, true, kExitUsage, "line 1 of the normals file 'n'"}};
    for (const Case& c : cases) {
        giPoint3coDynArr tips;
        for (int i = 0; i < c.count; ++i) {
            const giVector3 n = c.sense == 0 ? giVector3(0, 0, 1) : c.sense * outward[i];
            tips.append(c.zero_first && i == 0 ? giPoint3(0, 0, 0) : giPoint3(n.x(), n.y(), n.z()));
        }
        std::istringstream normal_rows(rows(tips));
        PointTable normals;
        ASSERT_TRUE(read_point_table(normal_rows, 3, "nx ny nz", normals, error));
        FitReport report;
        std::string message;
        ASSERT_EQ(fit_table(o, table, normals, report, message), c.status) << message;
        std::string said = message;
        for (const std::string& w : report.warnings) said += w;
        EXPECT_EQ(said.empty(), c.says.empty()) << said;
        EXPECT_NE(said.find(c.says), std::string::npos) << said;
        if (c.status == kExitOk) {
            EXPECT_NEAR(report.parameters.at(2).second.at(0), size, 1e-9);
        }
    }
}

// Normals are matched to the points by order: a shaft's or a bore's fit
// (a pin's or a countersink's for a cone) without remark, normals the fit
// cannot follow with a warning, a count or a zero normal that cannot belong
// to the points with status 2.
TEST(ToolFit, AxialNormalsMustBelongToThePoints) {
    for (const std::string feature : {"cylinder", "cone"}) {
        SCOPED_TRACE(feature);
        giUnitVec3coDynArr outward;
        // A cone of half angle 30: its normals lie 60 degrees off the axis.
        const bool cone = feature == "cone";
        const giPoint3coDynArr pts =
            cone ? testsupport::cone_points(40, 30, 10, 30, 300, 0, 22, &outward)
                 : testsupport::cylinder_points(40, 5, 20, 300, 0, 21, &outward);
        check_normals_against(feature, pts, outward, cone ? 30.0 : 5.0);
    }
    // The same through the command line, normals on standard input.
    const std::string sample = std::string(METROFIT_TEST_DATA_DIR) + "/../../examples/cylinder.txt";
    const ToolRun r = run_tool({"fit", "cylinder", sample, "--normals", "-"}, "1 0 0\n0 1 0\n");
    EXPECT_EQ(r.status, kExitUsage);
    EXPECT_NE(r.err.find("has 2 normals for 40 points"), std::string::npos) << r.err;
}

// A 300-degree frustum (slant 10 to 40 from the apex, half angle 25) turned
// and moved 1e3 from the origin: the tool reports the apex, the axis from
// the apex into the cone (or in the sense of --axis) and the half angle in
// degrees; an --axis across the true one draws a warning.
TEST(ToolFit, ConeRecoversApexAxisSenseAndHalfAngle) {
    const giXform3 t = testsupport::random_motion(50.0, 1e3, 31);
    const giPoint3coDynArr pts =
        testsupport::transformed(t, testsupport::cone_points(60, 25, 10, 40, 300, 0.001, 32));
    const giVector3 apex = t * giPoint3(giOrigin) - giPoint3(giOrigin);
    const giUnitVec3 into = t * giUnitVec3(0, 0, -1);  // from the apex towards the points
    const std::vector<std::string> no_axis, along = {"--axis", arg(into)},
                                            against = {"--axis", arg(-1.0 * into)};
    for (const auto& [extra, sense] : {std::pair(no_axis, 1.0), {along, 1.0}, {against, -1.0}}) {
        std::vector<std::string> args = {"fit", "cone", "-", "--json"};
        args.insert(args.end(), extra.begin(), extra.end());
        const ToolRun r = run_tool(args, rows(pts));
        ASSERT_EQ(r.status, kExitOk) << r.err;
        EXPECT_TRUE(r.err.empty()) << r.err;
        // Axis within 1e-4 rad and the half angle within 5e-5 rad (a few
        // sigma / sqrt(n) over a slant of 30, sigma 0.001, n = 60); the apex,
        // extrapolated 10 beyond the points, within a few times that lever.
        EXPECT_GT(dot(vec(json_numbers(r.out, "axis")), sense * into), std::cos(1e-4));
        EXPECT_LT((vec(json_numbers(r.out, "apex")) - apex).length(), 4e-3);
        EXPECT_NEAR(json_numbers(r.out, "half_angle").at(0), 25.0, 3e-3);
        expect_noise_figures(r.out);
    }
    const ToolRun off = run_tool({"fit", "cone", "-", "--axis", arg(into.any_normal())}, rows(pts));
    EXPECT_EQ(off.status, kExitOk);
    EXPECT_NE(off.out.find("half_angle 2"), std::string::npos) << off.out;
    EXPECT_NE(off.err.find("no cone within the limit"), std::string::npos) << off.err;
}

// Ball centres rho off a cone along its normals, outside (a tapered pin)
// or inside (a countersink): the tool reports the touched cone, not the
// cone of the centres, whose apex lies rho / sin(30 deg) = 4 along the axis.
TEST(ToolFit, ProbedConeReportsTheTouchedSurface) {
    const double rho = 2.0;
    giUnitVec3coDynArr outward;
    const giPoint3coDynArr surface = testsupport::cone_points(40, 30, 10, 40, 300, 0, 33, &outward);
    for (const bool inside : {false, true}) {
        giPoint3coDynArr centres;
        for (int i = 0; i < surface.size(); ++i)
            centres.append(surface[i] + (inside ? -rho : rho) * outward[i]);
        std::vector<std::string> args = {"fit", "cone", "-", "--json", "--probe-radius", "2"};
        if (inside) args.push_back("--inside");
        const ToolRun r = run_tool(args, rows(centres));
        ASSERT_EQ(r.status, kExitOk) << r.err;
        // Exact data: the touched cone to rounding over a size of 40.
        EXPECT_LT(vec(json_numbers(r.out, "apex")).length(), 1e-8);
        EXPECT_LT(json_numbers(r.out, "axis").at(2), -1.0 + 1e-12);  // into the cone: -z
        EXPECT_NEAR(json_numbers(r.out, "half_angle").at(0), 30.0, 1e-8);
        EXPECT_LT(json_numbers(r.out, "form_deviation").at(0), 1e-8);
        EXPECT_NE(r.out.find(inside ? "\"inside\": true" : "\"inside\": false"), std::string::npos);
    }
}

// Probe centres rho above the plane z = 1 (or the line y = 2), contact
// directions along +z (+y) with some length: the tool reports the touched
// plane with its normal towards the probe.
TEST(ToolFit, ProbedPlaneAndLineFollowTheContactDirections) {
    const double rho = 0.5;
    std::ostringstream plane, line;
    plane.precision(17);
    line.precision(17);
    testsupport::Rng rng(3);
    double mean_x = 0.0, mean_y = 0.0;
    for (int i = 0; i < 20; ++i) {
        const double x = rng.uniform(-10, 10), y = rng.uniform(-10, 10);
        mean_x += x / 20;
        mean_y += y / 20;
        plane << x << " " << y << " " << 1.0 + rho << " 0 0 " << 2.0 + i << "\n";
        line << x << ", " << 2.0 + rho << ", 0, " << 0.5 + i << "\n";
    }
    const ToolRun p =
        run_tool({"fit", "plane", "-", "--probe-radius", "0.5", "--json"}, plane.str());
    ASSERT_EQ(p.status, kExitOk) << p.err;
    const std::vector<double> n = json_numbers(p.out, "normal"), at = json_numbers(p.out, "point");
    EXPECT_NEAR(n.at(2), 1.0, 1e-12);
    // The point reported is the foot of the probe centres' centroid.
    EXPECT_NEAR(at.at(0), mean_x, 1e-9);
    EXPECT_NEAR(at.at(1), mean_y, 1e-9);
    EXPECT_NEAR(at.at(2), 1.0, 1e-9);
    EXPECT_LT(json_numbers(p.out, "form_deviation").at(0), 1e-9);

    const ToolRun l =
        run_tool({"fit", "line2", "-", "--probe-radius", "0.5", "--json"}, line.str());
    ASSERT_EQ(l.status, kExitOk) << l.err;
    EXPECT_NEAR(json_numbers(l.out, "normal").at(1), 1.0, 1e-12);
    EXPECT_NEAR(std::fabs(json_numbers(l.out, "direction").at(0)), 1.0, 1e-12);
    EXPECT_NEAR(json_numbers(l.out, "point").at(0), mean_x, 1e-9);
    EXPECT_NEAR(json_numbers(l.out, "point").at(1), 2.0, 1e-9);
    EXPECT_LT(json_numbers(l.out, "form_deviation").at(0), 1e-9);
}

TEST(ToolFit, FormDeviationSpansTheResiduals) {
    // A square of side 10 in z = 0 with one corner raised by 0.4: the plane
    // fit tilts, and form = max - min of the signed residuals.
    const ToolRun r =
        run_tool({"fit", "plane", "-", "--json"}, "0 0 0\n10 0 0\n0 10 0\n10 10 0.4\n");
    ASSERT_EQ(r.status, kExitOk);
    // Residuals +-0.1 alternate around the corners (a twisted quadrilateral).
    EXPECT_NEAR(json_numbers(r.out, "form_deviation").at(0), 0.2, 1e-3);
    EXPECT_NEAR(json_numbers(r.out, "rms").at(0), 0.1, 1e-3);

    // Points 0.1 off the x axis, placed so that the fitted line is the x
    // axis itself: form is twice the largest distance, the zone's diameter.
    const ToolRun l =
        run_tool({"fit", "line3", "-", "--json"}, "0 0.1 0\n10 -0.1 0\n20 -0.1 0\n30 0.1 0\n");
    ASSERT_EQ(l.status, kExitOk);
    EXPECT_NEAR(json_numbers(l.out, "form_deviation").at(0), 0.2, 1e-12);
    EXPECT_NEAR(json_numbers(l.out, "rms").at(0), 0.1, 1e-12);
}

// ---- axis of a surface of revolution ----------------------------------------

// Points and normals as the axis fit reads them: x y z nx ny nz, each normal
// scaled by `scale[i % 3]` (any length, either sense).
std::string rows_with_normals(const giPoint3coDynArr& pts, const giUnitVec3coDynArr& normals,
                              const std::vector<double>& scale = {1.0}) {
    std::ostringstream s;
    s.precision(17);
    for (int i = 0; i < pts.size(); ++i) {
        const giVector3 n = scale[i % scale.size()] * giVector3(normals[i]);
        s << pts[i].x() << " " << pts[i].y() << " " << pts[i].z() << " " << n.x() << " " << n.y()
          << " " << n.z() << "\n";
    }
    return s.str();
}

// A 300-degree frustum with exact normals of assorted lengths and senses,
// its axis (+z) turned to directions whose largest component has either
// sign, and moved 1e3 or more: every normal line meets the true axis, which
// the tool reports with its largest component positive, through the foot of
// the points' centroid.
TEST(ToolFit, AxisOfRevolutionRecoversAKnownAxis) {
    giUnitVec3coDynArr local;
    const giPoint3coDynArr cone = testsupport::cone_points(40, 30, 10, 40, 300, 0, 51, &local);
    const giVector3 z(0, 0, 1);
    for (const giVector3& d : {giVector3(0.3, 0.1, -0.95), giVector3(-0.9, 0.2, 0.3),
                               giVector3(0.2, -0.7, -0.5), giVector3(0.6, -0.7, 0.4)}) {
        const giXform3 t =
            giXform3::translation(giVector3(1e3, -2e3, 500)) *
            giXform3::rotation(giPoint3(giOrigin), cross(z, d),
                               giAngle(giANGLE_RADIANS, std::acos(dot(z, d) / d.length())));
        const giPoint3coDynArr pts = testsupport::transformed(t, cone);
        giUnitVec3coDynArr normals;
        for (const giUnitVec3& n : local) normals.append(t * n);
        const std::string input = rows_with_normals(pts, normals, {1.0, -2.5, 0.01});
        const ToolRun r = run_tool({"fit", "axis", "-", "--json"}, input);
        ASSERT_EQ(r.status, kExitOk) << r.err;
        EXPECT_TRUE(r.err.empty()) << r.err;
        EXPECT_EQ(json_numbers(r.out, "points").at(0), 40);
        const giVector3 axis = vec(json_numbers(r.out, "axis")), truth = t * giUnitVec3(0, 0, 1);
        EXPECT_NEAR(axis.length(), 1.0, 1e-12);
        EXPECT_LT(cross(axis, truth).length(), 1e-9);
        const double largest =
            std::max({std::fabs(axis.x()), std::fabs(axis.y()), std::fabs(axis.z())});
        EXPECT_TRUE(largest == axis.x() || largest == axis.y() || largest == axis.z()) << r.out;
        // On the true axis (through the moved apex), level with the centroid.
        const giVector3 at = vec(json_numbers(r.out, "point"));
        EXPECT_LT(cross(at - (t * giPoint3(giOrigin) - giPoint3(giOrigin)), truth).length(), 1e-7);
        giVector3 centroid(0, 0, 0);
        for (const giPoint3& p : pts) centroid += (1.0 / pts.size()) * (p - giPoint3(giOrigin));
        EXPECT_NEAR(dot(at - centroid, truth), 0.0, 1e-7);
        EXPECT_LT(json_numbers(r.out, "rms").at(0), 1e-9);
        // No form nor quality: they have no meaning for an axis.
        EXPECT_EQ(r.out.find("form_deviation"), std::string::npos);
        EXPECT_EQ(r.out.find("distribution_quality"), std::string::npos);
        EXPECT_EQ(run_tool({"fit", "axis", "-", "--json"}, input).out, r.out);
    }
    // The text report of the frustum in place.
    const ToolRun human = run_tool({"fit", "axis", "-"}, rows_with_normals(cone, local));
    ASSERT_EQ(human.status, kExitOk);
    for (const char* label : {"feature   axis", "points    40", "point ", "axis  ", "rms"})
        EXPECT_NE(human.out.find(label), std::string::npos) << label;
    EXPECT_EQ(human.out.find("quality"), std::string::npos);
}

TEST(ToolFit, AxisOfRevolutionRefusesBadRowsAndTooFewPoints) {
    struct Case {
        std::string input;
        int status;
        std::string message;
    };
    const Case cases[] = {
        {"0 0 0 1 0 0\n1 0 0\n", kExitUsage,
         "line 2: expected 6 numbers (x y z nx ny nz), found 3"},
        {"0 0 0 1 0 0\n# c\n1 0 0 0 0 0\n", kExitUsage, "line 3: surface normal has no length"},
        {"1 0 0 1 0 0\n0 1 0 0 1 0\n-1 0 0 -1 0 0\n0 -1 0 0 -1 0\n1 0 1 1 0 0\n", kExitRefused,
         "the axis fit needs at least 6 points; the file has 5"},
    };
    for (const Case& c : cases) {
        const ToolRun r = run_tool({"fit", "axis", "-"}, c.input);
        EXPECT_EQ(r.status, c.status) << c.input;
        EXPECT_TRUE(r.out.empty());
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
}

// Every sample file in examples/ fits close to the feature its comment
// names (the files carry noise of a few micrometres).
TEST(ToolFit, SampleFilesFitTheirStatedFeatures) {
    const std::string dir = std::string(METROFIT_TEST_DATA_DIR) + "/../../examples/";
    struct Expect {
        const char* feature;
        const char* key;
        std::vector<double> value;
        double tol;
        bool either_sense = false;  // a direction or normal without a fixed sense
    };
    const double s30 = std::sin(kPi / 6), c30 = std::cos(kPi / 6);
    const Expect cases[] = {
        {"sphere", "centre", {10, -20, 30}, 0.02},
        {"sphere", "radius", {25}, 0.02},
        {"circle2", "centre", {50, 20}, 0.005},
        {"circle2", "radius", {12.5}, 0.005},
        {"circle3", "centre", {100, 50, 20}, 0.01},
        {"circle3", "radius", {30}, 0.01},
        {"plane", "normal", {0.049928, -0.019971, 0.998553}, 1e-4, true},
        {"line2", "direction", {c30, s30}, 1e-4, true},
        {"line3", "direction", {1.0 / 3, 2.0 / 3, 2.0 / 3}, 1e-4, true},
        {"cylinder", "point", {100, 50, 20}, 0.005},
        {"cylinder", "axis", {-0.309426, 0.206284, 0.928279}, 1e-4, true},
        {"cylinder", "radius", {12.5}, 0.005},
        // The apex lies 15 below the nearest ring: it moves most with the noise.
        {"cone", "apex", {10, 20, 30}, 0.02},
        {"cone", "axis", {0.436436, -0.218218, 0.872872}, 3e-4},  // from the apex into the cone
        {"cone", "half_angle", {20}, 0.01},
        {"axis", "axis", {0.182574, -0.365148, 0.912871}, 2e-4},
        {"axis", "point", {7.738613, -8.477226, 25.693065}, 1e-3},  // 15 along from (5, -3, 12)
    };
    for (const Expect& e : cases) {
        const ToolRun r = run_tool({"fit", e.feature, dir + e.feature + ".txt", "--json"});
        ASSERT_EQ(r.status, kExitOk) << e.feature << ": " << r.err;
        std::vector<double> got = json_numbers(r.out, e.key);
        ASSERT_EQ(got.size(), e.value.size()) << e.feature;
        double sense = 1.0;
        if (e.either_sense) {
            double d = 0.0;
            for (std::size_t k = 0; k < got.size(); ++k) d += got[k] * e.value[k];
            sense = d < 0 ? -1.0 : 1.0;
        }
        for (std::size_t k = 0; k < got.size(); ++k)
            EXPECT_NEAR(sense * got[k], e.value[k], e.tol) << e.feature << " " << e.key;
        EXPECT_LT(json_numbers(r.out, "rms").at(0), 0.01) << e.feature;
    }
}

// ---- hull --------------------------------------------------------------------

// The square [0, 4]^2 shuffled with an inner point and its edges' midpoints.
// The pivot is (4, 0), the lowest and rightmost; the midpoints of the right,
// top and left sides stay as vertices, the one on the edge that closes the
// hull back to the pivot does not.
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
    // Points on one line, one repeated: each distinct point once, from the pivot.
    EXPECT_EQ(
        json_numbers(run_tool({"hull", "-", "--json"}, "3 3\n1 1\n0 0\n2 2\n1 1\n").out, "hull"),
        (std::vector<double>{0, 0, 1, 1, 2, 2, 3, 3}));
    // A chain of points 6e-13 apart: the hull keeps its ends (1.2e-12 apart),
    // the indices only its first point, and the tool says that they differ.
    const ToolRun chain = run_tool({"hull", "-", "--json"},
                                   "1 0\n1 1\n0 1\n0 1.0000000000006\n0 1.0000000000012\n0 0\n");
    EXPECT_EQ(json_numbers(chain.out, "hull").size(), 10u);
    EXPECT_EQ(json_numbers(chain.out, "indices"), (std::vector<double>{0, 1, 4, 5}));
    EXPECT_NE(chain.err.find("indices do not match the vertices"), std::string::npos) << chain.err;
}

TEST(ToolHull, InsideSaysWhereThePointLies) {
    const std::pair<const char*, const char*> cases[] = {
        {"2,2", "inside"}, {"3.9,0.1", "inside"}, {"4 2", "vertex"},      {"2,0", "edge"},
        {"1,4", "edge"},   {"5,1", "outside"},    {"-0.001,2", "outside"}};
    for (const auto& [point, position] : cases) {
        const ToolRun r = run_tool({"hull", "-", "--inside", point}, kSquare);
        EXPECT_NE(r.out.find(std::string(": ") + position + "\n"), std::string::npos) << point;
        const ToolRun j =
            run_tool({"hull", "-", "--json", std::string("--inside=") + point}, kSquare);
        EXPECT_NE(j.out.find(std::string("\"position\": \"") + position), std::string::npos)
            << point;
        EXPECT_EQ(json_numbers(j.out, "query"), option_numbers(point));
    }
}

TEST(ToolHull, RefusesBadArgumentsAndInput) {
    const struct {
        std::vector<std::string> args;
        std::string input, message;
        int status;
    } cases[] = {
        {{"hull"}, "", "hull needs a file", kExitUsage},
        {{"hull", "-", "--inside", "1"}, "", "two finite numbers X,Y, not '1'", kExitUsage},
        {{"hull", "-", "--inside", "1,2", "--inside", "1,2"}, "", "twice", kExitUsage},
        {{"hull", "-", "--probe-radius", "1"}, "", "unknown option '--probe-radius'", kExitUsage},
        {{"hull", "-"}, "0 0\n1 0\n0 1 2\n", "-: line 3: expected 2 numbers (x y)", kExitUsage},
        {{"hull", "-"}, "# no points\n", "at least one point; the file has 0", kExitRefused},
        {{"hulls", "-"}, "", "the commands are 'fit', 'hull' and 'align'", kExitUsage},
    };
    for (const auto& c : cases) {
        const ToolRun r = run_tool(c.args, c.input);
        EXPECT_EQ(r.status, c.status) << c.message;
        EXPECT_TRUE(r.out.empty()) << r.out;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }
}

}  // namespace
