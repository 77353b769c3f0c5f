// Point-set bases of the least-squares models.
//
// tsLeastSquareDistance3 / tsLeastSquareDistance2 hold a reference to the
// caller's point array (no copy: the array must outlive the model) and give
// the model its point count. They have no distance of their own; a model
// derives from one of them and supplies the distance and its gradient.
//
// What they offer every model:
// - centroid(): the arithmetic mean of the points (the origin for none);
// - range(): the diagonal of the axis-aligned box of the points, a length
//   scale for start values and thresholds;
// - the table of 7 start directions for axial models: the three coordinate
//   axes and the four body diagonals (1,1,1), (-1,1,1), (1,-1,1), (-1,-1,1),
//   each a unit vector;
// - for an axis through P with direction a (not necessarily of unit length,
//   u = a / |a|) and a point Q, with w = Q - P:
//     F = |u x w|, the distance of Q from the axis line,
//     G = u . w,   the position of Q along the axis,
//   and their derivatives with respect to (P, a), six each:
//     dG/dP = -u,           dG/da = (w - G u) / |a| = r / |a|,
//     dF/dP = -r / F,       dF/da = -G r / (|a| F),
//   where r = w - G u is the radial part of w. On the axis (F = 0) F is not
//   differentiable; dF is then set to zero instead of dividing by zero.
#pragma once

#include <cmath>

#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/maths/least_squares.h"

class tsLeastSquareDistance3 : public mlDistanceLeastSquares {
   public:
    tsLeastSquareDistance3(int n_parameters, const giPoint3coDynArr& points)
        : mlDistanceLeastSquares(n_parameters, points.size()), points_(points) {}

    const giPoint3coDynArr& points() const { return points_; }
    const giPoint3& point(int i) const { return points_[i]; }

    giPoint3 centroid() const;
    double range() const;

    static int num_guess_directions() { return 7; }
    static giUnitVec3 guess_direction(int i);

    static double F(const giPoint3& P, const giVector3& u, const giPoint3& Q) {
        const giVector3 w = Q - P;
        const double n = std::sqrt(dot(u, u));
        return std::sqrt(dot(cross(u, w), cross(u, w))) / n;
    }
    static double G(const giPoint3& P, const giVector3& u, const giPoint3& Q) {
        return dot(u, Q - P) / std::sqrt(dot(u, u));
    }
    // F and G with their derivatives with respect to (P.x, P.y, P.z, a.x,
    // a.y, a.z); dF and dG receive six values each.
    static void F_G_and_derivatives(const giPoint3& P, const giVector3& a, const giPoint3& Q,
                                    double& F, double* dF, double& G, double* dG) {
        const double na = std::sqrt(a.x() * a.x() + a.y() * a.y() + a.z() * a.z());
        const double u[3] = {a.x() / na, a.y() / na, a.z() / na};
        const double p[3] = {P.x(), P.y(), P.z()};
        line_terms(p, u, 1.0 / na, Q, F, dF, G, dG);
    }

    // The same for models that keep the axis point p, the unit axis u and
    // 1 / |a| of their current parameters, so that no point pays for the
    // normalisation.
    static void line_terms(const double* p, const double* u, double inv_length,
                           const giPoint3& Q, double& F, double* dF, double& G, double* dG) {
        const double wx = Q.x() - p[0], wy = Q.y() - p[1], wz = Q.z() - p[2];
        const double ux = u[0], uy = u[1], uz = u[2];
        G = ux * wx + uy * wy + uz * wz;
        const double rx = wx - G * ux, ry = wy - G * uy, rz = wz - G * uz;
        // |u x w| rather than |r|: the cross product keeps its relative
        // accuracy for points close to the axis.
        const double cx = uy * wz - uz * wy, cy = uz * wx - ux * wz, cz = ux * wy - uy * wx;
        F = std::sqrt(cx * cx + cy * cy + cz * cz);
        dG[0] = -ux;
        dG[1] = -uy;
        dG[2] = -uz;
        dG[3] = rx * inv_length;
        dG[4] = ry * inv_length;
        dG[5] = rz * inv_length;
        if (F > 0.0) {
            const double inv_f = 1.0 / F, k = -G * inv_f * inv_length;
            dF[0] = -rx * inv_f;
            dF[1] = -ry * inv_f;
            dF[2] = -rz * inv_f;
            dF[3] = k * rx;
            dF[4] = k * ry;
            dF[5] = k * rz;
        } else {
            for (int j = 0; j < 6; ++j) dF[j] = 0.0;
        }
    }

    // F alone from cached terms.
    static double line_distance(const double* p, const double* u, const giPoint3& Q) {
        const double wx = Q.x() - p[0], wy = Q.y() - p[1], wz = Q.z() - p[2];
        const double cx = u[1] * wz - u[2] * wy, cy = u[2] * wx - u[0] * wz,
                     cz = u[0] * wy - u[1] * wx;
        return std::sqrt(cx * cx + cy * cy + cz * cz);
    }

   private:
    const giPoint3coDynArr& points_;
};

class tsLeastSquareDistance2 : public mlDistanceLeastSquares {
   public:
    tsLeastSquareDistance2(int n_parameters, const giPoint2coDynArr& points)
        : mlDistanceLeastSquares(n_parameters, points.size()), points_(points) {}

    const giPoint2coDynArr& points() const { return points_; }
    const giPoint2& point(int i) const { return points_[i]; }

    giPoint2 centroid() const;
    double range() const;

   private:
    const giPoint2coDynArr& points_;
};
