#include "tools/metrofit/align_command.h"

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
using testsupport::random_motion;

struct AlignRun {
    int status;
    std::string out, err;
};

// Runs `align - --json ARGS` on `input`.
AlignRun align(std::vector<std::string> args, const std::string& input) {
    args.insert(args.begin(), {"align", "-", "--json"});
    std::istringstream in(input);
    std::ostringstream out, err;
    const int status = run_align(args, in, out, err);
    return {status, out.str(), err.str()};
}

// Every number after "key": up to the bracket that closes its value.
std::vector<double> numbers(const std::string& json, const std::string& key) {
    std::vector<double> v;
    int depth = 0;
    for (const char* p = json.c_str() + json.find("\"" + key + "\": ") + key.size() + 4; *p; ++p) {
        char* end = nullptr;
        const double x = std::strtod(p, &end);
        if (end != p) v.push_back(x), p = end - 1;  // on its last digit
        depth += (*p == '[' || *p == '{') - (*p == ']' || *p == '}');
        if (depth <= 0 && (*p == ']' || *p == '}' || *p == ',')) break;
    }
    return v;
}

// Rows on five faces of the block [0, 100] x [0, 60] x [0, 40], 4 points a face,
// outward normals, measured where `motion` carries them onto their nominal
// points (row `bump` 0.4 outside its face), framed by `head` and `tail`.
std::string block(const giXform3& motion, const std::string& tail = "", int bump = -1,
                  const std::string& head = "") {
    const giXform3 back = motion.inverse();
    testsupport::Rng rng(7);
    std::ostringstream s;
    s.precision(17);
    const double size[3] = {100, 60, 40};
    for (int row = 0; row < 20; ++row) {
        const int axis = row / 4 % 3, high = row / 12;  // faces x0 y0 z0 x1 y1
        double q[3], n[3] = {0, 0, 0};
        for (int k = 0; k < 3; ++k) q[k] = rng.uniform(0.1, 0.9) * size[k];
        q[axis] = high * size[axis];
        n[axis] = high ? 1 : -1;
        const double out = row == bump ? 0.4 : 0.0;
        const giPoint3 m = back * giPoint3(q[0] + out * n[0], q[1] + out * n[1], q[2] + out * n[2]);
        s << head << m.x() << " " << m.y() << " " << m.z() << " " << q[0] << " " << q[1] << " "
          << q[2] << " " << n[0] << " " << n[1] << " " << n[2] << tail << "\n";
    }
    return s.str();
}

// Exact data, near and far from the origin: the direct fit and the steps
// find the motion, repeatably; the JSON has its shape.
TEST(ToolAlign, RecoversAKnownMotion) {
    const giXform3 near = random_motion(10, 20, 11);
    // The far shift takes a turn error of 1e-11 rad times the 1e4 offset; a
    // step drops turns below 1e-7 rad: 1e-7 times the 50 of the part.
    const std::tuple<std::vector<std::string>, giXform3, double> cases[] = {
        {{}, near, 1e-9}, {{}, random_motion(10, 1e4, 12), 1e-7}, {{"--steps", "100"}, near, 1e-5}};
    for (const auto& [args, motion, tol] : cases) {
        const std::string rows = block(motion);
        const AlignRun r = align(args, rows);
        ASSERT_EQ(r.status, kExitOk) << r.err;
        const std::vector<double> t = numbers(r.out, "transform");
        ASSERT_EQ(t.size(), 16u) << r.out;
        for (int i = 0; i < 12; ++i) EXPECT_NEAR(t[i], motion(i / 4, i % 4), tol) << i;
        EXPECT_EQ(std::vector<double>(t.begin() + 12, t.end()), (std::vector<double>{0, 0, 0, 1}));
        EXPECT_EQ(numbers(r.out, "deviations").size(), 40u);  // before and after of 20
        EXPECT_GT(numbers(r.out, "max_before")[0], 1.0);
        EXPECT_LT(numbers(r.out, "rms_after")[0], tol);
        EXPECT_EQ(align(args, rows).out, r.out);
    }
}

TEST(ToolAlign, RefusesBadRowsAndOptions) {
    const std::string ok = "1 2 3 1 2 3 0 0 1\n";
    const std::tuple<std::vector<std::string>, std::string, std::string, int> cases[] = {
        {{}, ok + "1 2 3 4 5 6 0 0 1 0\n", "line 2: expected 9, 11 or 12 numbers", kExitUsage},
        {{}, ok + "# c\n1 2 3 4 5 6 nan 0 1\n", "line 3: value is not finite: 'nan'", kExitUsage},
        {{}, "P 1 2 3 4 5 6 0 0 1 -1 1\n", "takes 9 numbers after P", kExitUsage},
        {{}, "1 2 3 4 5 6 0 0 0\n", "line 1: the normal has no length", kExitUsage},
        {{}, "1 2 3 4 5 6 0 0 1 1 -1\n", "lower limit 1 lies above the upper -1", kExitUsage},
        {{}, "1 2 3 4 5 6 0 0 1 - - 0\n", "weight must be above 0", kExitUsage},
        {{}, "# nothing\n", "at least one entry; the file has 0", kExitRefused},
        {{"--steps", "0"}, ok, "--steps needs a whole number", kExitUsage},
        {{"--lock-direction", "1,0,0"}, ok, "AX,AY,AZ:BX,BY,BZ", kExitUsage},
        {{"--lock-rotations", "--lock-direction=1,0,0:0,0,1"}, ok, "exclude", kExitUsage},
    };
    for (const auto& [args, input, message, status] : cases) {
        const AlignRun r = align(args, input);
        EXPECT_EQ(r.status, status) << message;
        EXPECT_TRUE(r.out.empty()) << r.out;
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    }
}

}  // namespace
