#include "metrofit/util/convex_hull.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "tests/support/random.h"

namespace {

using Points = std::vector<giPoint2>;
constexpr double kPi = testsupport::Rng::kPi;
const double kNan = std::numeric_limits<double>::quiet_NaN();

// Twice the signed area of o, a, b: positive when b is left of o->a.
double orient(const giPoint2& o, const giPoint2& a, const giPoint2& b) {
    return (a.x() - o.x()) * (b.y() - o.y()) - (a.y() - o.y()) * (b.x() - o.x());
}
giPoint2coDynArr to_arr(const Points& v) {
    giPoint2coDynArr a;
    for (const giPoint2& p : v) a.append(p);
    return a;
}

// Brute force over all pairs of distinct points: i is extreme when for some
// j every other point is strictly left of i->j or strictly inside i-j.
Points extreme_points(const Points& in) {
    Points pts, out;
    for (const giPoint2& q : in)
        if (std::find(pts.begin(), pts.end(), q) == pts.end()) pts.push_back(q);
    for (const giPoint2& a : pts) {
        bool extreme = false;
        for (size_t j = 0; j < pts.size() && !extreme; ++j) {
            const giPoint2& b = pts[j];
            extreme = !(a == b);
            for (const giPoint2& q : pts) {
                if (q == a || q == b || !extreme) continue;
                const double o = orient(a, b, q);
                extreme = o > 0 || (o == 0 && dot(q - a, b - a) > 0 && dot(q - b, a - b) > 0);
            }
        }
        if (extreme) out.push_back(a);
    }
    return out;
}

// The hull by index, mapped to its points, after checking that it equals the
// hull by point and that the counts returned are the sizes written.
Points hull_of(const Points& in) {
    const giPoint2coDynArr arr = to_arr(in);
    intcoDynArr idx;
    giPoint2coDynArr pts;
    const int n_index = ts_calculate_convex_hull(arr, idx),
              n_point = ts_calculate_convex_hull(arr, pts);
    EXPECT_TRUE(n_index == idx.size() && n_point == pts.size());
    Points h;
    for (const int i : idx) h.push_back(in[i]);
    EXPECT_EQ(h, Points(pts.begin(), pts.end()));
    return h;
}

// Turns left only, holds every input point, has every extreme point as a
// vertex and, in general position, nothing else.
void expect_hull(const Points& in, const Points& hull, bool general) {
    ASSERT_GE(hull.size(), 3u);
    const size_t h = hull.size();
    for (size_t i = 0; i < h; ++i) {
        const giPoint2 &a = hull[i], &b = hull[(i + 1) % h], &c = hull[(i + 2) % h];
        EXPECT_GT(orient(a, b, c), general ? 0.0 : -1.0);                 // grid: integer areas
        for (const giPoint2& q : in) EXPECT_GE(orient(a, b, q), -1e-12);  // rounding, |q| <= 6
    }
    const Points extreme = extreme_points(in);
    for (const giPoint2& v : extreme) EXPECT_NE(std::find(hull.begin(), hull.end(), v), hull.end());
    EXPECT_TRUE(!general || hull.size() == extreme.size());
}

TEST(ConvexHull, SmallDuplicateAndTiedInputs) {
    const struct {
        Points in, hull;
    } table[] = {
        // Two lowest points: the right one leads; the inner point goes.
        {{{0, 0}, {0, 3}, {3, 0}, {3, 3}, {1, 1}}, {{3, 0}, {3, 3}, {0, 3}, {0, 0}}},
        // Duplicates (one 1e-13 away) appear once.
        {{{0, 0}, {2, 0}, {1, 2}, {2, 0}, {1 - 1e-13, 2}, {0, 0}, {1, 1}},
         {{2, 0}, {1, 2}, {0, 0}}},
        // On an edge: kept, also on the first ray from the pivot in any input
        // order; on the closing ray only the far end.
        {{{4, 0}, {4, 3}, {4, 1}, {4, 2}, {0, 3}, {0, 0}, {2, 0}, {1, 3}},
         {{4, 0}, {4, 1}, {4, 2}, {4, 3}, {1, 3}, {0, 3}, {0, 0}}},
        // All on one line: every distinct point, nearest the pivot first.
        {{{3, 3}, {0, 0}, {2, 2}, {1, 1}, {2, 2}}, {{0, 0}, {1, 1}, {2, 2}, {3, 3}}},
    };
    for (const auto& c : table) {
        const Points got = hull_of(c.in);
        ASSERT_EQ(got.size(), c.hull.size()) << c.in.size();
        for (size_t i = 0; i < got.size(); ++i)
            EXPECT_TRUE(got[i].coincident(c.hull[i], 1e-12)) << c.in.size() << " " << i;
    }
}

TEST(ConvexHull, RefusesEmptyAndNonFiniteInputLeavingOutputUntouched) {
    const double inf = std::numeric_limits<double>::infinity();
    for (const giPoint2coDynArr& in : {giPoint2coDynArr(), giPoint2coDynArr{{0, 0}, {kNan, 1}},
                                       giPoint2coDynArr{{0, 0}, {inf, 0}, {0, 1}}}) {
        intcoDynArr idx = {-7};
        giPoint2coDynArr pts = {{9, 9}};
        EXPECT_TRUE(ts_calculate_convex_hull(in, idx) == 0 &&
                    ts_calculate_convex_hull(in, pts) == 0);
        EXPECT_TRUE(idx.size() == 1 && idx[0] == -7 && pts.size() == 1 && pts[0] == giPoint2(9, 9));
    }
}

TEST(ConvexHull, AgreesWithBruteForceOnRandomSets) {
    testsupport::Rng rng(11);
    for (int trial = 0; trial < 40; ++trial) {
        // Odd trials: a 7 x 7 grid, full of duplicates and collinear points.
        const bool general = trial % 2 == 0;
        Points in(rng.integer(4, 80));
        for (giPoint2& p : in) {
            const double r = std::sqrt(rng.uniform()), a = rng.uniform(0, 2 * kPi);
            p = general ? giPoint2(r * std::cos(a), r * std::sin(a))
                        : giPoint2(rng.integer(0, 6), rng.integer(0, 6));
        }
        if (extreme_points(in).size() < 3) continue;  // all on one line
        const Points h = hull_of(in);
        expect_hull(in, h, general);
        EXPECT_EQ(hull_of(in), h);           // repeatable
        std::reverse(in.begin(), in.end());  // in general position the order does not matter
        EXPECT_TRUE(!general || hull_of(in) == h);
    }
}

// A non-convex polygon whose vertex (7, 2) lies on the ray of y = 2 with the
// boundary crossing there, and whose notch vertex (4, 2) only touches it.
TEST(RelativePosition, ClassifiesPointsOfANonConvexPolygonOpenOrClosed) {
    const Points crown = {{0, 0}, {6, 0}, {7, 2}, {6, 4}, {4, 2}, {2, 4}, {0, 4}};
    const struct {
        giPoint2 p;
        tsRelativePosition expected;
    } table[] = {{{1, 2}, tsINSIDE},
                 {{-1, 2}, tsOUTSIDE},
                 {{4.5, 3}, tsOUTSIDE},
                 {{6.2, 3}, tsINSIDE},
                 {{8, 2}, tsOUTSIDE},
                 {{-1, 4}, tsOUTSIDE},
                 {{6.5 + 1e-12, 1}, tsON_EDGE},
                 {{6.5 + 1e-9, 1}, tsOUTSIDE},
                 {{kNan, 1}, tsOUTSIDE}};
    Points closed = crown;
    closed.push_back(crown[0]);
    for (const Points& poly : {crown, closed}) {
        const giPoint2coDynArr arr = to_arr(poly);
        for (const auto& c : table)
            EXPECT_EQ(ts_relative_position(c.p, arr), c.expected) << c.p.x() << " " << c.p.y();
        for (size_t i = 0; i < crown.size(); ++i) {
            const giPoint2 &a = crown[i], &b = crown[(i + 1) % crown.size()];
            EXPECT_EQ(ts_relative_position(a, arr), tsON_VERTEX) << i;
            EXPECT_EQ(ts_relative_position(giPoint2((a.x() + b.x()) / 2, (a.y() + b.y()) / 2), arr),
                      tsON_EDGE)
                << i;
        }
    }
    EXPECT_EQ(ts_relative_position(giPoint2(1, 1), to_arr({{0, 0}, {6, 0}, {kNan, 4}})), tsOUTSIDE);
    EXPECT_EQ(ts_relative_position(giPoint2(1, 1), giPoint2coDynArr()), tsOUTSIDE);
}

}  // namespace
