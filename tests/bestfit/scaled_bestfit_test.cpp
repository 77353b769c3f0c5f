// Surface bestfit with a uniform scale: known motions and scales, what one
// surface alone fixes, the start from pairs, the centre, and bad input.
#include "metrofit/bestfit/scaled_bestfit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "metrofit/bestfit/surface_bestfit.h"
#include "metrofit/platform/surface/analytic_surfaces.h"
#include "metrofit/platform/surface/mesh_surface.h"
#include "tests/support/random.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::Rng;
using Fit = tsScaledSurfaceBestfit;

struct Sample {
    srkSurfPtr surface;
    std::vector<giPoint3> feet;
    std::vector<giUnitVec3> normals;
};

// A 100 x 60 x 40 box meshed with 12 facets wound outward, sampled on all
// six faces away from the edges.
Sample box(int per_face, std::uint64_t seed) {
    Sample s;
    const double size[3] = {100, 60, 40};
    giPoint3coDynArr v;
    for (int i = 0; i < 8; ++i)
        v.append(giPoint3(i & 1 ? size[0] : 0, i & 2 ? size[1] : 0, i & 4 ? size[2] : 0));
    const intcoDynArr t = {0, 2, 3, 0, 3, 1, 4, 5, 7, 4, 7, 6, 0, 1, 5, 0, 5, 4,
                           2, 6, 7, 2, 7, 3, 0, 4, 6, 0, 6, 2, 1, 3, 7, 1, 7, 5};
    s.surface = std::make_shared<srkMeshSurf>(v, t);
    Rng rng(seed);
    for (int f = 0; f < 6; ++f)
        for (int i = 0; i < per_face; ++i) {
            const int axis = f / 2, side = f % 2;
            double q[3], n[3] = {0, 0, 0};
            for (int c = 0; c < 3; ++c) q[c] = rng.uniform(0.05, 0.95) * size[c];
            q[axis] = side * size[axis];
            n[axis] = 2 * side - 1;
            s.feet.push_back(giPoint3(q[0], q[1], q[2]));
            s.normals.push_back(giUnitVec3(n[0], n[1], n[2]));
        }
    return s;
}

// A sphere (centre (0, 0, 10), radius 20; the cap above z = 15) or a ring
// of the plane z = 0 (radius 40 to 60).
Sample sphere_or_plane(int n, bool sphere, std::uint64_t seed) {
    Sample s;
    const giPoint3 c(0, 0, 10);
    if (sphere)
        s.surface = std::make_shared<srkSphereSurf>(c, 20.0);
    else
        s.surface = std::make_shared<srkPlaneSurf>(giPoint3(0, 0, 0), giVector3(0, 0, 1));
    Rng rng(seed);
    for (int i = 0; i < n; ++i) {
        const double f = rng.uniform(0, 2 * Rng::kPi), t = std::acos(rng.uniform(0.25, 1.0));
        const double r = rng.uniform(40, 60);
        const giUnitVec3 d(std::sin(t) * std::cos(f), std::sin(t) * std::sin(f), std::cos(t));
        s.feet.push_back(sphere ? c + d * 20.0 : giPoint3(r * std::cos(f), r * std::sin(f), 0));
        s.normals.push_back(sphere ? d : giUnitVec3(0, 0, 1));
    }
    return s;
}

// x -> R (c + s (x - c)) + t, R by `degrees` about a fixed skew axis.
giXform3 similarity(double s, double degrees, const giVector3& t, const giPoint3& c) {
    const giVector3 cv = c - giPoint3(0, 0, 0);
    return giXform3::translation(t) *
           giXform3::rotation(giPoint3(0, 0, 0), giVector3(1, 2, 3), giAngle(1, degrees)) *
           giXform3::translation(cv) * giXform3::scaling(s, s, s) *
           giXform3::translation(cv * -1.0);
}

// The feet (the first `proud` of the +x face 0.05 out) moved by the inverse
// of `truth`, with noise sigma along the normal; radius 0.
std::vector<tsFitPoint3coPrf> measured(const Sample& s, const giXform3& truth, double sigma,
                                       std::uint64_t seed, int proud = 0) {
    const giXform3 back = truth.inverse();
    Rng rng(seed);
    std::vector<tsFitPoint3coPrf> out;
    for (std::size_t i = 0; i < s.feet.size(); ++i) {
        const double up = s.normals[i].x() > 0.5 && proud-- > 0 ? 0.05 : 0.0;
        const giPoint3 q = s.feet[i] + s.normals[i] * (rng.normal(sigma) + up);
        out.push_back(tsFitPoint3coPrf(new tsProbedPoint3(back * q, back * s.normals[i], 0.0)));
    }
    return out;
}

// The largest distance between the images of the nominal feet under the
// inverse fitted map and under the inverse truth.
double worst_gap(const Sample& s, const giXform3& fitted, const giXform3& truth) {
    const giXform3 a = fitted.inverse(), b = truth.inverse();
    double worst = 0.0;
    for (const giPoint3& q : s.feet) worst = std::max(worst, (a * q - b * q).length());
    return worst;
}

struct Fitted {
    int status = -100;
    giXform3 xform, rigid;
    double scale = -1.0;
    int undetermined = -1, overdetermined = -1;
    std::vector<double> signed_distances;
};

// Fits the points (added plainly unless `setup` adds them itself) to the
// sample's surface.
Fitted run(const Sample& s, const std::vector<tsFitPoint3coPrf>& pts,
           const std::function<void(Fit&)>& setup = nullptr) {
    const tsSurfProjectorForFitting3 projector(s.surface.get());
    Fit fit;
    fit.set_projector(&projector);
    for (const tsFitPoint3coPrf& p : pts) fit.add_point(p);
    if (setup) setup(fit);
    Fitted f;
    f.status = fit.fit(1e-12, f.xform, f.scale);
    f.rigid = fit.get_rigid_part();
    f.undetermined = fit.n_undetermined();
    f.overdetermined = fit.overdetermined_constraints().size();
    for (const tsProjectedPoint3& p : fit.get_pointcloud())
        f.signed_distances.push_back(p.signed_distance());
    return f;
}

TEST(ScaledSurfaceBestfit, RecoversAKnownMotionAndScale) {
    // Exact data: 1e-9 relative. With noise sigma and n points the scale is
    // known to about sigma / (L sqrt(n)), L ~ 30: tolerances 10 times that.
    const struct {
        double scale, degrees, shift, sigma;
        double scale_tol, gap_tol;  // relative scale error, largest point gap
    } cases[] = {{1.002, 2.0, 1.5, 0.0, 1e-9, 1e-7},
                 {0.995, -3.0, 2.0, 0.0, 1e-9, 1e-7},
                 {0.995, 2.0, 1.0, 0.005, 2e-5, 5e-3}};
    const Sample s = box(100, 3);
    for (const auto& k : cases) {
        SCOPED_TRACE(k.scale);
        const giXform3 truth = similarity(
            k.scale, k.degrees, giVector3(k.shift, -k.shift, 0.5 * k.shift), giPoint3(10, 20, 5));
        const Fitted f = run(s, measured(s, truth, k.sigma, 5));
        ASSERT_GT(f.status, 0);
        EXPECT_NEAR(f.scale / k.scale, 1.0, k.scale_tol);
        EXPECT_LT(worst_gap(s, f.xform, truth), k.gap_tol);
        // The reported scale is the cube root of the map's determinant.
        EXPECT_NEAR(std::cbrt(f.xform.determinant()) / f.scale, 1.0, 1e-12);
    }
}

TEST(ScaledSurfaceBestfit, ReportsWhatOneSurfaceAloneLeavesOpen) {
    // A plane fixes no scale (refused unless fixed); a sphere fixes it but
    // leaves its turns about the centre undetermined.
    const giXform3 truth = similarity(1.002, 0.0, giVector3(0.3, 0.2, 0.1), giPoint3(0, 0, 0));
    const Sample plane = sphere_or_plane(200, false, 6);
    EXPECT_EQ(run(plane, measured(plane, truth, 0.0, 1)).status,
              tsSCALED_BESTFIT_SCALE_UNDETERMINED);
    const Fitted fixed = run(plane, measured(plane, truth, 0.0, 1), [](Fit& f) { f.fix_scale(1); });
    EXPECT_GT(fixed.status, 0);
    EXPECT_EQ(fixed.scale, 1.0);

    const Sample sphere = sphere_or_plane(200, true, 7);
    const Fitted f = run(sphere, measured(sphere, truth, 0.0, 1));
    ASSERT_GT(f.status, 0);
    EXPECT_NEAR(f.scale, 1.002, 1e-9);
    EXPECT_EQ(f.undetermined, 3);
}

TEST(ScaledSurfaceBestfit, PairsBringInAFarOffStart) {
    // 30 degrees and 50 mm away: the local iteration alone ends elsewhere;
    // four corners picked roughly (0.5 mm off) start it close enough.
    const Sample s = box(60, 10);
    const giXform3 truth = similarity(1.002, 30.0, giVector3(30, -30, 28), giPoint3(50, 30, 20));
    const std::vector<tsFitPoint3coPrf> pts = measured(s, truth, 0.0, 11);
    const Fitted alone = run(s, pts);
    EXPECT_FALSE(alone.status > 0 && worst_gap(s, alone.xform, truth) < 1e-3);

    const Fitted paired = run(s, pts, [&](Fit& f) {
        for (const giPoint3& c :
             {giPoint3(0, 0, 0), giPoint3(100, 0, 0), giPoint3(0, 60, 0), giPoint3(0, 0, 40)})
            f.add_pair(truth.inverse() * c + giVector3(0.3, -0.4, 0.2), c);
    });
    ASSERT_GT(paired.status, 0);
    EXPECT_NEAR(paired.scale, 1.002, 1e-9);
    EXPECT_LT(worst_gap(s, paired.xform, truth), 1e-7);
}

TEST(ScaledSurfaceBestfit, CentreOnlySplitsTheResultAndRunsRepeatBitForBit) {
    const Sample s = box(40, 12);
    const giPoint3 c(10, 20, 5), far(500, -300, 200);
    const std::vector<tsFitPoint3coPrf> pts =
        measured(s, similarity(0.995, 1.0, giVector3(1, 2, 3), c), 0.002, 13);
    Fitted f[3];
    for (int k = 0; k < 3; ++k) {
        const giPoint3 centre = k < 2 ? c : far;
        f[k] = run(s, pts, [&](Fit& b) { b.set_scale_centre(centre); });
        ASSERT_GT(f[k].status, 0);
        // The rigid part carries the centre where the map does.
        EXPECT_LT((f[k].rigid * centre - f[k].xform * centre).length(), 1e-9);
    }
    EXPECT_TRUE(equal(f[0].xform, f[1].xform, 0.0));
    EXPECT_EQ(f[0].scale, f[1].scale);
    EXPECT_LT(worst_gap(s, f[0].xform, f[2].xform), 1e-9);
    EXPECT_NEAR(f[0].scale, f[2].scale, 1e-12);
}

// Locks hold exactly (a locked point, a locked direction, a line through a
// point, shifts along x only) and, true to the data, recover the truth; a
// band of +-0.01 on points 0.05 proud holds; a contradicting band is
// recorded.
TEST(ScaledSurfaceBestfit, LocksAndBandsHold) {
    const Sample s = box(30, 16);
    const giXform3 truth = similarity(1.002, 2.0, giVector3(0.5, -0.4, 0.3), giPoint3(10, 20, 5));
    const giXform3 back = truth.inverse();
    const std::vector<tsFitPoint3coPrf> pts = measured(s, truth, 0.0, 17);
    const giPoint3 q0(50, 30, 20), m0 = back * q0;
    const giVector3 a(0, 0, 1), dm = back * a;
    for (int lock = 0; lock < 3; ++lock) {
        SCOPED_TRACE(lock);
        const Fitted f = run(s, pts, [&](Fit& b) {
            if (lock == 0) b.lock_origin(m0, q0);
            if (lock > 0)
                b.lock_axis(lock == 1 ? tsSURFACE_BESTFIT_AXIS_DIRECTION
                                      : tsSURFACE_BESTFIT_AXIS_THROUGH_POINT,
                            dm, a, m0, q0);
        });
        ASSERT_GT(f.status, 0);
        const giVector3 d = f.xform * dm, v = f.xform * m0 - q0;
        if (lock != 1) {
            EXPECT_LT((v - a * (lock == 2 ? dot(a, v) : 0.0)).length(), 1e-10);
        }
        if (lock > 0) {
            EXPECT_LT((d * (1.0 / d.length()) - a).length(), 1e-12);
        }
        EXPECT_LT(worst_gap(s, f.xform, truth), 1e-7);
    }
    const Fitted shift = run(
        s, measured(s, similarity(1.002, 1.0, giVector3(0.7, 0.4, 0), giPoint3(0, 0, 0)), 0.0, 15),
        [](Fit& b) { b.lock_rotations(giVector3(1, 0, 0), giVector3(), giVector3()); });
    ASSERT_GT(shift.status, 0);
    for (int r = 0; r < 3; ++r)
        for (int j = 0; j < 3; ++j)
            EXPECT_NEAR(shift.xform(r, j), r == j ? shift.scale : 0.0, 1e-15);
    EXPECT_NEAR(shift.xform(1, 3), 0.0, 1e-12);

    const std::vector<tsFitPoint3coPrf> proud = measured(s, truth, 0.0, 17, 5);
    std::vector<int> bumped;  // the first five of the +x face
    for (std::size_t i = 0; i < s.feet.size() && bumped.size() < 5; ++i)
        if (s.normals[i].x() > 0.5) bumped.push_back(static_cast<int>(i));
    for (int banded : {0, 1, 2}) {
        SCOPED_TRACE(banded);
        const Fitted f = run(s, {}, [&](Fit& b) {
            for (std::size_t i = 0; i < proud.size(); ++i) {
                const bool on =
                    banded && std::find(bumped.begin(), bumped.end(), i) != bumped.end();
                b.add_point(proud[i], on ? -0.01 : -DBL_MAX, on ? 0.01 : DBL_MAX, 1.0);
            }
            if (banded == 2) b.add_point(proud[bumped[0]], 0.5, 0.6, 1.0);
        });
        ASSERT_GT(f.status, 0);
        double worst = 0.0;
        for (int i : bumped) worst = std::max(worst, std::fabs(f.signed_distances[i]));
        if (banded == 0) {
            EXPECT_GT(worst, 0.03);
        }
        if (banded == 1) {
            EXPECT_LE(worst, 0.01 + 1e-9);
        }
        EXPECT_EQ(f.overdetermined > 0, banded == 2);
    }
}

TEST(ScaledSurfaceBestfit, RefusesBadInputAndLeavesOutputsUntouched) {
    const Sample s = box(10, 16);
    const std::vector<tsFitPoint3coPrf> pts = measured(s, giXform3::identity(), 0.0, 17);
    const double nan = std::nan("");
    const giPoint3 o(0, 0, 0);
    const giVector3 z(0, 0, 1);
    const tsProjectorForFitting3 projects_nothing;
    const tsSurfProjectorForFitting3 projector(s.surface.get());
    const int bad = tsSCALED_BESTFIT_BAD_INPUT;
    const struct {
        const char* name;
        int status;
        std::function<void(Fit&)> setup;
        double tolerance = 1e-9;
    } cases[] = {
        {"no points", tsSCALED_BESTFIT_NO_POINTS, [](Fit& f) { f = Fit(); }},
        {"no projector", tsSCALED_BESTFIT_NONE_PROJECTING,
         [](Fit& f) { f.set_projector(nullptr); }},
        {"nothing projects", tsSCALED_BESTFIT_NONE_PROJECTING,
         [&](Fit& f) { f.set_projector(&projects_nothing); }},
        {"all points at one place", tsSCALED_BESTFIT_SINGULAR,
         [&](Fit& f) {
             f = Fit();
             f.set_projector(&projector);
             for (int i = 0; i < 5; ++i)
                 f.add_point(tsFitPoint3coPrf(
                     new tsProbedPoint3(giPoint3(50, 30, 0), giUnitVec3(0, 0, -1), 0.0)));
         }},
        {"two pairs", tsSCALED_BESTFIT_TOO_FEW_PAIRS,
         [&](Fit& f) { f.add_pair(o, o), f.add_pair(o + z, o + z); }},
        {"pairs on a line", tsSCALED_BESTFIT_DEGENERATE_PAIRS,
         [&](Fit& f) {
             for (int i = 0; i < 4; ++i) f.add_pair(giPoint3(i, i, i), giPoint3(i, i, i));
         }},
        {"NaN pair", bad, [&](Fit& f) { f.add_pair(giPoint3(nan, 0, 0), o); }},
        {"negative weight", bad, [&](Fit& f) { f.add_point(pts[0], -1.0); }},
        {"zero fixed scale", bad, [](Fit& f) { f.fix_scale(0.0); }},
        {"band upside down", bad, [&](Fit& f) { f.add_point(pts[0], 0.1, -0.1, 1.0); }},
        {"axis of no length", bad,
         [&](Fit& f) { f.lock_axis(tsSURFACE_BESTFIT_AXIS_DIRECTION, z * 0.0, z, o, o); }},
        {"NaN origin", bad, [&](Fit& f) { f.lock_origin(giPoint3(nan, 0, 0), o); }},
        {"NaN tolerance", bad, nullptr, nan},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Fit fit;
        fit.set_projector(&projector);
        for (const tsFitPoint3coPrf& p : pts) fit.add_point(p);
        if (c.setup) c.setup(fit);
        giXform3 x;
        double scale = -7.0;
        EXPECT_EQ(fit.fit(c.tolerance, x, scale), c.status);
        EXPECT_FALSE(x.is_set());
        EXPECT_EQ(scale, -7.0);
    }
}

}  // namespace
