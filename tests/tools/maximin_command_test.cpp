// The maximin command: the known margin of a raw block around a box mesh
// under each option, and bad surfaces, rows and arguments.
#include "tools/metrofit/maximin_command.h"

#include <gtest/gtest.h>

#include <cstdlib>
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

// Every number after "key": up to the bracket that closes its value.
std::vector<double> numbers(const std::string& json, const std::string& key) {
    std::vector<double> v;
    const std::size_t at = json.find("\"" + key + "\": ");
    if (at == std::string::npos) return v;
    int depth = 0;
    for (const char* p = json.c_str() + at + key.size() + 4; *p; ++p) {
        char* end = nullptr;
        const double x = std::strtod(p, &end);
        if (end != p) v.push_back(x), p = end - 1;  // on its last digit
        depth += (*p == '[') - (*p == ']');
        if (depth <= 0 && (*p == ']' || *p == ',' || *p == '}')) break;
    }
    return v;
}

// Two probed points per face of a raw block whose faces stand `stock`
// (-x, +x, -y, +y, -z, +z) outside the box; `extra` is appended to each row.
std::string raw_rows(const double stock[6], const std::string& extra = "") {
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
    const std::tuple<std::vector<std::string>, std::string, double> cases[] = {
        {{}, "", 1.0},
        {{"--lower", "0.25"}, "", 0.75},
        {{"--lower-column"}, " 0", 1.0},
        {{"--lock-rotations"}, "", 1.0},
        {{"--bestfit-first"}, "", 1.0}};
    for (const auto& [extra_args, extra, margin] : cases) {
        SCOPED_TRACE(extra_args.empty() ? "plain" : extra_args[0]);
        std::vector<std::string> args = {"--surface", stl, "-", "--json"};
        args.insert(args.end(), extra_args.begin(), extra_args.end());
        const Outcome o = run(args, raw_rows(stock, extra));
        ASSERT_EQ(o.status, kExitOk) << o.err;
        ASSERT_EQ(numbers(o.out, "margin").size(), 1u) << o.out;
        EXPECT_NEAR(numbers(o.out, "margin")[0], margin, 1e-6) << o.out;
        EXPECT_NE(o.out.find("\"holding\": [5, 6, 7, 8]"), std::string::npos) << o.out;
        EXPECT_NE(o.out.find("\"status\": \"converged\""), std::string::npos);
    }
}

TEST(MaximinCommand, RefusesBadSurfacesRowsAndArguments) {
    const std::string stl = temp_file("box.stl", testsupport::box_stl());
    const std::string bad_stl = temp_file("bad.stl", "solid x\nnot a facet\n");
    const double stock[6] = {1, 1, 1, 1, 1, 1};
    const std::string good = raw_rows(stock);
    const std::vector<std::string> on_box = {"--surface", stl, "-"};
    const auto with = [&](std::vector<std::string> more) {
        more.insert(more.begin(), on_box.begin(), on_box.end());
        return more;
    };
    const std::tuple<std::vector<std::string>, std::string, int, const char*> cases[] = {
        {{"-"}, good, kExitUsage, "--surface"},
        {with({"--lower", "1", "--lower-column"}), good, kExitUsage, "exclude"},
        {with({"--lower", "x"}), good, kExitUsage, "--lower"},
        {with({"--tolerance", "-1"}), good, kExitUsage, "--tolerance"},
        {with({"--band", "0,1"}), good, kExitUsage, "unknown"},
        {on_box, "1 2 3 4 5\n", kExitUsage, "line 1"},
        {with({"--lower-column"}), "\n1 2 3 0 0 1\n", kExitUsage, "line 2"},
        {on_box, "1 2 3 0 0 0\n", kExitUsage, "no length"},
        {on_box, "# nothing\n", kExitRefused, "at least one"},
        {on_box, "-1 5 5 -1 0 0\n-1 9 9 -1 0 0\n", kExitRefused, "enclose"},
        {{"--surface", bad_stl, "-"}, good, kExitRefused, "bad.stl"},
    };
    for (const auto& [args, input, status, message] : cases) {
        SCOPED_TRACE(message);
        const Outcome o = run(args, input);
        EXPECT_EQ(o.status, status);
        EXPECT_NE(o.err.find(message), std::string::npos) << o.err;
        EXPECT_TRUE(o.out.empty());
    }
}

}  // namespace
