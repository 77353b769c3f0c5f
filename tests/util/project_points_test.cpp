#include <gtest/gtest.h>

#include <cmath>

#include "metrofit/util/utils.h"
#include "tests/support/sampling.h"

namespace {

TEST(UtilsProjectPointsToPlane, KeepsInPlaneDistancesAndMapsBack) {
    const giXform3 motion = testsupport::random_motion(37.0, 1e3, 5);
    const giPoint3 origin = motion * giPoint3(0, 0, 0);
    const giVector3 normal = motion * giVector3(0, 0, 1);
    giPoint3coDynArr pts;
    for (int i = 0; i < 5; ++i) pts.append(motion * giPoint3(i * 3.0, i * i * 0.5, 2.0));
    giPoint2coDynArr flat{giPoint2(9, 9)};  // stale content is replaced
    giXform3 frame;
    tsUtils::ProjectPointsToPlane(pts, origin, normal, flat, &frame);
    ASSERT_EQ(flat.size(), 5);
    for (int i = 0; i < 5; ++i) {
        // In-plane distances survive; the height (2) is dropped and the frame
        // maps the lifted 2D point back onto the original.
        EXPECT_NEAR(distance(flat[i], flat[0]), std::hypot(i * 3.0, i * i * 0.5), 1e-9);
        const giPoint3 back = frame.inverse() * giPoint3(flat[i].x(), flat[i].y(), 2.0);
        EXPECT_NEAR(distance(back, pts[i]), 0.0, 1e-9);
    }
}

TEST(UtilsProjectPointsToPlane, ReferenceAxisAndEmptyInput) {
    // A normal along x takes its in-plane x axis from (0, 1, 0).
    giPoint3coDynArr pts{giPoint3(5, 1, 0), giPoint3(5, 0, 1)};
    giPoint2coDynArr flat;
    giXform3 frame;
    tsUtils::ProjectPointsToPlane(pts, giPoint3(0, 0, 0), giVector3(2, 0, 0), flat, &frame);
    EXPECT_LE(distance(flat[0], giPoint2(1, 0)), 1e-15);
    EXPECT_NEAR(std::abs(flat[1].y()), 1.0, 1e-15);

    giPoint2coDynArr none{giPoint2(1, 1)};
    tsUtils::ProjectPointsToPlane(giPoint3coDynArr(), giPoint3(0, 0, 0), giVector3(0, 0, 1), none,
                                  nullptr);
    EXPECT_EQ(none.size(), 0);
}

}  // namespace
