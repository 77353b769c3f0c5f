// Fit points, projected points, projectors and nominal objects of the
// surface bestfit.
//
// A fit point (tsFitPoint3) is a measured point that knows how to be
// projected; a projector knows the nominal object. Projection is a double
// dispatch: the projector's project_batch asks each point to project itself
// (initial_projection, or project_from_position under a trial transform),
// and a probed point hands itself back to the projector's
// rotate_and_project. New point types and new nominal objects can thus be
// added independently.
//
// tsProjectedPoint3 is the answer: the measured point moved by the trial
// transform, its radius-compensated partner on the nominal object and the
// nominal normal there, oriented to the side the probe came from, so that
// signed_distance() is the deviation of the probed surface point, positive
// on the approach side. A default record (measured x = +DBL_MAX) is invalid.
//
// Probe compensation onto a surface (tsSurfProjectorForFitting3): for
// p = X m, the approximate normal a = X a0 and the probe radius r, every
// foot point s of p on the surface is a candidate. With d = p - s: a point
// on the surface (|d| < 1e-4) takes the surface normal n_s, turned towards
// a; otherwise d is made unit and the candidate counts only when
// |n_s x d| <= 0.01, with n = d turned towards a. The ball centre on the
// nominal is s + r n, and the candidate scores |n . d - r|: a candidate on
// the approach side scores |1 - r|, one behind the point 1 + r, so the
// approach side wins. The lowest score wins, ties keep the earlier
// candidate; no accepted candidate gives an invalid result.
#pragma once

#include <functional>

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/containers/page_arr.h"
#include "metrofit/platform/containers/prf.h"
#include "metrofit/platform/geometry/length.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/xform.h"
#include "metrofit/platform/surface/surf.h"

class tsFitPointProjector3;
class tsFitPointProjector2;

class tsProjectedPoint3 {
   public:
    tsProjectedPoint3() = default;
    tsProjectedPoint3(const giPoint3& measured, const giPoint3& nominal, const giUnitVec3& normal)
        : measured_point_(measured), nominal_point_(nominal), nominal_normal_(normal) {}

    const giPoint3& measured_point() const { return measured_point_; }
    const giPoint3& nominal_point() const { return nominal_point_; }
    const giUnitVec3& nominal_normal() const { return nominal_normal_; }

    double signed_distance() const {
        return dot(measured_point_ - nominal_point_, nominal_normal_);
    }
    giLength distance() const { return giLength((measured_point_ - nominal_point_).length()); }
    int invalid() const;
    void set_invalid() { measured_point_.set_x(-DBL_MAX); }

   private:
    giPoint3 measured_point_;
    giPoint3 nominal_point_;
    giUnitVec3 nominal_normal_;
};

class tsProjectedPoint2 {
   public:
    tsProjectedPoint2() = default;
    tsProjectedPoint2(const giPoint2& measured, const giPoint2& nominal, const giUnitVec2& normal)
        : measured_point_(measured), nominal_point_(nominal), nominal_normal_(normal) {}

    const giPoint2& measured_point() const { return measured_point_; }
    const giPoint2& nominal_point() const { return nominal_point_; }
    const giUnitVec2& nominal_normal() const { return nominal_normal_; }

    double signed_distance() const {
        return dot(measured_point_ - nominal_point_, nominal_normal_);
    }
    giLength distance() const { return giLength((measured_point_ - nominal_point_).length()); }
    int invalid() const;
    void set_invalid() { measured_point_.set_x(-DBL_MAX); }

   private:
    giPoint2 measured_point_;
    giPoint2 nominal_point_;
    giUnitVec2 nominal_normal_;
};

// Over the valid records of a cloud of projected points (2D or 3D): the
// largest distance, the largest signed deviation (at least 0) and the
// smallest (at most 0), with the counts of invalid and valid records.
template <class Cloud>
void ts_pointcloud_parameters(const Cloud& pts, double& max_distance, double& max_signed_distance,
                              double& min_signed_distance, int& n_invalid, int& n_valid) {
    max_distance = max_signed_distance = min_signed_distance = 0.0;
    n_invalid = n_valid = 0;
    for (const auto& p : pts) {
        if (p.invalid()) {
            ++n_invalid;
            continue;
        }
        ++n_valid;
        const double d = p.distance(), s = p.signed_distance();
        if (d > max_distance) max_distance = d;
        if (s > max_signed_distance) max_signed_distance = s;
        if (s < min_signed_distance) min_signed_distance = s;
    }
}

class tsFitPoint3 {
   public:
    virtual void initial_projection(tsProjectedPoint3& out,
                                    const tsFitPointProjector3* projector) const = 0;
    virtual void project_from_position(const giXform3& xform, tsProjectedPoint3& out,
                                       const tsFitPointProjector3* projector) const = 0;
    virtual ~tsFitPoint3();
};

class tsFitPoint2 {
   public:
    virtual void initial_projection(tsProjectedPoint2& out,
                                    const tsFitPointProjector2* projector) const = 0;
    virtual void project_from_position(const giXform2& xform, tsProjectedPoint2& out,
                                       const tsFitPointProjector2* projector) const = 0;
    virtual ~tsFitPoint2();
};

// A point measured with a probe ball: its centre, the approximate surface
// normal at the contact (the probing direction reversed; it only picks the
// side) and the ball radius (0: no compensation).
class tsProbedPoint3 : public tsFitPoint3 {
   public:
    tsProbedPoint3() = default;
    tsProbedPoint3(const giPoint3& measured, const giUnitVec3& approximate_normal, double radius)
        : measured_point_(measured), approximate_normal_(approximate_normal), radius_(radius) {}

    // Projection under the identity.
    void initial_projection(tsProjectedPoint3& out,
                            const tsFitPointProjector3* projector) const override;
    // Hands the point to the projector's rotate_and_project; a projector
    // that is null or cannot project probed points gives an invalid result.
    void project_from_position(const giXform3& xform, tsProjectedPoint3& out,
                               const tsFitPointProjector3* projector) const override;
    ~tsProbedPoint3() override;
    virtual const giPoint3& measured_point() const { return measured_point_; }
    virtual const giUnitVec3& approximate_normal() const { return approximate_normal_; }
    virtual double radius() const { return radius_; }

   private:
    giPoint3 measured_point_;
    giUnitVec3 approximate_normal_;
    double radius_ = 0.0;
};

class tsFitPointProjector3 {
   public:
    // For i = 0 .. count - 1: the point get_point(i) projects itself into
    // get_result(i), initially (initial != 0) or under xform.
    virtual void project_batch(const std::function<const tsFitPoint3&(int)>& get_point,
                               const std::function<tsProjectedPoint3&(int)>& get_result, int count,
                               int initial, const giXform3& xform) const;
    virtual ~tsFitPointProjector3();
};

// The projector of the plain nominal object: it projects nothing (leaves
// the result as it was).
class tsProjectorForFitting3 : public tsFitPointProjector3 {
   public:
    ~tsProjectorForFitting3() override;
    virtual void rotate_and_project(const giXform3& xform, const tsProbedPoint3* point,
                                    tsProjectedPoint3& out) const;
};

// Probe-compensated projection onto a surface (see the header comment). The
// surface is not owned: its owner must outlive the projector.
class tsSurfProjectorForFitting3 : public tsProjectorForFitting3 {
   public:
    explicit tsSurfProjectorForFitting3(const srkSurf* surface) : surface_(surface) {}
    void rotate_and_project(const giXform3& xform, const tsProbedPoint3* point,
                            tsProjectedPoint3& out) const override;

   private:
    const srkSurf* surface_;
};

using tsFitPoint3coPrf = coPrf<tsFitPoint3>;
using tsFitPoint2coPrf = coPrf<tsFitPoint2>;
using tsProjectorForFitting3coPrf = coPrf<tsProjectorForFitting3>;
using tsFitPoint3PtrcoPageArr = coPageArr<tsFitPoint3coPrf>;
using tsFitPoint2PtrcoPageArr = coPageArr<tsFitPoint2coPrf>;
using tsProjectedPoint3coDynArr = coDynArr<tsProjectedPoint3>;
using tsProjectedPoint2coDynArr = coDynArr<tsProjectedPoint2>;

// A nominal object that hands out projectors. The base is harmless: its
// copy is a plain object, its projector projects nothing, and it does not
// move.
class tsObjectForFitting {
   public:
    virtual tsObjectForFitting* copy() const;
    virtual tsProjectorForFitting3coPrf create_projector();
    virtual void transform(const giXform3& xform);
    virtual ~tsObjectForFitting();
};

// A surface of the surface kernel as the nominal object. copy() deep-copies
// the surface; transform() moves it in place.
class tsSurfaceForFitting : public tsObjectForFitting {
   public:
    explicit tsSurfaceForFitting(srkSurfPtr surface) : surface_(std::move(surface)) {}
    const srkSurfPtr& get_surface() const { return surface_; }

    tsObjectForFitting* copy() const override;
    tsProjectorForFitting3coPrf create_projector() override;
    void transform(const giXform3& xform) override;

   private:
    srkSurfPtr surface_;
};
