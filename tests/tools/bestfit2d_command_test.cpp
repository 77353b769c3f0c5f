// The bestfit2d command: a known motion recovered from every kind of row,
// and bad profiles, rows and arguments.
#include "tools/metrofit/bestfit2d_command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <tuple>

#include "tests/support/tool_files.h"
#include "tools/metrofit/fit_command.h"

namespace {

using namespace metrofit_tool;

struct Outcome {
    int status;
    std::string out, err;
};

Outcome run(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), "bestfit2d");
    std::istringstream in(input);
    std::ostringstream out, err;
    const int status = run_bestfit2d(args, in, out, err);
    return {status, out.str(), err.str()};
}

std::string temp_file(const std::string& name, const std::string& content) {
    return testsupport::temp_file("bestfit2d", name, content);
}

// A square 20 x 20 written clockwise (normals outside) with one rounded
// corner of radius 5 about (15, 15).
const char* kSquare =
    "line 0 0 0 20\nline 0 20 15 20\narc 15 20 18.5355339059327378 18.5355339059327378 20 15\n"
    "line 20 15 20 0\nline 20 0 0 0\n";

const double kTurn = 2.0 * 3.14159265358979323846 / 180.0;

// Points of the square turned by 2 degrees about the origin and shifted by
// (0.3, -0.2), in the row form asked for (2 columns: on the profile; 4 or
// 5: ball centres 1 outside).
std::string points(int columns) {
    const double h = std::sqrt(0.5), a = kTurn, c = std::cos(a), s = std::sin(a);
    const double nominal[][4] = {{0, 5, -1, 0},  {0, 15, -1, 0}, {5, 20, 0, 1},
                                 {10, 20, 0, 1}, {20, 10, 1, 0}, {20, 3, 1, 0},
                                 {15, 0, 0, -1}, {5, 0, 0, -1},  {15 + 5 * h, 15 + 5 * h, h, h}};
    std::ostringstream o;
    o.precision(17);
    for (const auto& p : nominal) {
        const double r = columns == 2 ? 0.0 : 1.0;
        const double x = p[0] + r * p[2], y = p[1] + r * p[3];
        o << c * x - s * y + 0.3 << " " << s * x + c * y - 0.2;
        if (columns >= 4) o << " " << c * p[2] - s * p[3] << " " << s * p[2] + c * p[3];
        if (columns == 5) o << " 1";
        o << "\n";
    }
    return o.str();
}

// The numbers of "key" in the JSON report, up to the next key.
std::vector<double> json(const std::string& text, const std::string& key) {
    std::vector<double> v;
    const std::size_t at = text.find("\"" + key + "\": ");
    if (at == std::string::npos) return v;
    const std::size_t from = at + key.size() + 4;
    const std::string value = text.substr(from, text.find("\": ", from) - from);
    for (const char* p = value.c_str(); *p; ++p) {
        char* end = nullptr;
        const double x = std::strtod(p, &end);
        if (end != p) v.push_back(x), p = end - 1;
    }
    return v;
}

TEST(Bestfit2dCommand, RecoversTheMotionFromEveryRowKind) {
    const std::string contour = temp_file("square.txt", kSquare);
    const double c = std::cos(kTurn), s = std::sin(kTurn);
    for (const int columns : {2, 4, 5}) {
        SCOPED_TRACE(columns);
        std::vector<std::string> args = {"--contour", contour, "-", "--json"};
        if (columns == 4) args.insert(args.end(), {"--probe-radius", "1"});
        const Outcome o = run(args, points(columns));
        ASSERT_EQ(o.status, kExitOk) << o.err;
        const std::vector<double> t = json(o.out, "transform");
        ASSERT_EQ(t.size(), 9u) << o.out;
        // The inverse motion: turn by -2 degrees, then undo the shift.
        EXPECT_NEAR(t[0], c, 1e-9);
        EXPECT_NEAR(t[3], -s, 1e-9);
        EXPECT_NEAR(t[2], -(c * 0.3 + s * -0.2), 1e-8);
        EXPECT_NEAR(t[5], -(-s * 0.3 + c * -0.2), 1e-8);
        EXPECT_LT(json(o.out, "max_distance")[0], 1e-8);
        EXPECT_EQ(json(o.out, "unprojected")[0], 0);
        // Before the fit the points are off by up to the motion's size.
        double worst = 0.0;
        for (double d : json(o.out, "before")) worst = std::max(worst, std::fabs(d));
        EXPECT_GT(worst, 0.1);
    }
}

TEST(Bestfit2dCommand, RefusesBadInput) {
    const std::string contour = temp_file("square.txt", kSquare);
    const std::string gap = temp_file("gap.txt", "line 0 0 10 0\n# a gap\nline 10.5 0 20 0\n");
    const std::string bad = temp_file("bad.txt", "line 0 0 10 0\nspline 1 2\n");
    const std::string open = temp_file("open.txt", "line 0 0 10 0\n");
    const std::tuple<std::vector<std::string>, std::string, int, const char*> cases[] = {
        {{"-"}, "0 0\n", kExitUsage, "needs the nominal profile"},
        {{"--contour", contour, "-", "--lock-origin=0,0", "--lock-axis=1,0"},
         "",
         kExitUsage,
         "exclude each other"},
        {{"--contour", contour, "-", "--lock-axis", "0,0"}, "", kExitUsage, "non-zero length"},
        {{"--contour", contour, "-", "--band", "1,0"}, "", kExitUsage, "LO <= HI"},
        {{"--contour", contour, "-", "--frobnicate"}, "", kExitUsage, "unknown option"},
        {{"--contour", gap, "-"}, "0 0\n", kExitUsage, "line 3: the line does not start where"},
        {{"--contour", bad, "-"}, "0 0\n", kExitUsage, "line 2: unknown element 'spline'"},
        {{"--contour", "/nonexistent/contour.txt", "-"}, "0 0\n", kExitUsage, "cannot open"},
        {{"--contour", contour, "-"}, "1 2 3\n", kExitUsage, "line 1: expected 2, 4 or 5"},
        {{"--contour", contour, "-"}, "1 2 0 0\n", kExitUsage, "line 1: the approximate normal"},
        {{"--contour", contour, "-"}, "1 2 0 1 -1\n", kExitUsage, "line 1: the probe radius"},
        {{"--contour", contour, "-"}, "# nothing\n", kExitRefused, "at least one point"},
        {{"--contour", open, "-"}, "-5 1\n20 1\n", kExitRefused, "no point projects"},
    };
    for (const auto& [args, input, status, message] : cases) {
        const Outcome o = run(args, input);
        EXPECT_EQ(o.status, status) << message << ": " << o.err;
        EXPECT_NE(o.err.find(message), std::string::npos) << o.err;
        EXPECT_TRUE(o.out.empty()) << message;
    }
}

}  // namespace
