// Every least-squares model of the fits against central differences (its
// gradient), and the distribution scores of the axial fits and the ellipse:
// whole surfaces score high, narrow strips and short arcs low.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "metrofit/features/axis_rev.h"
#include "metrofit/features/circle.h"
#include "metrofit/features/cone.h"
#include "metrofit/features/cylinder.h"
#include "metrofit/features/ellipse.h"
#include "metrofit/features/line.h"
#include "metrofit/features/plane.h"
#include "metrofit/features/sphere.h"
#include "metrofit/features/torus.h"
#include "metrofit/frame/distribution_quality.h"
#include "tests/support/ellipse_points.h"
#include "tests/support/gradient_check.h"
#include "tests/support/sampling.h"

namespace {

using namespace testsupport;

doublecoDynArr ramp(int n, double first, double step) {
    doublecoDynArr out;
    for (int i = 0; i < n; ++i) out.append(first + step * i);
    return out;
}

using Model = std::shared_ptr<mlDistanceLeastSquares>;
template <class T, class... Args>
Model make(const Args&... args) {
    return std::make_shared<T>(args...);
}

giPoint2coDynArr xy(const giPoint3coDynArr& pts) {
    giPoint2coDynArr out;
    for (const giPoint3& p : pts) out.append(giPoint2(p.x(), p.y()));
    return out;
}

}  // namespace

// Every least-squares model's gradient matches central differences, with
// directions of other length and sense, far along axes, near-circular
// ellipses, half angles beyond pi/2 and spindle tori; probed models on both
// sides.
TEST(Models, GradientsMatchCentralDifferences) {
    giUnitVec3coDynArr normals;
    const giPoint3coDynArr circle = transformed(random_motion(40, 3, 2),
                                                circle_points3(12, 5, 300, 0.4, 6)),
                           sphere = sphere_points(20, giPoint3(1, 2, 3), 4, 180, 0.5, 2),
                           plane = plane_points(15, 20, 30, 2.0, 5),
                           line = line_points3(12, 30, 1.0, 81),
                           cone = cone_points(40, 25, 2, 9, 300, 0.05, 3, &normals),
                           cylinder = transformed(random_motion(30, 1e3, 2),
                                                  cylinder_points(50, 7, 15, 120, 1e-3, 1)),
                           torus = transformed(random_motion(30, 5, 19),
                                               cylinder_points(30, 8, 6, 360, 0.5, 20));
    giPoint2coDynArr ellipse = ellipse_points(12, giPoint2(1, -0.5), 6, 4, 0.3, 300, 0.8, 3);
    ellipse.append(giPoint2(40, -25));
    const giPoint2coDynArr c2 = xy(circle), l2 = xy(line);
    const doublecoDynArr rc = ramp(12, -1, 0.2), rs = ramp(20, 0, 0.1), rp = ramp(15, 0, 0.2),
                         rl = ramp(12, 0, 0.3), rt = ramp(30, 0, 0.1);
    const struct {
        std::vector<Model> models;  // a plain model and its probed variants
        std::vector<mlVector> starts;
    } cases[] = {
        {{make<tsLeastSquareCircle2>(c2), make<tsLeastSquareProbedCircle2>(c2, rc, 0),
          make<tsLeastSquareProbedCircle2>(c2, rc, 1)},
         {{1.5, 0.5, 3}}},
        {{make<tsLeastSquareCircle3>(circle)}, {{-1, 2, 3, 1, 1, 0.5, 3}}},
        {{make<tsLeastSquareSphere>(sphere), make<tsLeastSquareProbedSphere>(sphere, rs, 0),
          make<tsLeastSquareProbedSphere>(sphere, rs, 1)},
         {{0.5, 2.5, 2, 6}, {1, 2, 3, -4}}},
        {{make<tsLeastSquareProbedPlane>(plane, rp, 0),
          make<tsLeastSquareProbedPlane>(plane, rp, 1)},
         {{3, 0.6, -0.48, 0.64}, {-2, -0.6, 0.8, 0}}},
        {{make<tsLeastSquareProbedLine2>(l2, rl, 0), make<tsLeastSquareProbedLine2>(l2, rl, 1)},
         {{1, 0.6, 0.8}, {-4, -1, 0}}},
        {{make<tsLeastSquareEllipse2>(ellipse)},
         {{0.9, -0.4, 5, 1e-5, 2e-5}, {1, -0.6, -5, 0.4, -1}}},
        {{make<tsLeastSquareCone>(cone)}, {{0.2, -0.1, 30.0, 0.1, -0.05, 2.0, 1.0, 2.6}}},
        {{make<tsLeastSquareCylinder>(cylinder)}, {{0.3, -0.2, 40.0, 0.1, 0.05, -2.0, 4.1}}},
        {{make<tsLeastSquareTorus>(torus), make<tsLeastSquareProbedTorus>(torus, rt, 0)},
         {{0.3, -0.2, 0.1, 0.1, 0.2, 2.0, 8.5, 2.5}, {-1.0, 2.0, 0.5, -0.6, 0.7, 0.3, 3.0, 5.0}}},
        {{make<tsLeastSquareAxisRev>(cone, normals)},
         {{0.1, -0.2, 0.0, 0.01, 0.02, 1.0}, {-4.0, 6.0, 9.0, 1.0, 0.7, 0.4}}},
    };
    for (const auto& c : cases)
        for (const Model& model : c.models)
            for (const mlVector& p : c.starts) {
                SCOPED_TRACE(testing::Message() << (&c - cases) << " " << (&model - &c.models[0]));
                expect_gradient_matches(*model, p, 1e-6);
            }
}

// Distribution scores of the whole surface lie in their band (a cylinder near
// 0.69, a whole ellipse of ratio 2 below a circle's 0.707); a part scores less.
TEST(Models, DistributionScoresFallWithCoverage) {
    using Q = tsLeastSquareDistributionQuality;
    const giPoint3 o(0, 0, 0);
    const giVector3 z(0, 0, 1);
    const struct {
        std::function<double(double)> score;  // of points over this many degrees
        double low, high, part, ratio;        // the part scores below ratio * whole
    } cases[] = {
        {[&](double s) {
             return Q::distribution_quality_cylinder(cylinder_points(400, 10, 20, s, 0, 91), o, z,
                                                     10);
         },
         0.64, 0.74, 90, 1},
        {[&](double s) {
             return Q::distribution_quality_cone(cone_points(300, 30, 5, 20, s, 0, 91), o, z,
                                                 kPi / 6);
         },
         0, 2, 30, 1},
        {[](double s) {
             return Q::distribution_quality_ellipse(ellipse_points(100, {1, 1}, 6, 3, 0.3, s, 0, 1),
                                                    {1, 1}, 6, 3, 0.3);
         },
         0.5, 0.7, 90, 0.01},
    };
    for (const auto& c : cases) {
        const double whole = c.score(360);
        EXPECT_GT(whole, c.low);
        EXPECT_LT(whole, c.high);
        EXPECT_LT(c.score(c.part), c.ratio * whole) << c.low;
    }
}
