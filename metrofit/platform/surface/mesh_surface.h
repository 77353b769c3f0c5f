// srkMeshSurf: a triangle mesh as a surface for the bestfit.
//
// Geometry. A vertex array and index triples (facets). Vertices that are
// exactly equal are merged when the mesh is built, so neighbouring facets
// share their edges and vertices. A facet's normal follows its winding:
// n = (V1 - V0) x (V2 - V0), normalised. Facets of no area (two equal
// vertices, or collinear ones: |(V1 - V0) x (V2 - V0)| at most 1e-14 times
// the square of the longest edge) are dropped; a mesh left with no facet is
// refused.
//
// Foot points carry the facet index and the barycentric weights of its
// second and third vertices: s = (1 - u - v) V0 + u V1 + v V2.
//
// Search. A bounding-volume hierarchy (binary tree of axis-aligned boxes)
// is built once per geometry: each node splits its facets at the median of
// their centroids along the longest axis of the centroid box; leaves hold at
// most four facets. Queries walk it with a fixed-size explicit stack, nearer
// child first, pruning boxes farther than the current bound, so a query
// costs O(log n) facet tests on a well-spread mesh.
//
// project_all(p) gives, in this order:
// 1. the nearest point of the mesh (on a facet, an edge or a vertex), always;
// 2. the other facet-interior foot points of p: facets whose plane foot
//    p - ((p - V0).n) n lies inside the facet (barycentric weights at least
//    -1e-12), within the window distance <= d + max(d, 1e-3 D), d the
//    distance to the nearest point and D the diagonal of the mesh's bounding
//    box. They are ordered by distance (ties: lower facet index), at most 64
//    of them (the nearest), and a foot coinciding with one already listed
//    (within 1e-12 of the mesh's coordinate scale: a foot on an edge shared
//    by two facets, or the nearest point itself) is listed once. The window
//    reaches the far side of a wall thinner than the larger of d and 1e-3 D,
//    and the feet on nearby faces (the other sides of an edge or a corner
//    that p faces), without scanning the whole mesh.
// A non-finite p or an empty mesh gives 0 points. No allocation beyond the
// appends to the output list.
//
// normal_at(s, tolerance): s.facet names the facet (when it is out of range
// the facet nearest to s.position is used). Inside the facet the answer is
// the facet normal. When s lies on a vertex or an edge of the facet (within
// 1e-12 of max(longest edge, largest absolute coordinate) of the facet), it
// is the normalised angle-weighted mean of the normals of the facets around
// that vertex or edge: at a vertex each facet weighs its interior angle
// there, so the result does not depend on how the faces are triangulated;
// along an edge each adjacent facet spans a straight angle, so the normals
// weigh equally. When every adjacent normal is within `tolerance` of the
// facet's own normal, the facet normal is returned as it is (flat regions
// keep their exact normal). A mean that vanishes (facets folded back on each
// other) falls back to the facet normal. An empty mesh gives an unset vector.
//
// STL input (read_stl): binary and ASCII. The content is taken as ASCII when
// it starts with "solid" and parses completely as ASCII STL (facet / outer
// loop / three vertices / endloop / endfacet, inside solid ... endsolid,
// keywords in any letter case, several solids allowed); otherwise as binary:
// an 80-byte header, a little-endian uint32 facet count and 50 bytes per
// facet (normal, three vertices as little-endian floats, a 2-byte
// attribute), the length having to be exactly 84 + 50 count. The normals
// stored in the file are ignored: the winding gives them. Failures (empty,
// truncated, length not matching the count, NaN or infinite coordinates,
// malformed text, only degenerate facets) return 0 with a message in
// `error` and leave `out` as it was; nothing is allocated beyond the size
// of the actual content.
//
// transform_in_place moves the vertices, recomputes the normals and
// rebuilds the hierarchy; the winding is kept (srkSurf::transform admits no
// reflection). It returns 0, the mesh unchanged, for an empty mesh or a
// transform that is unset, not finite or singular.
#pragma once

#include <iosfwd>
#include <string>

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/box.h"
#include "metrofit/platform/surface/surf.h"

class srkMeshSurf : public srkSurf {
   public:
    srkMeshSurf() = default;
    // Builds from vertices and index triples (3 ints per facet); an invalid
    // input leaves the mesh empty (facet_count() == 0). See set().
    srkMeshSurf(const giPoint3coDynArr& vertices, const intcoDynArr& triangles);

    // Replaces the geometry. Returns 0 with a message, the mesh unchanged,
    // for non-finite coordinates, an index count not a multiple of 3, an
    // index out of range, or no facet of positive area.
    int set(const giPoint3coDynArr& vertices, const intcoDynArr& triangles, std::string& error);

    static int read_stl(const std::string& path, srkMeshSurf& out, std::string& error);
    static int read_stl(std::istream& in, srkMeshSurf& out, std::string& error);

    int vertex_count() const { return vertices_.size() / 3; }
    int facet_count() const { return facets_.size() / 3; }
    giPoint3 vertex(int i) const;
    // Index of the k-th vertex (k = 0, 1, 2) of facet f.
    int facet_vertex(int f, int k) const { return facets_[3 * f + k]; }
    giUnitVec3 facet_normal(int f) const;
    const giBox3& bounding_box() const { return box_; }

    int project_all(const giPoint3& p, srkSurfPointList& out, int& info) const override;
    giUnitVec3 normal_at(const srkSurfPoint& s, const giAngle& tolerance) const override;
    srkSurfPtr clone() const override;

   protected:
    int transform_in_place(const giXform3& xform) override;

   private:
    // Hierarchy node: box of the facets below it; a leaf has count > 0 and
    // its facets at [first, first + count) of the ordered facet records; an
    // inner node has count == 0 and its children at first and first + 1.
    struct Node {
        double lo[3], hi[3];
        int first, count;
    };
    // A facet's corners and unit normal, stored in hierarchy order.
    struct Tri {
        double a[3], b[3], c[3], n[3];
        int facet;
    };

    // Computes normals, adjacency, box and hierarchy from vertices_ and
    // facets_ (already merged and free of degenerate facets).
    int finish();
    int build_tree();
    // Nearest point of the mesh to p: returns the facet record index (in
    // tris_) and gives the point, its squared distance and its barycentric
    // weights u, v.
    int nearest(const double* p, double* q, double& d2, double& u, double& v) const;
    // Facet nearest to p, or -1 for an empty mesh.
    int nearest_facet(const giPoint3& p) const;
    static int assemble(const double* xyz, int n_vertices, const int* index, int n_index,
                        srkMeshSurf& out, std::string& error);

    doublecoDynArr vertices_;   // 3 per vertex
    intcoDynArr facets_;        // 3 per facet
    doublecoDynArr normals_;    // 3 per facet
    intcoDynArr vertex_first_;  // incident facets of vertex i: vertex_facets_[first[i], first[i+1])
    intcoDynArr vertex_facets_;
    coDynArr<Node> nodes_;
    coDynArr<Tri> tris_;
    giBox3 box_;
    double scale_ = 0.0;  // bounding-box diagonal plus largest absolute coordinate
};
