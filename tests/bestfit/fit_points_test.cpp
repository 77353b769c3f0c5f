// Probe-compensated projection onto a surface: the candidate chosen, the
// rejections, ties and points on the surface.
#include "metrofit/bestfit/fit_points.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

// A surface that answers with scripted candidates and normals, so that the
// projector's choice can be checked case by case.
class ScriptedSurf : public srkSurf {
   public:
    std::vector<giPoint3> feet;
    std::vector<giUnitVec3> normals;
    mutable int projections = 0;
    // Nearest first, as surfaces list their foot points.
    int project_all(const giPoint3& p, srkSurfPointList& out, int& info) const override {
        std::vector<int> order(feet.size());
        for (int i = 0; i < static_cast<int>(feet.size()); ++i) order[i] = i;
        std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
            return (feet[a] - p).length() < (feet[b] - p).length();
        });
        for (int i : order) out.append(srkSurfPoint(feet[i], 0, 0, i));
        return info = static_cast<int>(feet.size());
    }
    giUnitVec3 normal_at(const srkSurfPoint& s, const giAngle&) const override {
        return normals[s.facet];
    }
    srkSurfPtr clone() const override { return std::make_shared<ScriptedSurf>(*this); }

   protected:
    int transform_in_place(const giXform3& X) override {
        for (giPoint3& p : feet) p = X * p;
        for (giUnitVec3& n : normals) n = X * n;
        return 1;
    }
};

tsProjectedPoint3 project(const ScriptedSurf& surf, const tsProbedPoint3& p,
                          const giXform3& X = giXform3(giIdentity)) {
    tsSurfProjectorForFitting3 projector(&surf);
    tsProjectedPoint3 out;
    p.project_from_position(X, out, &projector);
    return out;
}

TEST(SurfaceProjection, ChoosesTheCompensatedCandidateOnTheApproachSide) {
    // A thin wall, faces z = 0 (normal +z) and z = -1 (normal -z), under a
    // ceiling at z = 1 (normal -z). A ball of radius 0.5 centred 0.7 above
    // z = 0, probing downwards: the nearer ceiling lies behind the approach
    // and loses.
    ScriptedSurf wall;
    wall.feet = {giPoint3(1, 2, -1), giPoint3(1, 2, 0), giPoint3(1, 2, 1)};
    wall.normals = {giUnitVec3(0, 0, -1), giUnitVec3(0, 0, 1), giUnitVec3(0, 0, -1)};
    const tsProbedPoint3 probe(giPoint3(1, 2, 0.7), giUnitVec3(0, 0, 1), 0.5);
    const tsProjectedPoint3 r = project(wall, probe);
    ASSERT_FALSE(r.invalid());
    EXPECT_EQ(r.nominal_point(), giPoint3(1, 2, 0.5));  // foot + radius along +z
    EXPECT_NEAR(r.signed_distance(), 0.2, 1e-15);
    EXPECT_NEAR(static_cast<double>(r.distance()), 0.2, 1e-15);
    // Under a transform the measured point and the approach direction move.
    const giXform3 shift(giVector3(0, 0, -0.3));
    EXPECT_NEAR(project(wall, probe, shift).signed_distance(), -0.1, 1e-15);
    // Probing the same spot from below picks the lower face.
    const tsProbedPoint3 below(giPoint3(1, 2, -1.6), giUnitVec3(0, 0, -1), 0.5);
    EXPECT_EQ(project(wall, below).nominal_point(), giPoint3(1, 2, -1.5));
}

TEST(SurfaceProjection, RejectionsTiesAndPointsOnTheSurface) {
    ScriptedSurf s;
    const tsProbedPoint3 p(giPoint3(0, 0, 1), giUnitVec3(0, 0, 1), 0.0);
    EXPECT_TRUE(project(s, p).invalid());  // no candidate
    s.feet = {giPoint3(0, 0, 0)};
    s.normals = {giUnitVec3(0.02, 0, 1)};  // 0.02 rad off the line to the point
    EXPECT_TRUE(project(s, p).invalid());
    s.normals = {giUnitVec3(0.009, 0, 1)};
    EXPECT_FALSE(project(s, p).invalid());
    // Two accepted candidates with the same score: the first one wins.
    s.feet = {giPoint3(0, 0, 0), giPoint3(0, 0, 2)};
    s.normals = {giUnitVec3(0, 0, 1), giUnitVec3(0, 0, 1)};
    const tsProbedPoint3 sideways(giPoint3(0, 0, 1), giUnitVec3(1, 0, 0), 0.0);
    EXPECT_EQ(project(s, sideways).nominal_point(), giPoint3(0, 0, 0));
    // On the surface: the surface normal, turned towards the approach
    // direction, kept when perpendicular to it.
    s.feet = {giPoint3(0, 0, 1.00005)};
    s.normals = {giUnitVec3(0, 0, 1)};
    const tsProbedPoint3 from_below(giPoint3(0, 0, 1), giUnitVec3(0, 0.1, -1), 0.0);
    EXPECT_EQ(project(s, from_below).nominal_normal().z(), -1.0);
    EXPECT_EQ(project(s, sideways).nominal_normal().z(), 1.0);
    // Without a projector that projects probed points: invalid.
    tsProjectedPoint3 out(giPoint3(0, 0, 0), giPoint3(0, 0, 0), giUnitVec3(0, 0, 1));
    p.project_from_position(giXform3(giIdentity), out, nullptr);
    EXPECT_TRUE(out.invalid());
}

}  // namespace
