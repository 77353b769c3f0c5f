// Alignment by a reference point system: known motions with the positioning
// held, statuses and stops.
#include "metrofit/alignment/rps_fitting.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "metrofit/platform/surface/analytic_surfaces.h"
#include "metrofit/platform/surface/mesh_surface.h"
#include "tests/support/random.h"
#include "tests/support/sampling.h"

namespace {

using PS = tsPointsToPlanes::PLANE_STATE;
constexpr PS L = tsPointsToPlanes::PLANE_LOCKED;
constexpr PS I = tsPointsToPlanes::PLANE_IGNORED;
constexpr PS S = tsPointsToPlanes::PLANE_SOFT;
constexpr PS X = tsPointsToPlanes::PLANE_SPARE;
constexpr double kSize[3] = {100, 60, 40};

// The block [0, 100] x [0, 60] x [0, 40] as 12 facets wound outwards.
srkMeshSurf block_mesh() {
    giPoint3coDynArr v;
    for (int k = 0; k < 8; ++k)
        v.append(giPoint3(k & 1 ? kSize[0] : 0, k & 2 ? kSize[1] : 0, k & 4 ? kSize[2] : 0));
    const intcoDynArr t = {0, 2, 3, 0, 3, 1, 4, 5, 7, 4, 7, 6, 0, 1, 5, 0, 5, 4,
                           2, 6, 7, 2, 7, 3, 0, 4, 6, 0, 6, 2, 1, 3, 7, 1, 7, 5};
    return srkMeshSurf(v, t);
}

// A point of face (axis, high) of the block at fractions (u, v) of the other
// two sides, and the face's outward normal.
giPoint3 face_point(int axis, int high, double u, double v, giVector3& normal) {
    double p[3], n[3] = {0, 0, 0};
    const int a = (axis + 1) % 3, b = (axis + 2) % 3;
    p[axis] = high * kSize[axis];
    p[a] = u * kSize[a];
    p[b] = v * kSize[b];
    n[axis] = high ? 1 : -1;
    normal = giVector3(n[0], n[1], n[2]);
    return giPoint3(p[0], p[1], p[2]);
}

// A probe ball of radius r touching the nominal point s (outward normal n),
// measured where motion^-1 puts it.
tsFitPoint3coPrf probed(const giXform3& motion, const giPoint3& s, const giVector3& n,
                        double r = 1.0) {
    const giXform3 back = motion.inverse();
    return tsFitPoint3coPrf(new tsProbedPoint3(back * (s + r * n), giUnitVec3(back * n), r));
}

// Fitting points on the faces listed (axis, high), `per_face` each.
void add_faces(tsRPSFitting& rps, const giXform3& motion, std::vector<std::pair<int, int>> faces,
               int per_face, std::uint64_t seed) {
    testsupport::Rng rng(seed);
    for (auto [axis, high] : faces)
        for (int k = 0; k < per_face; ++k) {
            giVector3 n;
            const giPoint3 s =
                face_point(axis, high, rng.uniform(0.1, 0.9), rng.uniform(0.1, 0.9), n);
            rps.add_point(probed(motion, s, n), -DBL_MAX, DBL_MAX);
        }
}

// A positioning point of the block: nominal q on a face, measured where
// motion^-1 puts it, holding the world directions given by the states.
void position(tsRPSFitting& rps, const giXform3& motion, const giPoint3& q, PS x, PS y, PS z) {
    const giWorkplane3 world(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), giUnitVec3(1, 0, 0));
    rps.add_positioning(motion.inverse() * q, world, q, x, y, z);
}

// 3-2-1 positioning: three points on the bottom (z), two on the front (y),
// one on the left end (x); `side` is the state of the last three.
void three_two_one(tsRPSFitting& rps, const giXform3& motion, PS side) {
    position(rps, motion, giPoint3(10, 10, 0), I, I, L);
    position(rps, motion, giPoint3(90, 10, 0), I, I, L);
    position(rps, motion, giPoint3(50, 50, 0), I, I, L);
    position(rps, motion, giPoint3(20, 0, 20), I, side, I);
    position(rps, motion, giPoint3(80, 0, 20), I, side, I);
    position(rps, motion, giPoint3(0, 30, 20), side, I, I);
}

// The block's mesh and its projector.
class RPSFitting : public ::testing::Test {
   protected:
    const srkMeshSurf mesh = block_mesh();
    const tsSurfProjectorForFitting3 projector{&mesh};
};

double max_difference(const giXform3& a, const giXform3& b, double shift_weight) {
    double worst = 0.0;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            worst = std::max(worst, std::fabs(a(r, c) - b(r, c)) * (c == 3 ? shift_weight : 1.0));
    return worst;
}

// Exact data: the positioning holds and the points settle, whether it is
// complete, completed by spares, or partly soft.
TEST_F(RPSFitting, RecoversTheMotionOfAPositionedBlock) {
    const struct {
        PS side;
        std::vector<std::pair<int, int>> faces;
        giXform3 motion;
        int per_face = 8;
    } cases[] = {
        {L, {{0, 1}, {1, 1}, {2, 1}}, testsupport::random_motion(0.5, 0.3, 3)},
        // Enough points for the first search to run on a sample.
        {L, {{0, 1}, {1, 1}, {2, 1}}, testsupport::random_motion(1.0, 0.5, 7), 150},
        // Fitting points on the top only: the spares must fix x, y and the
        // turn about z.
        {X, {{2, 1}}, testsupport::random_motion(0.5, 0.3, 4)},
        {L, {{2, 1}, {0, 1}}, testsupport::random_motion(2.0, 1.0, 5)},
        // Soft side locators: held lightly, exact data still fit exactly.
        {S, {{0, 1}, {1, 1}, {2, 1}}, testsupport::random_motion(0.5, 0.3, 6)},
    };
    for (const auto& c : cases) {
        tsRPSFitting rps(50, 1e-9);
        rps.set_projector(&projector);
        three_two_one(rps, c.motion, c.side);
        add_faces(rps, c.motion, c.faces, c.per_face, 11);
        EXPECT_EQ(rps.fit(), tsRPS_FITTING_OK);
        EXPECT_EQ(rps.num_valid_projections(), c.per_face * static_cast<int>(c.faces.size()));
        EXPECT_EQ(rps.points_to_planes().positioning_entries().size(), 6);
        EXPECT_LT(max_difference(rps.transform(), c.motion, 0.01), 1e-9);
        EXPECT_LT(rps.standard_deviation_of_nominals(), 1e-8);
        EXPECT_LT(rps.square_deviation(), 1e-16);
        EXPECT_GT(rps.get_iterations(), 1);
    }
}

// A block measured 0.2 too tall stays on its z locators; the top shows the
// whole excess.
TEST_F(RPSFitting, PositioningHoldsAgainstTheFittingPoints) {
    const giXform3 motion = testsupport::random_motion(0.3, 0.2, 8);
    tsRPSFitting rps(50, 1e-9);
    rps.set_projector(&projector);
    three_two_one(rps, motion, L);
    testsupport::Rng rng(2);
    for (int k = 0; k < 12; ++k) {
        giVector3 n;
        const giPoint3 s = face_point(2, 1, rng.uniform(0.1, 0.9), rng.uniform(0.1, 0.9), n);
        rps.add_point(probed(motion, s + giVector3(0, 0, 0.2), n), -DBL_MAX, DBL_MAX);
    }
    add_faces(rps, motion, {{0, 1}, {1, 1}}, 6, 9);
    ASSERT_EQ(rps.fit(), tsRPS_FITTING_OK);
    EXPECT_LT(rps.standard_deviation_of_nominals(), 1e-4);
    for (int k = 0; k < 12; ++k)
        EXPECT_NEAR(rps.projected_points()[k].signed_distance(), 0.2, 1e-4);
}

// Moves the plane z = 0 up and down by 1 on every batch, or loses two
// points in three after the first batch.
class FickleProjector : public tsProjectorForFitting3 {
   public:
    FickleProjector(int points, bool lose) : points_(points), lose_(lose) {}
    void rotate_and_project(const giXform3& X, const tsProbedPoint3* point,
                            tsProjectedPoint3& out) const override {
        const int batch = calls_ / points_, index = calls_ % points_;
        ++calls_;
        if (lose_ && batch > 0 && index % 3 != 0) {
            out.set_invalid();
            return;
        }
        const giPoint3 p = X * point->measured_point();
        const double level = batch % 2 ? 1.0 : -1.0;
        out = tsProjectedPoint3(p, giPoint3(p.x(), p.y(), level), giUnitVec3(0, 0, 1));
    }

   private:
    int points_;
    bool lose_;
    mutable int calls_ = 0;
};

// Too few projections (-1), projections lost (-3), no improvement for 11
// passes stops, and the iteration limit (1).
TEST_F(RPSFitting, StatusesAndStops) {
    const giXform3 motion = testsupport::random_motion(0.5, 0.3, 3);
    {
        tsRPSFitting rps(50, 1e-9);
        rps.set_projector(&projector);
        add_faces(rps, motion, {{2, 1}}, 2, 1);
        EXPECT_EQ(rps.fit(), tsRPS_FITTING_TOO_FEW_PROJECTIONS);
        EXPECT_EQ(rps.get_iterations(), 0);
        EXPECT_TRUE(rps.transform().is_identity());
        // A locator makes the same points enough.
        position(rps, motion, giPoint3(10, 10, 0), I, I, L);
        EXPECT_GE(rps.fit(), 0);
    }
    for (int lose = 0; lose < 2; ++lose) {
        FickleProjector fickle(12, lose == 1);
        tsRPSFitting rps(100, 1e-9);
        rps.set_projector(&fickle);
        testsupport::Rng rng(5);
        for (int k = 0; k < 12; ++k)
            rps.add_point(
                tsFitPoint3coPrf(new tsProbedPoint3(
                    giPoint3(rng.uniform(0, 50), rng.uniform(0, 50), 0), giUnitVec3(0, 0, 1), 0.0)),
                -DBL_MAX, DBL_MAX);
        if (lose) {
            EXPECT_EQ(rps.fit(), tsRPS_FITTING_PROJECTIONS_LOST);
            EXPECT_EQ(rps.num_valid_projections(), 4);
        } else {
            // The distance stays 0 after the first pass: 11 passes (of one
            // or two tries) later the fit stops.
            EXPECT_EQ(rps.fit(), tsRPS_FITTING_OK);
            EXPECT_GE(rps.get_iterations(), 12);
            EXPECT_LE(rps.get_iterations(), 24);
        }
    }
    {
        tsRPSFitting rps(2, 1e-12);
        rps.set_projector(&projector);
        add_faces(rps, motion, {{0, 1}, {1, 1}, {2, 1}, {0, 0}, {1, 0}, {2, 0}}, 4, 6);
        EXPECT_EQ(rps.fit(), tsRPS_FITTING_NOT_CONVERGED);
        EXPECT_EQ(rps.get_iterations(), 3);
    }
}

}  // namespace
