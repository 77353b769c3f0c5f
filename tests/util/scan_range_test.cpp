#include "metrofit/util/scan_range.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

// Every value one scan hands out (bounded, so a scan that never ends fails
// instead of hanging).
std::vector<double> scan(tsScanRange& r) {
    std::vector<double> values;
    double v = 0.0;
    while (values.size() < 100000 && r.next(v)) values.push_back(v);
    return values;
}

// The ends and the midpoint first,
// then only the new interior points of each halved step.
TEST(ScanRange, RefinesBetweenEarlierValuesWithoutRepeats) {
    tsScanRange r(-1.0, 1.0, 0.3);
    const std::vector<double> first = scan(r);
    EXPECT_EQ(first, (std::vector<double>{-1.0, 1.0, 0.0}));
    const std::vector<double> refinements[] = {{-0.5, 0.5}, {-0.75, -0.25, 0.25, 0.75}};
    for (const std::vector<double>& values : refinements) {
        ASSERT_EQ(r.reduce_step(), 1);
        r.reset_step();
        EXPECT_EQ(scan(r), values);
    }
    // 0.5 * 0.5 = 0.25 is not above the minimum step 0.3; an ended scan stays ended.
    double v = 42.0;
    EXPECT_TRUE(r.reduce_step() == 0 && r.step() == 0.5);
    EXPECT_TRUE(r.next(v) == 0 && v == 42.0);
}

// After k reductions the values handed out so far are exactly the grid
// low + j (high - low) / 2^(k+1), each once.
TEST(ScanRange, AllRefinementsTogetherFormAnEvenGrid) {
    tsScanRange r(10.0, 11.0, 1.0 / 64);
    std::vector<double> all = scan(r), more;
    for (int k = 0; k < 20 && r.reduce_step(); ++k, all.insert(all.end(), more.begin(), more.end()))
        r.reset_step(), more = scan(r);
    std::sort(all.begin(), all.end());
    ASSERT_EQ(all.size(), 65u);  // steps 1/2 .. 1/32; 1/64 would not be above the minimum
    for (int j = 0; j <= 64; ++j) EXPECT_EQ(all[j], 10.0 + j / 64.0);
}

// Degenerate ranges hand out their ends only, and step reduction stops, so
// no loop over a scan can run away; so does a minimum step of zero or less.
TEST(ScanRange, DegenerateRangesEndPromptly) {
    const struct {
        double low, high, min_step;
        std::size_t values;
    } cases[] = {
        {1.0, -1.0, 0.1, 2},         // reversed: the interior would walk away
        {1e20, 1e20 + 1e5, 0.0, 3},  // step far below the rounding of the ends
        {NAN, 1.0, 0.1, 2},
        {-INFINITY, INFINITY, 0.1, 2},
    };
    for (const auto& c : cases) {
        tsScanRange r(c.low, c.high, c.min_step);
        EXPECT_EQ(scan(r).size(), c.values) << c.low << " " << c.high;
        int reductions = 0;
        for (; reductions < 5000 && r.reduce_step(); ++reductions) {
            r.reset_step();
            ASSERT_LT(scan(r).size(), 100000u);
        }
        EXPECT_LT(reductions, 5000);
    }
    tsScanRange r(0.0, 1.0, -1.0);
    int reductions = 0;
    while (reductions < 5000 && r.reduce_step()) ++reductions;
    EXPECT_TRUE(reductions < 5000 && r.step() > 0.0);
}

}  // namespace
