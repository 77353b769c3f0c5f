// The bestfit command: a known motion of points on a box mesh recovered with
// every kind of row, near and far, and bad surfaces, rows and arguments.
#include "tools/metrofit/bestfit_command.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <tuple>

#include "metrofit/platform/geometry/xform.h"
#include "tests/support/random.h"
#include "tests/support/tool_files.h"
#include "tools/metrofit/fit_command.h"

namespace {

using namespace metrofit_tool;

struct Outcome {
    int status;
    std::string out, err;
};

Outcome run(std::vector<std::string> args, const std::string& input) {
    args.insert(args.begin(), "bestfit");
    std::istringstream in(input);
    std::ostringstream out, err;
    const int status = run_bestfit(args, in, out, err);
    return {status, out.str(), err.str()};
}

std::string temp_file(const std::string& name, const std::string& content) {
    return testsupport::temp_file("bestfit", name, content);
}

// The box mesh moved by `at`, in a file.
std::string box_file(const giVector3& at = giVector3(0, 0, 0)) {
    return temp_file("box.stl", testsupport::box_stl(at.x(), at.y(), at.z()));
}

// The numbers of "key" in the JSON report (its value ends at the next key).
std::vector<double> json(const std::string& text, const std::string& key) {
    std::vector<double> v;
    const std::size_t at = text.find("\"" + key + "\": ");
    if (at == std::string::npos) return v;
    const std::size_t from = at + key.size() + 4;
    const std::string value = text.substr(from, text.find('"', from) - from);
    for (const char* p = value.c_str(); *p; ++p) {
        char* end = nullptr;
        const double x = std::strtod(p, &end);
        if (end != p) v.push_back(x), p = end - 1;
    }
    return v;
}

giXform3 transform(const std::string& text) {
    const std::vector<double> m = json(text, "transform");
    return m.size() == 16 ? giXform3(utConvert, m.data()) : giXform3();
}

// Points on the faces of the box at `at` (kept 3 from the edges), moved by
// `motion`: cycling through surface points (x y z), probe centres 1 out
// with the approximate normal (x y z nx ny nz, for --probe-radius 1) and
// centres 2 out with their radius (x y z nx ny nz 2). `feet` gets the
// nominal surface points.
std::string rows(const giXform3& motion, std::vector<giPoint3>& feet,
                 const giVector3& at = giVector3(0, 0, 0)) {
    testsupport::Rng rng(7);
    std::ostringstream s;
    s.precision(17);
    const double size[3] = {40, 30, 20};
    for (int i = 0; i < 36; ++i) {
        const int axis = i % 3, side = i / 3 % 2;
        double p[3], n[3] = {0, 0, 0};
        for (int c = 0; c < 3; ++c) p[c] = rng.uniform(3, size[c] - 3);
        p[axis] = side * size[axis];
        n[axis] = side ? 1 : -1;
        const giPoint3 foot = giPoint3(p[0], p[1], p[2]) + at;
        const giVector3 normal(n[0], n[1], n[2]);
        const int kind = i / 6 % 3;
        const giPoint3 q = motion * (foot + normal * double(kind));
        const giVector3 m = motion * normal;
        s << q.x() << " " << q.y() << " " << q.z();
        if (kind > 0) s << " " << m.x() << " " << m.y() << " " << m.z();
        s << (kind == 2 ? " 2\n" : "\n");
        feet.push_back(foot);
    }
    return s.str();
}

TEST(BestfitCommand, RecoversAKnownMotionOnABoxMesh) {
    for (const giVector3 at : {giVector3(0, 0, 0), giVector3(1e3, -2e3, 5e2)}) {
        const std::string stl = box_file(at);
        const giXform3 motion = giXform3(giVector3(0.2, -0.1, 0.15)) *
                                giXform3::rotation(giPoint3(20, 15, 10) + at, giVector3(1, 2, -2),
                                                   giAngle(giANGLE_DEGREES, 0.4));
        std::vector<giPoint3> feet;
        const std::string input = rows(motion, feet, at);
        for (const char* band : {"-1,1", ""}) {
            std::vector<std::string> args = {"-", "--surface", stl, "--probe-radius",
                                             "1", "--json"};
            if (*band) args.insert(args.end(), {"--band", band});
            const Outcome r = run(args, input);
            ASSERT_EQ(r.status, kExitOk) << r.err;
            const giXform3 T = transform(r.out);
            for (const giPoint3& p : feet) EXPECT_LT((T * (motion * p) - p).length(), 1e-6);
            EXPECT_LT(json(r.out, "max_distance").at(0), 1e-6);
            EXPECT_EQ(json(r.out, "unprojected"), std::vector<double>{0});
            EXPECT_EQ(json(r.out, "overdetermined"), std::vector<double>{0});
            EXPECT_EQ(run(args, input).out, r.out);  // bit for bit again
        }
    }
}

TEST(BestfitCommand, RefusesBadSurfacesRowsAndArguments) {
    const std::string box = box_file();
    const std::string empty = temp_file("empty.stl", "");
    const std::string cut = temp_file("cut.stl", "solid x\nfacet normal 0 0 1\nouter loop\n");
    const std::string two = temp_file("two.txt", "0 0 0 0 0 0\n1 0 0 1 0 0\n");
    const std::string bad = temp_file("bad.txt", "0 0 0 0 0 0\n1 0 0 1 0\n");
    const auto on = [&](std::vector<std::string> more) {
        more.insert(more.begin(), {"-", "--surface", box});
        return more;
    };
    const std::tuple<std::vector<std::string>, const char*, int, const char*> cases[] = {
        {{"-", "--surface", empty}, "1 1 0\n", kExitRefused, "empty"},
        {{"-", "--surface", cut}, "1 1 0\n", kExitRefused, "ASCII STL"},
        {{"-", "--surface", "/nonexistent/box.stl"}, "1 1 0\n", kExitRefused, "cannot open"},
        {on({}), "# none\n", kExitRefused, "at least one point; the file has 0"},
        {on({}), "50 35 10\n", kExitRefused, "no point projects"},
        {on({}), "1 1 0\n1 2 3 4\n", kExitUsage, "line 2: expected 3, 6 or 7"},
        {on({}), "1 1 0 0 0 0\n", kExitUsage, "line 1: the approximate normal"},
        {on({}), "1 1 0 0 0 1 -1\n", kExitUsage, "radius must be at least 0"},
        {on({}), "1 nan 0\n", kExitUsage, "line 1: value is not finite"},
        {{"-"}, "", kExitUsage, "needs the nominal surface"},
        {{"--surface", box}, "", kExitUsage, "bestfit needs a file"},
        {on({"--band", "1,0"}), "", kExitUsage, "LO <= HI"},
        {on({"--lock-axis", "0,0,0"}), "", kExitUsage, "non-zero length"},
        {on({"--lock-rotations", "--lock-origin=1,2,3"}), "", kExitUsage, "exclude"},
        {on({"--tolerance", "-1"}), "", kExitUsage, "at least 0"},
        {on({"--steps", "3"}), "", kExitUsage, "unknown option '--steps'"},
        {on({"--scale-centre", "1,2"}), "", kExitUsage, "three finite"},
        {on({"--pairs", two}), "", kExitUsage, "go with --scale"},
        {on({"--scale", "--pairs", bad}), "1 1 0\n", kExitUsage, "line 2: expected 6 numbers"},
        {on({"--scale", "--pairs", two}), "1 1 0\n", kExitRefused, "at least 3 pairs"},
        {on({"--scale"}), "1 1 0\n2 1 0\n1 3 0\n", kExitRefused, "do not determine a scale"},
    };
    for (const auto& [args, input, status, message] : cases) {
        const Outcome r = run(args, input);
        EXPECT_EQ(r.status, status) << message;
        EXPECT_TRUE(r.out.empty()) << r.out;
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    }
    EXPECT_TRUE(is_bestfit_command({"--json", "bestfit", "x"}));
    EXPECT_FALSE(is_bestfit_command({"align", "bestfit"}));
}

}  // namespace
