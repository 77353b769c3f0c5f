// The maximin command: the known margin of a raw block around a box mesh with
// plain, per-point and common lower limits, the report's shape, and bad
// surfaces, rows and arguments.
#include "tools/metrofit/maximin_command.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/support/tool_files.h"
#include "tools/metrofit/fit_command.h"

namespace {

using namespace metrofit_tool;

struct Outcome {
    int status;
    std::string out, err;
};

Outcome run(std::vector<std::string> args, const std::string& input) {
    args.insert(args.begin(), "maximin");
    std::istringstream in(input);
    std::ostringstream out, err;
    const int status = run_maximin(args, in, out, err);
    return {status, out.str(), err.str()};
}

std::string temp_file(const std::string& name, const std::string& content) {
    return testsupport::temp_file("maximin", name, content);
}

// Two probed points per face of a raw block whose faces stand `stock`
// (-x, +x, -y, +y, -z, +z) outside the box; `extra` is appended to each row.
std::string raw_rows(const double stock[6], const std::string& extra) {
    const double size[3] = {40, 30, 20};
    std::ostringstream s;
    s.precision(17);
    for (int f = 0; f < 6; ++f)
        for (double u : {0.3, 0.7}) {
            const int a = f / 2;
            double p[3], n[3] = {0, 0, 0};
            for (int j = 0; j < 3; ++j) p[j] = size[j] * (j == (a + 1) % 3 ? u : 1.0 - u);
            p[a] = f % 2 ? size[a] + stock[f] : -stock[f];
            n[a] = f % 2 ? 1 : -1;
            s << p[0] << " " << p[1] << " " << p[2] << " " << n[0] << " " << n[1] << " " << n[2]
              << extra << "\n";
        }
    return s.str();
}

TEST(MaximinCommand, ReportsTheKnownMarginAndItsHoldingPoints) {
    const std::string stl = temp_file("box.stl", testsupport::box_stl());
    const double stock[6] = {1.2, 2.0, 0.5, 1.5, 2.0, 3.0};  // y is tightest: margin 1
    struct Case {
        const char* name;
        std::vector<std::string> args;
        std::string extra;  // appended to every row
        double margin;
        const char* holding;
    };
    const Case cases[] = {
        {"plain stock", {}, "", 1.0, "\"holding\": [5, 6, 7, 8]"},
        {"common lower limit", {"--lower", "0.25"}, "", 0.75, "\"holding\": [5, 6, 7, 8]"},
        {"lower column", {"--lower-column"}, " 0", 1.0, "\"holding\": [5, 6, 7, 8]"},
        {"shifts only", {"--lock-rotations"}, "", 1.0, "\"holding\": [5, 6, 7, 8]"},
        {"from the bestfit", {"--bestfit-first"}, "", 1.0, "\"holding\": [5, 6, 7, 8]"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::string> args = {"--surface", stl, "-", "--json"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const Outcome o = run(args, raw_rows(stock, c.extra));
        ASSERT_EQ(o.status, kExitOk) << o.err;
        const std::size_t at = o.out.find("\"margin\": ");
        ASSERT_NE(at, std::string::npos) << o.out;
        EXPECT_NEAR(std::strtod(o.out.c_str() + at + 10, nullptr), c.margin, 1e-6) << o.out;
        EXPECT_NE(o.out.find(c.holding), std::string::npos) << o.out;
        EXPECT_NE(o.out.find("\"status\": \"converged\""), std::string::npos);
    }
    // The levels: the margin (y), then x evened (1.2, 2 -> 1.6), then z
    // (2, 3 -> 2.5); --no-even stops at the margin.
    for (bool even : {true, false}) {
        std::vector<std::string> args = {"--surface", stl, "-", "--json"};
        if (!even) args.push_back("--no-even");
        const Outcome o = run(args, raw_rows(stock, ""));
        ASSERT_EQ(o.status, kExitOk) << o.err;
        const std::size_t at = o.out.find("\"levels\": [");
        ASSERT_NE(at, std::string::npos) << o.out;
        std::vector<double> levels;
        for (const char* c = o.out.c_str() + at + 11; *c != ']'; ++c) {
            char* end = nullptr;
            levels.push_back(std::strtod(c, &end));
            c = end;
            if (*c == ']') break;
        }
        const std::vector<double> expected =
            even ? std::vector<double>{1.0, 1.6, 2.5} : std::vector<double>{1.0};
        ASSERT_EQ(levels.size(), expected.size()) << o.out;
        for (std::size_t k = 0; k < levels.size(); ++k) EXPECT_NEAR(levels[k], expected[k], 1e-8);
    }
    // Per-point limits: 1 on the x faces (rows 1 to 4) moves the margin there.
    std::string rows = raw_rows(stock, "");
    std::istringstream lines(rows);
    std::string line, with_limits;
    for (int k = 0; std::getline(lines, line); ++k) with_limits += line + (k < 4 ? " 1\n" : " 0\n");
    const Outcome o = run({"--surface", stl, "-", "--lower-column"}, with_limits);
    ASSERT_EQ(o.status, kExitOk) << o.err;
    EXPECT_NE(o.out.find("margin       0.6\n"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("holding      1 2 3 4\n"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("point  lower  before  after"), std::string::npos);
}

TEST(MaximinCommand, RefusesBadSurfacesRowsAndArguments) {
    const std::string stl = temp_file("box.stl", testsupport::box_stl());
    const std::string bad_stl = temp_file("bad.stl", "solid x\nnot a facet\n");
    const double stock[6] = {1, 1, 1, 1, 1, 1};
    const std::string good = raw_rows(stock, "");
    struct Case {
        const char* name;
        std::vector<std::string> args;
        std::string input;
        int status;
        const char* message;
    };
    const Case cases[] = {
        {"no surface", {"-"}, good, kExitUsage, "--surface"},
        {"both lower kinds",
         {"--surface", stl, "-", "--lower", "1", "--lower-column"},
         good,
         kExitUsage,
         "exclude"},
        {"bad lower", {"--surface", stl, "-", "--lower", "x"}, good, kExitUsage, "--lower"},
        {"negative tolerance",
         {"--surface", stl, "-", "--tolerance", "-1"},
         good,
         kExitUsage,
         "--tolerance"},
        {"unknown option", {"--surface", stl, "-", "--band", "0,1"}, good, kExitUsage, "unknown"},
        {"row of 5 numbers", {"--surface", stl, "-"}, "1 2 3 4 5\n", kExitUsage, "line 1"},
        {"missing lower column",
         {"--surface", stl, "-", "--lower-column"},
         "\n1 2 3 0 0 1\n",
         kExitUsage,
         "line 2"},
        {"zero normal", {"--surface", stl, "-"}, "1 2 3 0 0 0\n", kExitUsage, "no length"},
        {"no points", {"--surface", stl, "-"}, "# nothing\n", kExitRefused, "at least one"},
        {"one face only",
         {"--surface", stl, "-"},
         "-1 5 5 -1 0 0\n-1 9 9 -1 0 0\n",
         kExitRefused,
         "enclose"},
        {"bad surface", {"--surface", bad_stl, "-"}, good, kExitRefused, "bad.stl"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Outcome o = run(c.args, c.input);
        EXPECT_EQ(o.status, c.status);
        EXPECT_NE(o.err.find(c.message), std::string::npos) << o.err;
        EXPECT_TRUE(o.out.empty());
    }
}

}  // namespace
