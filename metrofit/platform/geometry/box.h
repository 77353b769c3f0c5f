// Axis-aligned boxes in the plane (giBox2) and in space (giBox3).
//
// A box starts empty (its minimum corner holds DBL_MAX and its maximum corner
// -DBL_MAX in every coordinate); merge(point) grows it to take the point in,
// merge(box) to take another box in. A point with a NaN coordinate leaves
// that coordinate of the box unchanged. diagonal() is the distance between the
// corners, 0 for an empty box.
#pragma once

#include <cfloat>

#include "metrofit/platform/geometry/point.h"

class giBox2 {
   public:
    bool is_empty() const { return min_[0] > max_[0]; }
    giPoint2 min_corner() const { return giPoint2(min_[0], min_[1]); }
    giPoint2 max_corner() const { return giPoint2(max_[0], max_[1]); }

    void merge(const giPoint2& p) {
        for (int i = 0; i < 2; ++i) {
            if (p[i] < min_[i]) min_[i] = p[i];
            if (p[i] > max_[i]) max_[i] = p[i];
        }
    }
    void merge(const giBox2& b) {
        if (b.is_empty()) return;
        merge(b.min_corner());
        merge(b.max_corner());
    }
    bool contains(const giPoint2& p) const {
        return p.x() >= min_[0] && p.x() <= max_[0] && p.y() >= min_[1] && p.y() <= max_[1];
    }
    double diagonal() const { return is_empty() ? 0.0 : distance(min_corner(), max_corner()); }

   private:
    double min_[2] = {DBL_MAX, DBL_MAX};
    double max_[2] = {-DBL_MAX, -DBL_MAX};
};

class giBox3 {
   public:
    bool is_empty() const { return min_[0] > max_[0]; }
    giPoint3 min_corner() const { return giPoint3(min_[0], min_[1], min_[2]); }
    giPoint3 max_corner() const { return giPoint3(max_[0], max_[1], max_[2]); }

    void merge(const giPoint3& p) {
        for (int i = 0; i < 3; ++i) {
            if (p[i] < min_[i]) min_[i] = p[i];
            if (p[i] > max_[i]) max_[i] = p[i];
        }
    }
    void merge(const giBox3& b) {
        if (b.is_empty()) return;
        merge(b.min_corner());
        merge(b.max_corner());
    }
    bool contains(const giPoint3& p) const {
        return p.x() >= min_[0] && p.x() <= max_[0] && p.y() >= min_[1] && p.y() <= max_[1] &&
               p.z() >= min_[2] && p.z() <= max_[2];
    }
    double diagonal() const { return is_empty() ? 0.0 : distance(min_corner(), max_corner()); }

   private:
    double min_[3] = {DBL_MAX, DBL_MAX, DBL_MAX};
    double max_[3] = {-DBL_MAX, -DBL_MAX, -DBL_MAX};
};
