// Surface bestfit of probed points: a known motion recovered on analytic
// surfaces, repeatably, and bad input.
#include "metrofit/bestfit/surface_bestfit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "metrofit/platform/surface/analytic_surfaces.h"
#include "metrofit/platform/surface/mesh_surface.h"
#include "tests/support/random.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::Rng;

// Analytic patches kept to their boxes: the feet within 10 and twice the
// nearest distance, nearest first (the far side of the pocket is not offered).
class PatchSurf : public srkSurf {
   public:
    struct Patch {
        srkSurfPtr surface;
        giPoint3 lo, hi;
    };
    std::vector<Patch> patches;

    int project_all(const giPoint3& p, srkSurfPointList& out, int& info) const override {
        std::vector<srkSurfPoint> feet;
        for (int k = 0; k < static_cast<int>(patches.size()); ++k) {
            srkSurfPointList local;
            int n = 0;
            patches[k].surface->project_all(p, local, n);
            for (const srkSurfPoint& s : local) {
                const giPoint3& q = s.position;
                bool inside = true;
                for (int c = 0; c < 3; ++c)
                    inside = inside && q[c] >= patches[k].lo[c] && q[c] <= patches[k].hi[c];
                if (inside) feet.push_back(srkSurfPoint(q, s.u, s.v, k));
            }
        }
        std::stable_sort(feet.begin(), feet.end(),
                         [&](const srkSurfPoint& a, const srkSurfPoint& b) {
                             return (a.position - p).length() < (b.position - p).length();
                         });
        int count = 0;
        for (const srkSurfPoint& s : feet)
            if ((s.position - p).length() <=
                std::min(10.0, 2.0 * (feet[0].position - p).length() + 0.1)) {
                out.append(s);
                ++count;
            }
        return info = count;
    }
    giUnitVec3 normal_at(const srkSurfPoint& s, const giAngle& tol) const override {
        return patches[s.facet].surface->normal_at(srkSurfPoint(s.position, s.u, s.v), tol);
    }
    srkSurfPtr clone() const override { return std::make_shared<PatchSurf>(*this); }

   protected:
    int transform_in_place(const giXform3&) override { return 0; }
};

struct Part {
    std::shared_ptr<PatchSurf> surface = std::make_shared<PatchSurf>();
    std::vector<giPoint3> feet;  // nominal surface points
    std::vector<giUnitVec3> normals;
    void add(const giPoint3& foot, const giVector3& normal) {
        feet.push_back(foot);
        normals.push_back(giUnitVec3(normal));
    }
};

// A block corner (faces x = 0, y = 0, z = 0), a cylindrical boss and a
// spherical pocket: together they fix every rigid motion.
Part block_part(int per_patch, std::uint64_t seed) {
    Part part;
    auto add = [&](srkSurfPtr s, giPoint3 lo, giPoint3 hi) {
        part.surface->patches.push_back({s, lo, hi});
    };
    add(std::make_shared<srkPlaneSurf>(giPoint3(0, 0, 0), giVector3(-1, 0, 0)),
        giPoint3(-1e-9, 0, 0), giPoint3(1e-9, 80, 60));
    add(std::make_shared<srkPlaneSurf>(giPoint3(0, 0, 0), giVector3(0, -1, 0)),
        giPoint3(0, -1e-9, 0), giPoint3(100, 1e-9, 60));
    add(std::make_shared<srkPlaneSurf>(giPoint3(0, 0, 0), giVector3(0, 0, -1)),
        giPoint3(0, 0, -1e-9), giPoint3(100, 80, 1e-9));
    add(std::make_shared<srkCylinderSurf>(giPoint3(70, 40, 60), giVector3(0, 0, 1), 8.0),
        giPoint3(60, 30, 60), giPoint3(80, 50, 80));
    add(std::make_shared<srkSphereSurf>(giPoint3(30, 40, 60), 10.0), giPoint3(15, 25, 45),
        giPoint3(45, 55, 60));
    Rng rng(seed);
    for (int k = 0; k < per_patch; ++k) {
        const double u = rng.uniform(0.1, 0.9), v = rng.uniform(0.1, 0.9),
                     w = rng.uniform(-3.1, 3.1);
        // Inside the pocket the surface faces the pocket's centre.
        const giVector3 d(std::cos(w) * std::sin(0.3 + u), std::sin(w) * std::sin(0.3 + u),
                          -std::cos(0.3 + u));
        part.add(giPoint3(0, 80 * u, 60 * v), giVector3(-1, 0, 0));
        part.add(giPoint3(100 * u, 0, 60 * v), giVector3(0, -1, 0));
        part.add(giPoint3(100 * u, 80 * v, 0), giVector3(0, 0, -1));
        part.add(giPoint3(70 + 8 * std::cos(w), 40 + 8 * std::sin(w), 64 + 8 * u),
                 giVector3(std::cos(w), std::sin(w), 0));
        part.add(giPoint3(30, 40, 60) + d * 10.0, giVector3(0, 0, 0) - d);
    }
    return part;
}

// Probed points: ball centres of radius r on the nominal, moved by motion,
// with noise along the normal.
std::vector<tsFitPoint3coPrf> probe(const Part& part, const giXform3& motion, double r,
                                    double sigma = 0.0, std::uint64_t seed = 3) {
    Rng rng(seed);
    std::vector<tsFitPoint3coPrf> points;
    for (size_t i = 0; i < part.feet.size(); ++i) {
        const giPoint3 centre = part.feet[i] + part.normals[i] * (r + rng.normal(sigma));
        points.push_back(
            tsFitPoint3coPrf(new tsProbedPoint3(motion * centre, motion * part.normals[i], r)));
    }
    return points;
}

double pose_error(const giXform3& T, const giXform3& E, const Part& part) {
    double worst = 0.0;
    for (const giPoint3& p : part.feet) worst = std::max(worst, (T * p - E * p).length());
    return worst;
}

struct Outputs {
    giXform3 T;
    double max_distance = -1, max_signed = -1, min_signed = 1;
    int unprojected = -1;
};

Outputs run(tsSurfaceBestfit& fit, double tolerance = 1e-12) {
    Outputs o;
    fit.fit(tolerance, o.T, o.max_distance, o.max_signed, o.min_signed, o.unprojected);
    return o;
}

TEST(SurfaceBestfit, RecoversAKnownMotionOfProbedPoints) {
    const Part part = block_part(8, 1);
    const tsSurfaceForFitting nominal(part.surface);
    const tsSurfProjectorForFitting3 projector(part.surface.get());
    const giXform3 motion =
        giXform3(giVector3(1.5, -2, 1)) *
        giXform3::rotation(giPoint3(50, 40, 30), giVector3(1, 2, 3), giAngle(1, 3));
    tsSurfaceBestfit fit;
    fit.set_projector(&projector);
    for (const tsFitPoint3coPrf& p : probe(part, motion, 2.0)) fit.add_point(p);
    const Outputs o = run(fit);
    // The free step drops turns below 1e-7 rad: within that angle times the
    // part size.
    EXPECT_LT(pose_error(o.T, motion.inverse(), part), 1e-7 * 100);
    EXPECT_LT(o.max_distance, 1e-5);
    EXPECT_EQ(o.unprojected, 0);
    EXPECT_GE(o.min_signed, -1e-5);
    // A second fit starts again from the identity and repeats the first.
    const Outputs again = run(fit);
    EXPECT_TRUE(equal(o.T, again.T, 0.0));
}

// Each lock holds exactly and the motion it allows is still found; a band
// the pose meets is kept, and bands that exclude each other are recorded
// and the fit rolls back to the last good pose.
TEST(SurfaceBestfit, LocksAndBandsHold) {
    const Part part = block_part(6, 2);
    const tsSurfProjectorForFitting3 projector(part.surface.get());
    const giXform3 motion =
        giXform3(giVector3(0.5, 1, -0.5)) *
        giXform3::rotation(giPoint3(50, 40, 30), giVector3(1, 2, 3), giAngle(1, 2));
    const giPoint3 pivot(50, 40, 30);
    const giVector3 a = motion * giVector3(0, 0, 1);
    for (int lock = 0; lock < 3; ++lock) {
        SCOPED_TRACE(lock);
        tsSurfaceBestfit fit;
        fit.set_projector(&projector);
        for (const tsFitPoint3coPrf& p : probe(part, motion, 1.0)) fit.add_point(p);
        if (lock == 0)
            fit.lock_rotations(giVector3(1, 0, 0), giVector3(0, 1, 0), giVector3(0, 0, 1));
        if (lock == 1) fit.lock_origin(motion * pivot, pivot);
        if (lock == 2)
            fit.lock_axis(tsSURFACE_BESTFIT_AXIS_DIRECTION, a, giVector3(0, 0, 1), giPoint3(),
                          giPoint3());
        const Outputs o = run(fit);
        if (lock == 0) {
            for (int r = 0; r < 3; ++r)
                for (int c = 0; c < 3; ++c) EXPECT_EQ(o.T(r, c), r == c ? 1.0 : 0.0);
            continue;
        }
        if (lock == 1) {
            EXPECT_LT((o.T * (motion * pivot) - pivot).length(), 1e-9);
        }
        if (lock == 2) {
            EXPECT_LT((o.T * a - giVector3(0, 0, 1)).length(), 1e-12);
        }
        EXPECT_LT(pose_error(o.T, motion.inverse(), part), 1e-6);
    }
    tsSurfaceBestfit banded, conflict;
    banded.set_projector(&projector);
    conflict.set_projector(&projector);
    for (const tsFitPoint3coPrf& p : probe(part, giXform3(giVector3(0.3, 0, 0)), 1.0, 0.01))
        banded.add_point(p, -0.1, 0.1, 1.0);
    const Outputs b = run(banded, 1e-9);
    EXPECT_GE(b.min_signed, -0.1 - 1e-9);
    EXPECT_LE(b.max_signed, 0.1 + 1e-9);
    EXPECT_EQ(banded.overdetermined_constraints().size(), 0);
    for (const tsFitPoint3coPrf& p : probe(part, giXform3(giIdentity), 1.0)) conflict.add_point(p);
    const tsFitPoint3coPrf spot(
        new tsProbedPoint3(giPoint3(50, 40, -1), giUnitVec3(0, 0, -1), 1.0));
    conflict.add_point(spot, 0.2, 0.3, 1.0);
    conflict.add_point(spot, -0.3, -0.2, 1.0);
    EXPECT_TRUE(run(conflict).T.is_identity(1e-9));
    EXPECT_GT(conflict.overdetermined_constraints().size(), 0);
}

TEST(SurfaceBestfit, EmptyUnprojectableAndWeightlessInput) {
    tsSurfaceBestfit empty;
    Outputs o;
    o.T = giXform3(giVector3(1, 2, 3));
    const giXform3 before = o.T;
    empty.fit(1e-6, o.T, o.max_distance, o.max_signed, o.min_signed, o.unprojected);
    EXPECT_TRUE(equal(o.T, before, 0.0));
    EXPECT_EQ(o.max_distance, -1);
    EXPECT_EQ(o.unprojected, -1);

    // No projector: every point unprojected, the extremes 0.
    const Part part = block_part(2, 4);
    tsSurfaceBestfit none;
    for (const tsFitPoint3coPrf& p : probe(part, giXform3(giIdentity), 1.0)) none.add_point(p);
    none.add_point(tsFitPoint3coPrf(new tsProbedPoint3()), -1, 1, 0.0);  // weight 0: ignored
    EXPECT_EQ(none.nb_points(), 10);
    o = run(none);
    EXPECT_EQ(o.unprojected, 10);
    EXPECT_EQ(o.max_distance, 0.0);
    EXPECT_EQ(o.max_signed, 0.0);
    EXPECT_EQ(o.min_signed, 0.0);
    EXPECT_TRUE(o.T.is_identity());

    // Points far from every patch never project.
    const tsSurfProjectorForFitting3 projector(part.surface.get());
    tsSurfaceBestfit far;
    far.set_projector(&projector);
    far.add_point(
        tsFitPoint3coPrf(new tsProbedPoint3(giPoint3(500, 500, 500), giUnitVec3(0, 0, 1), 1.0)));
    o = run(far);
    EXPECT_EQ(o.unprojected, 1);

    // Movements of invalid points do not count.
    tsProjectedPoint3coDynArr pts(0, 1);
    pts[1] = tsProjectedPoint3(giPoint3(0, 0, 0), giPoint3(0, 0, 0), giUnitVec3(0, 0, 1));
    EXPECT_EQ(get_maximum_movement(pts, giXform3(giVector3(0, 3, 4))), 5.0);
    EXPECT_EQ(get_maximum_movement(tsProjectedPoint3coDynArr(), giXform3(giVector3(0, 3, 4))), 0.0);
}

}  // namespace
