// Restricted affine transforms between corresponding points: every family
// reproduces exact data of its own kind near and far from the origin, is
// the least-squares optimum on noisy data, and refuses singular systems and
// unknown types without touching the result.
#include "metrofit/bestfit/affine_match.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/sampling.h"

namespace {

using testsupport::sphere_points;
using testsupport::transformed;

// A family: the matrix entries it solves for (bit 4r + c for entry (r, c))
// and the rows it fits (bit r).
struct Family {
    tsAffineMatchXformType type;
    unsigned free, rows;
};
constexpr Family kFamilies[] = {
    {tsAffineMatchFull, 0xfff, 7},    {tsAffineMatchXY, 0x0bb, 3},
    {tsAffineMatchScale, 0x421, 7},   {tsAffineMatchScaleTranslate, 0xca9, 7},
    {tsAffineMatchXYScale, 0x021, 3}, {tsAffineMatchXYScaleXYZTranslate, 0x8a9, 7},
    {tsAffineMatchAxisX, 0x009, 1},   {tsAffineMatchAxisY, 0x0a0, 2},
    {tsAffineMatchAxisZ, 0xc00, 4}};

// A member of the family: the identity with its free entries drawn at random.
giXform3 member(const Family& f, double offset, std::uint64_t seed) {
    testsupport::Rng rng(seed);
    giXform3 t = giXform3::identity();
    for (int e = 0; e < 12; ++e)
        if (f.free >> e & 1)
            t(e / 4, e % 4) = e % 4 == 3 ? rng.uniform(-1.0, 1.0) * (10.0 + offset)
                                         : (e / 4 == e % 4) + rng.uniform(-0.3, 0.3);
    return t;
}

tsPointsAffineMatch load(const giPoint3coDynArr& sources, const giPoint3coDynArr& targets,
                         int type) {
    tsPointsAffineMatch m;
    m.set_transform_type(static_cast<tsAffineMatchXformType>(type));
    for (int i = 0; i < sources.size(); ++i) m.add_pair(targets[i], sources[i]);
    return m;
}

// Far from the origin, and a workpiece 20 m across in millimetres (scales and
// shifts of very different sizes).
TEST(tsPointsAffineMatch, EveryFamilyReproducesExactDataNearAndFar) {
    const double placements[][2] = {{0.0, 10.0}, {1e3, 10.0}, {1e5, 10.0}, {0.0, 1e4}};
    for (const auto& [offset, radius] : placements) {
        const giPoint3 centre(offset, -0.5 * offset, 0.8 * offset);
        const giPoint3coDynArr s = sphere_points(30, centre, radius, 180.0, 0.0, 31);
        for (const Family& f : kFamilies) {
            SCOPED_TRACE(testing::Message() << f.type << " at " << offset << ", " << radius);
            const giXform3 truth = member(f, offset, 40 + f.type);
            giXform3 got = giXform3::identity();
            ASSERT_EQ(load(s, transformed(truth, s), f.type).xform(got), 1);
            for (int e = 0; e < 12; ++e)  // shifts relative to the size of the coordinates
                EXPECT_NEAR(got(e / 4, e % 4), truth(e / 4, e % 4),
                            e % 4 == 3 ? 1e-9 * (1.0 + offset + radius) : 1e-11);
        }
    }
}

// Least squares: moving any solved entry either way raises the residual sum
// of the fitted rows; the same data give bit-identical results.
TEST(tsPointsAffineMatch, NoisyDataGiveTheLeastSquaresSolution) {
    const giPoint3coDynArr s = sphere_points(80, giPoint3(50.0, 20.0, -30.0), 15.0, 100.0, 0, 32);
    for (const Family& f : kFamilies) {
        SCOPED_TRACE(f.type);
        giPoint3coDynArr t = transformed(member(f, 50.0, 60 + f.type), s);
        testsupport::Rng rng(70 + f.type);
        for (giPoint3& p : t) p += giVector3(rng.normal(0.02), rng.normal(0.02), rng.normal(0.02));
        const auto sum_sq = [&](const giXform3& T) {
            double e = 0.0;
            for (int i = 0; i < s.size(); ++i)
                for (int r = 0; r < 3; ++r)
                    if (f.rows >> r & 1) e += std::pow((T * s[i])[r] - t[i][r], 2);
            return e;
        };
        const tsPointsAffineMatch m = load(s, t, f.type);
        giXform3 got = giXform3::identity(), again = giXform3::identity();
        ASSERT_EQ(m.xform(got) + m.xform(again), 2);
        EXPECT_TRUE(equal(got, again, 0.0));
        for (int e = 0; e < 12; ++e)
            for (double step : {-1e-6, 1e-6}) {
                if (!(f.free >> e & 1)) continue;
                giXform3 moved = got;
                moved(e / 4, e % 4) += step;
                EXPECT_GT(sum_sq(moved), sum_sq(got)) << e;
            }
    }
}

TEST(tsPointsAffineMatch, SingularSystemsAndUnknownTypesAreRefused) {
    const giXform3 sentinel = giXform3::scaling(2.0, 3.0, 4.0);
    const auto refused = [&](const tsPointsAffineMatch& m) {
        giXform3 got = sentinel;
        return m.xform(got) == 0 && equal(got, sentinel, 0.0);
    };
    const giPoint3coDynArr none, ball = sphere_points(6, giPoint3(giOrigin), 5.0, 180.0, 0, 2);
    for (const Family& f : kFamilies) EXPECT_TRUE(refused(load(none, none, f.type))) << f.type;
    EXPECT_TRUE(refused(load(ball, ball, 9)) && refused(load(ball, ball, -1)));
    // Flat sources (z = 0) leave the z terms undetermined, collinear ones the
    // plane families, equal x the x axis; a NaN spoils any system.
    const giPoint3coDynArr flat = testsupport::plane_points(20, 30.0, 20.0, 0.0, 3);
    const giPoint3coDynArr line = testsupport::line_points3(20, 30.0, 0.0, 3);
    giPoint3coDynArr same_x = ball, bad = ball;
    for (giPoint3& p : same_x) p.set_x(1.5);
    bad[3].set_y(std::nan(""));
    EXPECT_TRUE(refused(load(flat, flat, tsAffineMatchFull)));
    EXPECT_TRUE(refused(load(flat, flat, tsAffineMatchScale)));
    EXPECT_TRUE(refused(load(line, line, tsAffineMatchXY)));
    EXPECT_TRUE(refused(load(line, line, tsAffineMatchXYScale)));
    EXPECT_TRUE(refused(load(same_x, same_x, tsAffineMatchAxisX)));
    EXPECT_TRUE(refused(load(bad, ball, tsAffineMatchFull)));
    // The z shift needs no z coordinate: flat sources still determine it.
    const giXform3 truth = member(kFamilies[5], 0.0, 8);
    giXform3 got = giXform3::identity();
    ASSERT_EQ(load(flat, transformed(truth, flat), 5).xform(got), 1);
    EXPECT_NEAR(got(2, 3), truth(2, 3), 1e-9);
}

}  // namespace
