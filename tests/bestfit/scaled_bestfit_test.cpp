// Surface bestfit with a uniform scale: known motions and scales recovered
// on a meshed box and on a sphere standing over a plane, what one surface
// alone determines, the rough start from pairs, locks, and bad input.
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

// Several surfaces as one: every foot point of each, nearest first (the
// projector keeps the first of equal scores, so the nearest surface wins).
class UnionSurf : public srkSurf {
   public:
    std::vector<srkSurfPtr> parts;
    int project_all(const giPoint3& p, srkSurfPointList& out, int& info) const override {
        std::vector<srkSurfPoint> feet;
        for (int k = 0; k < static_cast<int>(parts.size()); ++k) {
            srkSurfPointList local;
            int n = 0;
            parts[k]->project_all(p, local, n);
            for (const srkSurfPoint& s : local)
                feet.push_back(srkSurfPoint(s.position, s.u, s.v, k));
        }
        std::stable_sort(feet.begin(), feet.end(),
                         [&](const srkSurfPoint& a, const srkSurfPoint& b) {
                             return (a.position - p).length() < (b.position - p).length();
                         });
        for (const srkSurfPoint& s : feet) out.append(s);
        return info = static_cast<int>(feet.size());
    }
    giUnitVec3 normal_at(const srkSurfPoint& s, const giAngle& tol) const override {
        return parts[s.facet]->normal_at(srkSurfPoint(s.position, s.u, s.v), tol);
    }
    srkSurfPtr clone() const override { return std::make_shared<UnionSurf>(*this); }

   protected:
    int transform_in_place(const giXform3&) override { return 0; }
};

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
    intcoDynArr t;
    for (int k : {0, 2, 3, 0, 3, 1, 4, 5, 7, 4, 7, 6, 0, 1, 5, 0, 5, 4,
                  2, 6, 7, 2, 7, 3, 0, 4, 6, 0, 6, 2, 1, 3, 7, 1, 7, 5})
        t.append(k);
    s.surface = std::make_shared<srkMeshSurf>(v, t);
    Rng rng(seed);
    for (int axis = 0; axis < 3; ++axis)
        for (int side = 0; side < 2; ++side)
            for (int i = 0; i < per_face; ++i) {
                double q[3];
                for (int c = 0; c < 3; ++c) q[c] = rng.uniform(0.05, 0.95) * size[c];
                q[axis] = side * size[axis];
                s.feet.push_back(giPoint3(q[0], q[1], q[2]));
                s.normals.push_back(giUnitVec3(axis == 0 ? 2 * side - 1 : 0,
                                               axis == 1 ? 2 * side - 1 : 0,
                                               axis == 2 ? 2 * side - 1 : 0));
            }
    return s;
}

// A sphere (centre (0, 0, 10), radius 20; the cap above z = 15) and a ring
// of the plane z = 0 (radius 40 to 60) around it; either part alone.
enum Parts { kSphere = 1, kPlane = 2 };
Sample sphere_plane(int n, int parts, std::uint64_t seed) {
    Sample s;
    auto u = std::make_shared<UnionSurf>();
    const giPoint3 c(0, 0, 10);
    if (parts & kSphere) u->parts.push_back(std::make_shared<srkSphereSurf>(c, 20.0));
    if (parts & kPlane)
        u->parts.push_back(std::make_shared<srkPlaneSurf>(giPoint3(0, 0, 0), giVector3(0, 0, 1)));
    s.surface = u;
    Rng rng(seed);
    for (int i = 0; i < n; ++i) {
        const double f = rng.uniform(0, 2 * Rng::kPi);
        if ((parts & kSphere) && (i % 2 == 0 || !(parts & kPlane))) {
            const double t = std::acos(rng.uniform(0.25, 1.0));
            const giUnitVec3 d(std::sin(t) * std::cos(f), std::sin(t) * std::sin(f), std::cos(t));
            s.feet.push_back(c + d * 20.0);
            s.normals.push_back(d);
        } else {
            const double r = rng.uniform(40, 60);
            s.feet.push_back(giPoint3(r * std::cos(f), r * std::sin(f), 0));
            s.normals.push_back(giUnitVec3(0, 0, 1));
        }
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

// Measured points: the nominal feet moved by the inverse of `truth`, with
// normal noise sigma along the surface normal; radius 0.
std::vector<tsFitPoint3coPrf> measured(const Sample& s, const giXform3& truth, double sigma,
                                       std::uint64_t seed) {
    const giXform3 back = truth.inverse();
    Rng rng(seed);
    std::vector<tsFitPoint3coPrf> out;
    for (std::size_t i = 0; i < s.feet.size(); ++i) {
        const giPoint3 q = s.feet[i] + s.normals[i] * rng.normal(sigma);
        out.push_back(tsFitPoint3coPrf(new tsProbedPoint3(back * q, back * s.normals[i], 0.0)));
    }
    return out;
}

// The largest distance between the images of the nominal feet under the
// inverse fitted map and under the inverse truth.
double worst_gap(const std::vector<giPoint3>& feet, const giXform3& fitted, const giXform3& truth) {
    const giXform3 a = fitted.inverse(), b = truth.inverse();
    double worst = 0.0;
    for (const giPoint3& q : feet) worst = std::max(worst, (a * q - b * q).length());
    return worst;
}
double worst_gap(const Sample& s, const giXform3& fitted, const giXform3& truth) {
    return worst_gap(s.feet, fitted, truth);
}

struct Fitted {
    int status = -100;
    giXform3 xform;
    double scale = -1.0;
    int undetermined = -1;
};

Fitted run(const Sample& s, const std::vector<tsFitPoint3coPrf>& pts,
           const std::function<void(tsScaledSurfaceBestfit&)>& setup = nullptr) {
    const tsSurfProjectorForFitting3 projector(s.surface.get());
    tsScaledSurfaceBestfit fit;
    fit.set_projector(&projector);
    for (const tsFitPoint3coPrf& p : pts) fit.add_point(p);
    if (setup) setup(fit);
    Fitted f;
    f.status = fit.fit(1e-12, f.xform, f.scale);
    f.undetermined = fit.n_undetermined();
    return f;
}

struct KnownCase {
    std::string name;
    bool on_box;
    double scale, degrees, shift, sigma;
    double scale_tol, gap_tol;  // relative scale error, largest point gap
};

TEST(ScaledSurfaceBestfit, RecoversAKnownMotionAndScale) {
    // Exact data: 1e-9 relative. With noise sigma and n points the scale is
    // known to about sigma / (L sqrt(n)), L ~ 30: tolerances 10 times that.
    const KnownCase cases[] = {
        {"box exact, grows", true, 1.002, 2.0, 1.5, 0.0, 1e-9, 1e-7},
        {"box exact, shrinks", true, 0.995, -3.0, 2.0, 0.0, 1e-9, 1e-7},
        {"sphere and plane exact", false, 1.002, 1.0, 0.8, 0.0, 1e-9, 1e-7},
        {"box noisy", true, 0.995, 2.0, 1.0, 0.005, 2e-5, 5e-3},
        {"sphere and plane noisy", false, 1.002, 1.0, 0.5, 0.005, 3e-5, 5e-3},
    };
    for (const KnownCase& k : cases) {
        SCOPED_TRACE(k.name);
        const Sample s = k.on_box ? box(100, 3) : sphere_plane(600, kSphere | kPlane, 4);
        const giXform3 truth = similarity(
            k.scale, k.degrees, giVector3(k.shift, -k.shift, 0.5 * k.shift), giPoint3(10, 20, 5));
        const Fitted f = run(s, measured(s, truth, k.sigma, 5));
        ASSERT_GT(f.status, 0);
        EXPECT_NEAR(f.scale / k.scale, 1.0, k.scale_tol);
        // The sphere over a plane leaves the turn about the sphere's vertical
        // axis open: only points of that axis are compared there.
        const std::vector<giPoint3> axis = {giPoint3(0, 0, 10), giPoint3(0, 0, 60)};
        EXPECT_LT(k.on_box ? worst_gap(s, f.xform, truth) : worst_gap(axis, f.xform, truth),
                  k.gap_tol);
        // The reported scale is the cube root of the map's determinant.
        EXPECT_NEAR(std::cbrt(f.xform.determinant()) / f.scale, 1.0, 1e-12);
    }
}

TEST(ScaledSurfaceBestfit, ReportsWhatOneSurfaceAloneLeavesOpen) {
    // A plane keeps its place under any scale about one of its points: the
    // scale is refused. A sphere fixes the scale (its radius) but not its
    // turn about the centre, which stays undetermined.
    const giXform3 truth = similarity(1.002, 0.0, giVector3(0.3, 0.2, 0.1), giPoint3(0, 0, 0));
    const Sample plane = sphere_plane(200, kPlane, 6);
    EXPECT_EQ(run(plane, measured(plane, truth, 0.0, 1)).status,
              tsSCALED_BESTFIT_SCALE_UNDETERMINED);
    const Fitted fixed = run(plane, measured(plane, truth, 0.0, 1),
                             [](tsScaledSurfaceBestfit& f) { f.fix_scale(1.0); });
    EXPECT_GT(fixed.status, 0);
    EXPECT_EQ(fixed.scale, 1.0);

    const Sample sphere = sphere_plane(200, kSphere, 7);
    const Fitted f = run(sphere, measured(sphere, truth, 0.0, 1));
    ASSERT_GT(f.status, 0);
    EXPECT_NEAR(f.scale, 1.002, 1e-9);
    EXPECT_EQ(f.undetermined, 3);
}

TEST(ScaledSurfaceBestfit, FixedUnitScaleAgreesWithTheRigidBestfit) {
    const Sample s = box(60, 8);
    const std::vector<tsFitPoint3coPrf> pts =
        measured(s, similarity(1.0, 2.0, giVector3(1, -1, 0.5), giPoint3(0, 0, 0)), 0.01, 9);
    const Fitted scaled = run(s, pts, [](tsScaledSurfaceBestfit& f) { f.fix_scale(1.0); });
    ASSERT_GT(scaled.status, 0);

    const tsSurfProjectorForFitting3 projector(s.surface.get());
    tsSurfaceBestfit rigid;
    rigid.set_projector(&projector);
    for (const tsFitPoint3coPrf& p : pts) rigid.add_point(p);
    giXform3 T;
    double a, b, c;
    int n;
    rigid.fit(1e-12, T, a, b, c, n);
    // The rigid bestfit's step has a weak attraction to the current
    // position, so the two minimisers agree to a small fraction of sigma;
    // a fitted scale would stray by about sigma.
    EXPECT_LT(worst_gap(s, scaled.xform, T), 1e-5);
}

TEST(ScaledSurfaceBestfit, PairsBringInAFarOffStart) {
    // 30 degrees and 50 mm away: the local iteration alone ends elsewhere;
    // four corners picked roughly (0.5 mm off) start it close enough.
    const Sample s = box(60, 10);
    const giXform3 truth = similarity(1.002, 30.0, giVector3(30, -30, 28), giPoint3(50, 30, 20));
    const std::vector<tsFitPoint3coPrf> pts = measured(s, truth, 0.0, 11);
    const Fitted alone = run(s, pts);
    EXPECT_FALSE(alone.status > 0 && worst_gap(s, alone.xform, truth) < 1e-3);

    const giXform3 back = truth.inverse();
    const Fitted paired = run(s, pts, [&](tsScaledSurfaceBestfit& f) {
        const giPoint3 corners[] = {giPoint3(0, 0, 0), giPoint3(100, 0, 0), giPoint3(0, 60, 0),
                                    giPoint3(0, 0, 40)};
        for (const giPoint3& c : corners) f.add_pair(back * c + giVector3(0.3, -0.4, 0.2), c);
    });
    ASSERT_GT(paired.status, 0);
    EXPECT_NEAR(paired.scale, 1.002, 1e-9);
    EXPECT_LT(worst_gap(s, paired.xform, truth), 1e-7);
}

TEST(ScaledSurfaceBestfit, CentreOnlySplitsTheResultAndRunsRepeatBitForBit) {
    const Sample s = box(40, 12);
    const giPoint3 c(10, 20, 5);
    const std::vector<tsFitPoint3coPrf> pts =
        measured(s, similarity(0.995, 1.0, giVector3(1, 2, 3), c), 0.002, 13);
    const tsSurfProjectorForFitting3 projector(s.surface.get());
    giXform3 maps[3];
    double scales[3];
    const giPoint3 centres[3] = {c, c, giPoint3(500, -300, 200)};
    for (int k = 0; k < 3; ++k) {
        tsScaledSurfaceBestfit fit;
        fit.set_projector(&projector);
        for (const tsFitPoint3coPrf& p : pts) fit.add_point(p);
        fit.set_scale_centre(centres[k]);
        ASSERT_GT(fit.fit(1e-12, maps[k], scales[k]), 0);
        // The rigid part carries the centre where the map does.
        EXPECT_LT((fit.get_rigid_part() * centres[k] - maps[k] * centres[k]).length(), 1e-9);
    }
    for (int r = 0; r < 3; ++r)
        for (int j = 0; j < 4; ++j) EXPECT_EQ(maps[0](r, j), maps[1](r, j));
    EXPECT_EQ(scales[0], scales[1]);
    EXPECT_LT(worst_gap(s, maps[0], maps[2]), 1e-9);
    EXPECT_NEAR(scales[0], scales[2], 1e-12);
}

TEST(ScaledSurfaceBestfit, LockedRotationsShiftAlongTheGivenAxesOnly) {
    const Sample s = box(40, 14);
    const giXform3 truth = similarity(1.002, 0.0, giVector3(0.7, 0.0, 0.0), giPoint3(0, 0, 0));
    const giXform3 turned = similarity(1.002, 1.0, giVector3(0.7, 0.4, 0.0), giPoint3(0, 0, 0));
    const Fitted f = run(s, measured(s, truth, 0.0, 15), [](tsScaledSurfaceBestfit& b) {
        b.lock_rotations(giVector3(2, 0, 0), giVector3(), giVector3());
    });
    ASSERT_GT(f.status, 0);
    EXPECT_LT(worst_gap(s, f.xform, truth), 1e-7);
    const Fitted g = run(s, measured(s, turned, 0.0, 15), [](tsScaledSurfaceBestfit& b) {
        b.lock_rotations(giVector3(1, 0, 0), giVector3(), giVector3());
    });
    ASSERT_GT(g.status, 0);
    for (int r = 0; r < 3; ++r)
        for (int j = 0; j < 3; ++j) EXPECT_NEAR(g.xform(r, j), r == j ? g.scale : 0.0, 1e-15);
    EXPECT_NEAR(g.xform(1, 3), 0.0, 1e-12);
    EXPECT_NEAR(g.xform(2, 3), 0.0, 1e-12);
}

TEST(ScaledSurfaceBestfit, OriginAndAxisLocksHoldExactly) {
    // Locks true to the data recover the truth; a lock off by a little
    // still holds exactly, and the fit moves away from the truth to keep it.
    const Sample s = box(40, 16);
    const giXform3 truth = similarity(1.002, 2.0, giVector3(0.5, -0.4, 0.3), giPoint3(10, 20, 5));
    const giXform3 back = truth.inverse();
    const std::vector<tsFitPoint3coPrf> pts = measured(s, truth, 0.0, 17);
    const giPoint3 q0(50, 30, 20);
    const giVector3 a(0, 0, 1);
    const giVector3 tilt(0.02, 0, 0);  // about 1.1 degrees
    enum Kind { kOrigin, kDirection, kThroughPoint };
    struct Case {
        const char* name;
        Kind kind;
        bool off;
    };
    const Case cases[] = {{"origin", kOrigin, false},
                          {"origin off", kOrigin, true},
                          {"direction", kDirection, false},
                          {"direction off", kDirection, true},
                          {"through point", kThroughPoint, false},
                          {"through point off", kThroughPoint, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const giPoint3 m0 =
            back * q0 + (c.off && c.kind == kOrigin ? tilt * 5.0 : giVector3(0, 0, 0));
        giVector3 dm = back * a;
        if (c.off && c.kind != kOrigin) dm = dm + tilt;
        const Fitted f = run(s, pts, [&](tsScaledSurfaceBestfit& b) {
            if (c.kind == kOrigin)
                b.lock_origin(m0, q0);
            else
                b.lock_axis(c.kind == kDirection ? tsSURFACE_BESTFIT_AXIS_DIRECTION
                                                 : tsSURFACE_BESTFIT_AXIS_THROUGH_POINT,
                            dm, a, m0, q0);
        });
        ASSERT_GT(f.status, 0);
        if (c.kind == kOrigin) {
            EXPECT_LT((f.xform * m0 - q0).length(), 1e-10);
        } else {
            const giVector3 d = f.xform * dm;
            EXPECT_LT((d * (1.0 / d.length()) - a).length(), 1e-12);
        }
        if (c.kind == kThroughPoint) {
            const giVector3 v = f.xform * m0 - q0;
            EXPECT_LT((v - a * dot(a, v)).length(), 1e-10);
        }
        if (c.off) {
            EXPECT_GT(worst_gap(s, f.xform, truth), 0.01);
        } else {
            EXPECT_LT(worst_gap(s, f.xform, truth), 1e-7);
        }
    }
}

TEST(ScaledSurfaceBestfit, BandsHoldAndContradictionsAreRecorded) {
    // Five points of the +x face stand 0.05 proud of the rest: the plain
    // fit leaves them about 0.04 out; bands of +-0.01 on them hold.
    const Sample s = box(30, 18);
    const giXform3 truth = similarity(1.001, 1.0, giVector3(0.2, 0.1, -0.3), giPoint3(0, 0, 0));
    const giXform3 back = truth.inverse();
    std::vector<tsFitPoint3coPrf> pts;
    std::vector<int> proud;
    for (std::size_t i = 0; i < s.feet.size(); ++i) {
        const bool bump = s.normals[i].x() > 0.5 && proud.size() < 5;
        if (bump) proud.push_back(static_cast<int>(i));
        const giPoint3 q = s.feet[i] + s.normals[i] * (bump ? 0.05 : 0.0);
        pts.push_back(tsFitPoint3coPrf(new tsProbedPoint3(back * q, back * s.normals[i], 0.0)));
    }
    const tsSurfProjectorForFitting3 projector(s.surface.get());
    for (int banded : {0, 1, 2}) {
        SCOPED_TRACE(banded);
        tsScaledSurfaceBestfit fit;
        fit.set_projector(&projector);
        for (std::size_t i = 0; i < pts.size(); ++i) {
            const bool on = banded && std::find(proud.begin(), proud.end(), i) != proud.end();
            fit.add_point(pts[i], on ? -0.01 : -DBL_MAX, on ? 0.01 : DBL_MAX, 1.0);
        }
        // The same point again with a band that excludes the first one's.
        if (banded == 2) fit.add_point(pts[proud[0]], 0.5, 0.6, 1.0);
        giXform3 T;
        double scale = 0.0;
        ASSERT_GT(fit.fit(1e-12, T, scale), 0);
        double worst = 0.0;
        for (int i : proud)
            worst = std::max(worst, std::fabs(fit.get_pointcloud()[i].signed_distance()));
        if (banded == 0) {
            EXPECT_GT(worst, 0.03);
            EXPECT_EQ(fit.overdetermined_constraints().size(), 0);
        }
        if (banded == 1) {
            EXPECT_LE(worst, 0.01 + 1e-9);
            EXPECT_EQ(fit.overdetermined_constraints().size(), 0);
        }
        if (banded == 2) {
            EXPECT_GT(fit.overdetermined_constraints().size(), 0);
        }
    }
}

TEST(ScaledSurfaceBestfit, RefusesBadInputAndLeavesOutputsUntouched) {
    const Sample s = box(10, 16);
    const std::vector<tsFitPoint3coPrf> pts = measured(s, giXform3::identity(), 0.0, 17);
    const double nan = std::nan("");
    const tsProjectorForFitting3 projects_nothing;
    const tsSurfProjectorForFitting3 projector(s.surface.get());
    struct Case {
        std::string name;
        int status;
        std::function<void(tsScaledSurfaceBestfit&)> setup;
        double tolerance;
    };
    const Case cases[] = {
        {"no points", tsSCALED_BESTFIT_NO_POINTS,
         [&](tsScaledSurfaceBestfit& f) { f = tsScaledSurfaceBestfit(); }, 1e-9},
        {"no projector", tsSCALED_BESTFIT_NONE_PROJECTING,
         [&](tsScaledSurfaceBestfit& f) { f.set_projector(nullptr); }, 1e-9},
        {"nothing projects", tsSCALED_BESTFIT_NONE_PROJECTING,
         [&](tsScaledSurfaceBestfit& f) { f.set_projector(&projects_nothing); }, 1e-9},
        {"all points at one place", tsSCALED_BESTFIT_SINGULAR,
         [&](tsScaledSurfaceBestfit& f) {
             f = tsScaledSurfaceBestfit();
             f.set_projector(&projector);
             for (int i = 0; i < 5; ++i)
                 f.add_point(tsFitPoint3coPrf(
                     new tsProbedPoint3(giPoint3(50, 30, 0), giUnitVec3(0, 0, -1), 0.0)));
         },
         1e-9},
        {"two pairs", tsSCALED_BESTFIT_TOO_FEW_PAIRS,
         [](tsScaledSurfaceBestfit& f) {
             f.add_pair(giPoint3(0, 0, 0), giPoint3(0, 0, 0));
             f.add_pair(giPoint3(1, 0, 0), giPoint3(1, 0, 0));
         },
         1e-9},
        {"pairs on a line", tsSCALED_BESTFIT_DEGENERATE_PAIRS,
         [](tsScaledSurfaceBestfit& f) {
             for (int i = 0; i < 4; ++i) f.add_pair(giPoint3(i, i, i), giPoint3(i, i, i));
         },
         1e-9},
        {"NaN pair", tsSCALED_BESTFIT_BAD_INPUT,
         [&](tsScaledSurfaceBestfit& f) { f.add_pair(giPoint3(nan, 0, 0), giPoint3(0, 0, 0)); },
         1e-9},
        {"negative weight", tsSCALED_BESTFIT_BAD_INPUT,
         [&](tsScaledSurfaceBestfit& f) { f.add_point(pts[0], -1.0); }, 1e-9},
        {"zero fixed scale", tsSCALED_BESTFIT_BAD_INPUT,
         [](tsScaledSurfaceBestfit& f) { f.fix_scale(0.0); }, 1e-9},
        {"NaN centre", tsSCALED_BESTFIT_BAD_INPUT,
         [&](tsScaledSurfaceBestfit& f) { f.set_scale_centre(giPoint3(0, nan, 0)); }, 1e-9},
        {"band upside down", tsSCALED_BESTFIT_BAD_INPUT,
         [&](tsScaledSurfaceBestfit& f) { f.add_point(pts[0], 0.1, -0.1, 1.0); }, 1e-9},
        {"NaN band", tsSCALED_BESTFIT_BAD_INPUT,
         [&](tsScaledSurfaceBestfit& f) { f.add_point(pts[0], nan, 0.1, 1.0); }, 1e-9},
        {"axis of no length", tsSCALED_BESTFIT_BAD_INPUT,
         [](tsScaledSurfaceBestfit& f) {
             f.lock_axis(tsSURFACE_BESTFIT_AXIS_DIRECTION, giVector3(0, 0, 0), giVector3(0, 0, 1),
                         giPoint3(0, 0, 0), giPoint3(0, 0, 0));
         },
         1e-9},
        {"axis through no point", tsSCALED_BESTFIT_BAD_INPUT,
         [](tsScaledSurfaceBestfit& f) {
             f.lock_axis(tsSURFACE_BESTFIT_AXIS_THROUGH_POINT, giVector3(0, 0, 1),
                         giVector3(0, 0, 1), giPoint3(-DBL_MAX, 0, 0), giPoint3(0, 0, 0));
         },
         1e-9},
        {"NaN origin", tsSCALED_BESTFIT_BAD_INPUT,
         [&](tsScaledSurfaceBestfit& f) { f.lock_origin(giPoint3(nan, 0, 0), giPoint3(0, 0, 0)); },
         1e-9},
        {"NaN tolerance", tsSCALED_BESTFIT_BAD_INPUT, nullptr, nan},
        {"negative tolerance", tsSCALED_BESTFIT_BAD_INPUT, nullptr, -1.0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        tsScaledSurfaceBestfit fit;
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
