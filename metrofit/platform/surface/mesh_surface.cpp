#include "metrofit/platform/surface/mesh_surface.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <istream>
#include <string_view>

namespace {

constexpr int kLeafSize = 4;
constexpr int kStackSize = 96;     // query stack; the median tree is at most ~31 levels deep
constexpr int kMaxExtraFeet = 64;  // facet-interior foot points beyond the nearest
constexpr double kInsideTol = 1e-12;
constexpr double kCoincideTol = 1e-12;
constexpr double kDegenerateTol = 1e-14;
constexpr double kOnBoundaryTol = 1e-12;
constexpr long long kMaxContent = 0x7fffffffLL;  // bytes of STL content accepted

inline double dot3(const double* a, const double* b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
inline void sub3(const double* a, const double* b, double* r) {
    r[0] = a[0] - b[0];
    r[1] = a[1] - b[1];
    r[2] = a[2] - b[2];
}
inline void cross3(const double* a, const double* b, double* r) {
    r[0] = a[1] * b[2] - a[2] * b[1];
    r[1] = a[2] * b[0] - a[0] * b[2];
    r[2] = a[0] * b[1] - a[1] * b[0];
}
inline double dist2(const double* a, const double* b) {
    double d[3];
    sub3(a, b, d);
    return dot3(d, d);
}

// Squared distance from p to the box [lo, hi] (0 inside).
inline double box_dist2(const double* p, const double* lo, const double* hi) {
    double s = 0.0;
    for (int i = 0; i < 3; ++i) {
        const double e = p[i] < lo[i] ? lo[i] - p[i] : (p[i] > hi[i] ? p[i] - hi[i] : 0.0);
        s += e * e;
    }
    return s;
}

// Nearest point q of triangle (a, b, c) to p by Voronoi regions of the
// vertices, edges and face; u, v are the barycentric weights of b and c, set
// exactly to 0 or 1 on the boundary regions. Returns |p - q|^2.
double closest_on_triangle(const double* p, const double* a, const double* b, const double* c,
                           double* q, double& u, double& v) {
    double ab[3], ac[3], ap[3], bp[3], cp[3];
    sub3(b, a, ab);
    sub3(c, a, ac);
    sub3(p, a, ap);
    const double d1 = dot3(ab, ap), d2 = dot3(ac, ap);
    if (d1 <= 0.0 && d2 <= 0.0) {
        u = v = 0.0;
        std::copy(a, a + 3, q);
        return dist2(p, q);
    }
    sub3(p, b, bp);
    const double d3 = dot3(ab, bp), d4 = dot3(ac, bp);
    if (d3 >= 0.0 && d4 <= d3) {
        u = 1.0;
        v = 0.0;
        std::copy(b, b + 3, q);
        return dist2(p, q);
    }
    const double vc = d1 * d4 - d3 * d2;
    if (vc <= 0.0 && d1 >= 0.0 && d3 <= 0.0) {
        const double t = d1 / (d1 - d3);
        u = t;
        v = 0.0;
        for (int i = 0; i < 3; ++i) q[i] = a[i] + t * ab[i];
        return dist2(p, q);
    }
    sub3(p, c, cp);
    const double d5 = dot3(ab, cp), d6 = dot3(ac, cp);
    if (d6 >= 0.0 && d5 <= d6) {
        u = 0.0;
        v = 1.0;
        std::copy(c, c + 3, q);
        return dist2(p, q);
    }
    const double vb = d5 * d2 - d1 * d6;
    if (vb <= 0.0 && d2 >= 0.0 && d6 <= 0.0) {
        const double t = d2 / (d2 - d6);
        u = 0.0;
        v = t;
        for (int i = 0; i < 3; ++i) q[i] = a[i] + t * ac[i];
        return dist2(p, q);
    }
    const double va = d3 * d6 - d5 * d4;
    if (va <= 0.0 && d4 - d3 >= 0.0 && d5 - d6 >= 0.0) {
        const double t = (d4 - d3) / ((d4 - d3) + (d5 - d6));
        u = 1.0 - t;
        v = t;
        for (int i = 0; i < 3; ++i) q[i] = b[i] + t * (c[i] - b[i]);
        return dist2(p, q);
    }
    const double inv = 1.0 / (va + vb + vc);
    u = vb * inv;
    v = vc * inv;
    for (int i = 0; i < 3; ++i) q[i] = a[i] + u * ab[i] + v * ac[i];
    return dist2(p, q);
}

// Distance from s to the segment [a, b].
double segment_distance(const double* s, const double* a, const double* b) {
    double ab[3], as[3];
    sub3(b, a, ab);
    sub3(s, a, as);
    const double l2 = dot3(ab, ab);
    double t = l2 > 0.0 ? dot3(as, ab) / l2 : 0.0;
    t = std::min(1.0, std::max(0.0, t));
    double q[3];
    for (int i = 0; i < 3; ++i) q[i] = a[i] + t * ab[i];
    return std::sqrt(dist2(s, q));
}

// A candidate facet-interior foot point while the window query runs.
struct Foot {
    double d2;
    int facet;
    double q[3];
    double u, v;
};

bool foot_before(const Foot& a, const Foot& b) {
    return a.d2 < b.d2 || (a.d2 == b.d2 && a.facet < b.facet);
}

// ---- STL text parsing -------------------------------------------------------

bool iequal(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

inline bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

class TextScanner {
   public:
    explicit TextScanner(std::string_view text) : text_(text) {}

    std::string_view next() {
        while (pos_ < text_.size() && is_space(text_[pos_])) ++pos_;
        const std::size_t start = pos_;
        while (pos_ < text_.size() && !is_space(text_[pos_])) ++pos_;
        last_ = start;
        return text_.substr(start, pos_ - start);
    }
    void skip_line() {
        while (pos_ < text_.size() && text_[pos_] != '\n') ++pos_;
    }
    bool expect(std::string_view word, std::string& error) {
        const std::string_view t = next();
        if (iequal(t, word)) return true;
        fail("expected '" + std::string(word) + "'", t, error);
        return false;
    }
    bool number(double& x, std::string& error) {
        std::string_view t = next();
        std::string_view digits = t;
        if (!digits.empty() && digits[0] == '+') digits.remove_prefix(1);
        const auto r = std::from_chars(digits.data(), digits.data() + digits.size(), x);
        if (digits.empty() || r.ec != std::errc() || r.ptr != digits.data() + digits.size()) {
            fail("expected a number", t, error);
            return false;
        }
        return true;
    }
    // Line number of the last token read.
    long line() const { return 1 + std::count(text_.begin(), text_.begin() + last_, '\n'); }
    void fail(const std::string& what, std::string_view found, std::string& error) const {
        error = "ASCII STL, line " + std::to_string(line()) + ": " + what + ", found " +
                (found.empty() ? std::string("end of file")
                               : "'" + std::string(found.substr(0, 40)) + "'");
    }

   private:
    std::string_view text_;
    std::size_t pos_ = 0;
    std::size_t last_ = 0;
};

int parse_ascii(std::string_view text, doublecoDynArr& xyz, std::string& error) {
    TextScanner scan(text);
    int solids = 0;
    const std::size_t max_tokens = text.size();  // every token consumes at least one byte
    for (std::size_t guard = 0; guard <= max_tokens; ++guard) {
        const std::string_view t = scan.next();
        if (t.empty()) break;
        if (!iequal(t, "solid")) {
            scan.fail("expected 'solid'", t, error);
            return 0;
        }
        scan.skip_line();  // the solid's name
        ++solids;
        bool closed = false;
        for (std::size_t inner = 0; inner <= max_tokens && !closed; ++inner) {
            const std::string_view w = scan.next();
            if (iequal(w, "endsolid")) {
                scan.skip_line();
                closed = true;
                break;
            }
            if (!iequal(w, "facet")) {
                scan.fail("expected 'facet' or 'endsolid'", w, error);
                return 0;
            }
            double ignored;
            if (!scan.expect("normal", error)) return 0;
            for (int i = 0; i < 3; ++i)
                if (!scan.number(ignored, error)) return 0;
            if (!scan.expect("outer", error) || !scan.expect("loop", error)) return 0;
            for (int k = 0; k < 3; ++k) {
                if (!scan.expect("vertex", error)) return 0;
                for (int i = 0; i < 3; ++i) {
                    double x;
                    if (!scan.number(x, error)) return 0;
                    if (!std::isfinite(x)) {
                        error = "ASCII STL, line " + std::to_string(scan.line()) +
                                ": non-finite vertex coordinate";
                        return 0;
                    }
                    if (!xyz.append(x)) {
                        error = "out of memory";
                        return 0;
                    }
                }
            }
            if (!scan.expect("endloop", error) || !scan.expect("endfacet", error)) return 0;
        }
        if (!closed) {
            scan.fail("expected 'endsolid'", "", error);
            return 0;
        }
    }
    if (solids == 0) {
        error = "ASCII STL: no 'solid'";
        return 0;
    }
    return 1;
}

// ---- binary STL -------------------------------------------------------------

inline std::uint32_t read_u32(const unsigned char* b) {
    return static_cast<std::uint32_t>(b[0]) | (static_cast<std::uint32_t>(b[1]) << 8) |
           (static_cast<std::uint32_t>(b[2]) << 16) | (static_cast<std::uint32_t>(b[3]) << 24);
}
inline double read_f32(const unsigned char* b) {
    const std::uint32_t bits = read_u32(b);
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return static_cast<double>(f);
}

int parse_binary(std::string_view data, doublecoDynArr& xyz, std::string& error) {
    if (data.size() < 84) {
        error = "binary STL: truncated, " + std::to_string(data.size()) +
                " bytes is shorter than the 84-byte header and facet count";
        return 0;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
    const std::uint64_t count = read_u32(bytes + 80);
    const std::uint64_t expected = 84 + 50 * count;
    if (count == 0) {
        error = "binary STL: the facet count is 0";
        return 0;
    }
    if (expected != data.size()) {
        error = "binary STL: length " + std::to_string(data.size()) +
                " bytes does not match the facet count " + std::to_string(count) + " (" +
                std::to_string(expected) + " bytes expected)";
        return 0;
    }
    if (count > 0x7fffffffULL / 9) {
        error = "binary STL: too many facets";
        return 0;
    }
    if (!xyz.reserve(static_cast<int>(9 * count))) {
        error = "out of memory";
        return 0;
    }
    for (std::uint64_t f = 0; f < count; ++f) {
        const unsigned char* rec = bytes + 84 + 50 * f + 12;  // skip the stored normal
        for (int i = 0; i < 9; ++i) {
            const double x = read_f32(rec + 4 * i);
            if (!std::isfinite(x)) {
                error = "binary STL: facet " + std::to_string(f) + " has a non-finite coordinate";
                return 0;
            }
            xyz.append(x);
        }
    }
    return 1;
}

bool starts_with_solid(std::string_view data) {
    std::size_t i = 0;
    while (i < data.size() && is_space(data[i])) ++i;
    return data.size() - i >= 5 && iequal(data.substr(i, 5), "solid");
}

}  // namespace

// ---- construction -------------------------------------------------------------

srkMeshSurf::srkMeshSurf(const giPoint3coDynArr& vertices, const intcoDynArr& triangles) {
    std::string ignored;
    set(vertices, triangles, ignored);
}

int srkMeshSurf::set(const giPoint3coDynArr& vertices, const intcoDynArr& triangles,
                     std::string& error) {
    doublecoDynArr xyz;
    if (!xyz.reserve(3 * vertices.size())) {
        error = "out of memory";
        return 0;
    }
    for (const giPoint3& v : vertices) {
        if (!v.is_set() || !v.is_finite()) {
            error = "mesh: vertex " + std::to_string(xyz.size() / 3) + " is not a finite point";
            return 0;
        }
        xyz.append(v.x());
        xyz.append(v.y());
        xyz.append(v.z());
    }
    return assemble(xyz.data(), vertices.size(), triangles.data(), triangles.size(), *this, error);
}

// Merges exactly equal vertices (keeping the first of each group, in input
// order), drops facets of no area and builds the derived data into a fresh
// mesh; `out` is replaced only on success.
int srkMeshSurf::assemble(const double* xyz, int n_vertices, const int* index, int n_index,
                          srkMeshSurf& out, std::string& error) {
    if (n_index <= 0 || n_index % 3 != 0) {
        error =
            "mesh: the index count " + std::to_string(n_index) + " is not a positive multiple of 3";
        return 0;
    }
    for (int i = 0; i < n_index; ++i) {
        if (index[i] < 0 || index[i] >= n_vertices) {
            error = "mesh: index " + std::to_string(index[i]) + " out of range";
            return 0;
        }
    }
    for (int i = 0; i < 3 * n_vertices; ++i) {
        if (!std::isfinite(xyz[i])) {
            error = "mesh: non-finite vertex coordinate";
            return 0;
        }
    }
    intcoDynArr order, remap;
    if (!order.expand(n_vertices) || !remap.expand(n_vertices)) {
        error = "out of memory";
        return 0;
    }
    for (int i = 0; i < n_vertices; ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [xyz](int a, int b) {
        const double* pa = xyz + 3 * a;
        const double* pb = xyz + 3 * b;
        for (int k = 0; k < 3; ++k)
            if (pa[k] != pb[k]) return pa[k] < pb[k];
        return a < b;
    });
    // remap[i]: the first vertex equal to i; then the compact number of that vertex.
    for (int k = 0; k < n_vertices; ++k) {
        const int i = order[k];
        const bool same = k > 0 && std::equal(xyz + 3 * i, xyz + 3 * i + 3, xyz + 3 * order[k - 1]);
        remap[i] = same ? remap[order[k - 1]] : i;
    }
    srkMeshSurf mesh;
    intcoDynArr number;
    if (!number.expand(n_vertices) || !mesh.vertices_.reserve(3 * n_vertices) ||
        !mesh.facets_.reserve(n_index)) {
        error = "out of memory";
        return 0;
    }
    int kept = 0;
    for (int i = 0; i < n_vertices; ++i) {
        if (remap[i] != i) continue;
        number[i] = kept++;
        for (int k = 0; k < 3; ++k) mesh.vertices_.append(xyz[3 * i + k]);
    }
    for (int f = 0; f < n_index / 3; ++f) {
        int v[3];
        for (int k = 0; k < 3; ++k) v[k] = number[remap[index[3 * f + k]]];
        if (v[0] == v[1] || v[1] == v[2] || v[0] == v[2]) continue;
        const double* a = mesh.vertices_.data() + 3 * v[0];
        const double* b = mesh.vertices_.data() + 3 * v[1];
        const double* c = mesh.vertices_.data() + 3 * v[2];
        double ab[3], ac[3], n[3];
        sub3(b, a, ab);
        sub3(c, a, ac);
        cross3(ab, ac, n);
        const double longest2 = std::max({dot3(ab, ab), dot3(ac, ac), dist2(b, c)});
        if (!(std::sqrt(dot3(n, n)) > kDegenerateTol * longest2)) continue;
        for (int k = 0; k < 3; ++k) mesh.facets_.append(v[k]);
    }
    if (mesh.facets_.size() == 0) {
        error = "mesh: every facet is degenerate (no area)";
        return 0;
    }
    if (!mesh.finish()) {
        error = "out of memory";
        return 0;
    }
    out = std::move(mesh);
    return 1;
}

int srkMeshSurf::finish() {
    const int nf = facet_count(), nv = vertex_count();
    normals_.clear(0);
    vertex_first_.clear(0);
    vertex_facets_.clear(0);
    if (!normals_.expand(3 * nf) || !vertex_first_.expand(nv + 1) || !vertex_facets_.expand(3 * nf))
        return 0;
    box_ = giBox3();
    double largest = 0.0;
    for (int f = 0; f < nf; ++f) {
        const double* a = vertices_.data() + 3 * facets_[3 * f];
        const double* b = vertices_.data() + 3 * facets_[3 * f + 1];
        const double* c = vertices_.data() + 3 * facets_[3 * f + 2];
        double ab[3], ac[3], n[3];
        sub3(b, a, ab);
        sub3(c, a, ac);
        cross3(ab, ac, n);
        const giUnitVec3 unit(n[0], n[1], n[2]);
        if (!unit.is_set()) return 0;
        normals_[3 * f] = unit.x();
        normals_[3 * f + 1] = unit.y();
        normals_[3 * f + 2] = unit.z();
        for (const double* q : {a, b, c}) {
            box_.merge(giPoint3(q[0], q[1], q[2]));
            for (int k = 0; k < 3; ++k) largest = std::max(largest, std::fabs(q[k]));
        }
        for (int k = 0; k < 3; ++k) ++vertex_first_[facets_[3 * f + k] + 1];
    }
    scale_ = box_.diagonal() + largest;
    for (int i = 0; i < nv; ++i) vertex_first_[i + 1] += vertex_first_[i];
    intcoDynArr fill(vertex_first_);
    if (fill.size() != nv + 1) return 0;
    for (int f = 0; f < nf; ++f)
        for (int k = 0; k < 3; ++k) vertex_facets_[fill[facets_[3 * f + k]]++] = f;
    return build_tree();
}

int srkMeshSurf::build_tree() {
    const int nf = facet_count();
    nodes_.clear(0);
    tris_.clear(0);
    doublecoDynArr centroid;
    intcoDynArr order;
    if (!centroid.expand(3 * nf) || !order.expand(nf) || !nodes_.reserve(2 * nf) ||
        !tris_.expand(nf))
        return 0;
    for (int f = 0; f < nf; ++f) {
        order[f] = f;
        for (int k = 0; k < 3; ++k)
            centroid[3 * f + k] =
                (vertices_[3 * facets_[3 * f] + k] + vertices_[3 * facets_[3 * f + 1] + k] +
                 vertices_[3 * facets_[3 * f + 2] + k]) /
                3.0;
    }
    struct Work {
        int node, first, count;
    };
    coDynArr<Work> work;
    nodes_.append(Node());
    work.append({0, 0, nf});
    // Each step settles one node; a tree over nf facets has fewer than 2 nf nodes.
    for (int step = 0; step < 2 * nf + 1 && work.size() > 0; ++step) {
        const Work w = work[work.size() - 1];
        work.shrink(work.size() - 1, 0);
        Node& node = nodes_[w.node];
        double clo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL}, chi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
        for (int k = 0; k < 3; ++k) {
            node.lo[k] = HUGE_VAL;
            node.hi[k] = -HUGE_VAL;
        }
        for (int i = w.first; i < w.first + w.count; ++i) {
            const int f = order[i];
            for (int j = 0; j < 3; ++j) {
                const double* q = vertices_.data() + 3 * facets_[3 * f + j];
                for (int k = 0; k < 3; ++k) {
                    node.lo[k] = std::min(node.lo[k], q[k]);
                    node.hi[k] = std::max(node.hi[k], q[k]);
                }
            }
            for (int k = 0; k < 3; ++k) {
                clo[k] = std::min(clo[k], centroid[3 * f + k]);
                chi[k] = std::max(chi[k], centroid[3 * f + k]);
            }
        }
        if (w.count <= kLeafSize) {
            node.first = w.first;
            node.count = w.count;
            continue;
        }
        int axis = 0;
        for (int k = 1; k < 3; ++k)
            if (chi[k] - clo[k] > chi[axis] - clo[axis]) axis = k;
        const int half = w.count / 2;
        // Ties by facet index make the order total, so the tree is the same on every run.
        const double* cen = centroid.data();
        std::nth_element(order.begin() + w.first, order.begin() + w.first + half,
                         order.begin() + w.first + w.count, [cen, axis](int a, int b) {
                             const double ca = cen[3 * a + axis], cb = cen[3 * b + axis];
                             return ca < cb || (ca == cb && a < b);
                         });
        const int left = nodes_.size();
        node.first = left;
        node.count = 0;
        nodes_.append(Node());  // `node` may dangle from here on; capacity was reserved
        nodes_.append(Node());
        work.append({left + 1, w.first + half, w.count - half});
        work.append({left, w.first, half});
    }
    for (int i = 0; i < nf; ++i) {
        const int f = order[i];
        Tri& t = tris_[i];
        t.facet = f;
        for (int k = 0; k < 3; ++k) {
            t.a[k] = vertices_[3 * facets_[3 * f] + k];
            t.b[k] = vertices_[3 * facets_[3 * f + 1] + k];
            t.c[k] = vertices_[3 * facets_[3 * f + 2] + k];
            t.n[k] = normals_[3 * f + k];
        }
    }
    return 1;
}

// ---- queries ------------------------------------------------------------------

giPoint3 srkMeshSurf::vertex(int i) const {
    return giPoint3(vertices_[3 * i], vertices_[3 * i + 1], vertices_[3 * i + 2]);
}

giUnitVec3 srkMeshSurf::facet_normal(int f) const {
    return giUnitVec3(normals_[3 * f], normals_[3 * f + 1], normals_[3 * f + 2]);
}

int srkMeshSurf::nearest(const double* p, double* q, double& d2, double& u, double& v) const {
    struct Entry {
        int node;
        double d2;
    };
    Entry stack[kStackSize];
    int top = 0;
    int best = -1;
    d2 = HUGE_VAL;
    stack[top++] = {0, box_dist2(p, nodes_[0].lo, nodes_[0].hi)};
    // Every node is pushed at most once.
    for (int guard = 0; guard <= nodes_.size() && top > 0; ++guard) {
        const Entry e = stack[--top];
        if (e.d2 >= d2) continue;
        const Node& node = nodes_[e.node];
        if (node.count > 0) {
            for (int i = node.first; i < node.first + node.count; ++i) {
                const Tri& t = tris_[i];
                double cq[3], cu, cv;
                const double cd2 = closest_on_triangle(p, t.a, t.b, t.c, cq, cu, cv);
                if (cd2 < d2) {
                    d2 = cd2;
                    best = i;
                    std::copy(cq, cq + 3, q);
                    u = cu;
                    v = cv;
                }
            }
            continue;
        }
        const int l = node.first, r = node.first + 1;
        const double dl = box_dist2(p, nodes_[l].lo, nodes_[l].hi);
        const double dr = box_dist2(p, nodes_[r].lo, nodes_[r].hi);
        const Entry near = dl <= dr ? Entry{l, dl} : Entry{r, dr};
        const Entry far = dl <= dr ? Entry{r, dr} : Entry{l, dl};
        if (far.d2 < d2 && top < kStackSize) stack[top++] = far;
        if (near.d2 < d2 && top < kStackSize) stack[top++] = near;
    }
    return best;
}

int srkMeshSurf::nearest_facet(const giPoint3& p) const {
    if (tris_.size() == 0 || !p.is_set() || !p.is_finite()) return -1;
    const double pp[3] = {p.x(), p.y(), p.z()};
    double q[3], d2, u, v;
    const int i = nearest(pp, q, d2, u, v);
    return i < 0 ? -1 : tris_[i].facet;
}

int srkMeshSurf::project_all(const giPoint3& p, srkSurfPointList& out, int& info) const {
    info = 0;
    if (tris_.size() == 0 || !p.is_set() || !p.is_finite()) return 0;
    const double pp[3] = {p.x(), p.y(), p.z()};
    double q0[3], d2min, u0, v0;
    const int i0 = nearest(pp, q0, d2min, u0, v0);
    if (i0 < 0) return 0;
    out.append(srkSurfPoint(giPoint3(q0[0], q0[1], q0[2]), u0, v0, tris_[i0].facet));

    const double dmin = std::sqrt(d2min);
    const double reach = dmin + std::max(dmin, 1e-3 * box_.diagonal());
    double r2 = reach * reach;

    Foot feet[kMaxExtraFeet];
    int n_feet = 0;
    int stack[kStackSize];
    int top = 0;
    stack[top++] = 0;
    for (int guard = 0; guard <= nodes_.size() && top > 0; ++guard) {
        const Node& node = nodes_[stack[--top]];
        if (box_dist2(pp, node.lo, node.hi) > r2) continue;
        if (node.count == 0) {
            if (top + 2 <= kStackSize) {
                stack[top++] = node.first + 1;
                stack[top++] = node.first;
            }
            continue;
        }
        for (int i = node.first; i < node.first + node.count; ++i) {
            const Tri& t = tris_[i];
            double ap[3], ab[3], ac[3];
            sub3(pp, t.a, ap);
            const double h = dot3(t.n, ap);
            Foot foot;
            foot.d2 = h * h;
            foot.facet = t.facet;
            if (foot.d2 > r2) continue;
            if (n_feet == kMaxExtraFeet && !foot_before(foot, feet[n_feet - 1])) continue;
            sub3(t.b, t.a, ab);
            sub3(t.c, t.a, ac);
            const double d00 = dot3(ab, ab), d01 = dot3(ab, ac), d11 = dot3(ac, ac);
            const double e0 = dot3(ab, ap), e1 = dot3(ac, ap);
            const double den = d00 * d11 - d01 * d01;
            foot.u = (d11 * e0 - d01 * e1) / den;
            foot.v = (d00 * e1 - d01 * e0) / den;
            if (!(foot.u >= -kInsideTol && foot.v >= -kInsideTol &&
                  foot.u + foot.v <= 1.0 + kInsideTol))
                continue;
            for (int k = 0; k < 3; ++k) foot.q[k] = pp[k] - h * t.n[k];
            const double tol = kCoincideTol * (scale_ + std::fabs(h));
            const double tol2 = tol * tol;
            bool duplicate = dist2(foot.q, q0) <= tol2;
            for (int j = 0; j < n_feet && !duplicate; ++j)
                duplicate = dist2(foot.q, feet[j].q) <= tol2;
            if (duplicate) continue;
            // Sorted insertion; the farthest drops out when the buffer is full.
            int at = n_feet < kMaxExtraFeet ? n_feet++ : kMaxExtraFeet - 1;
            while (at > 0 && foot_before(foot, feet[at - 1])) {
                feet[at] = feet[at - 1];
                --at;
            }
            feet[at] = foot;
            if (n_feet == kMaxExtraFeet) r2 = std::min(r2, feet[n_feet - 1].d2);
        }
    }
    for (int j = 0; j < n_feet; ++j)
        out.append(srkSurfPoint(giPoint3(feet[j].q[0], feet[j].q[1], feet[j].q[2]), feet[j].u,
                                feet[j].v, feet[j].facet));
    const int count = 1 + n_feet;
    info = count;
    return count;
}

giUnitVec3 srkMeshSurf::normal_at(const srkSurfPoint& s, const giAngle& tolerance) const {
    int f = s.facet;
    if (f < 0 || f >= facet_count()) f = nearest_facet(s.position);
    if (f < 0) return giUnitVec3();
    const giUnitVec3 own = facet_normal(f);
    if (!s.position.is_set() || !s.position.is_finite()) return own;
    const double sp[3] = {s.position.x(), s.position.y(), s.position.z()};
    const int* fv = facets_.data() + 3 * f;
    const double* corner[3];
    double size = 0.0;
    for (int k = 0; k < 3; ++k) {
        corner[k] = vertices_.data() + 3 * fv[k];
        for (int j = 0; j < 3; ++j) size = std::max(size, std::fabs(corner[k][j]));
    }
    for (int k = 0; k < 3; ++k)
        size = std::max(size, std::sqrt(dist2(corner[k], corner[(k + 1) % 3])));
    const double tol = kOnBoundaryTol * size;

    int at_vertex = -1, edge_a = -1, edge_b = -1;
    for (int k = 0; k < 3 && at_vertex < 0; ++k)
        if (std::sqrt(dist2(sp, corner[k])) <= tol) at_vertex = fv[k];
    if (at_vertex < 0) {
        for (int k = 0; k < 3 && edge_a < 0; ++k) {
            if (segment_distance(sp, corner[k], corner[(k + 1) % 3]) <= tol) {
                edge_a = fv[k];
                edge_b = fv[(k + 1) % 3];
            }
        }
        if (edge_a < 0) return own;
    }
    const int hub = at_vertex >= 0 ? at_vertex : edge_a;
    const double sin_tol = std::sin(std::min(std::fabs(tolerance.radians()), 0.5 * giAngle::kPi));
    double sum[3] = {0.0, 0.0, 0.0};
    bool all_close = true;
    for (int j = vertex_first_[hub]; j < vertex_first_[hub + 1]; ++j) {
        const int g = vertex_facets_[j];
        const int* gv = facets_.data() + 3 * g;
        int k = 0;
        while (k < 2 && gv[k] != hub) ++k;
        double weight = 1.0;
        if (at_vertex >= 0) {
            // The facet's interior angle at the vertex.
            double e1[3], e2[3], c[3];
            const double* o = vertices_.data() + 3 * hub;
            sub3(vertices_.data() + 3 * gv[(k + 1) % 3], o, e1);
            sub3(vertices_.data() + 3 * gv[(k + 2) % 3], o, e2);
            cross3(e1, e2, c);
            weight = std::atan2(std::sqrt(dot3(c, c)), dot3(e1, e2));
        } else if (gv[(k + 1) % 3] != edge_b && gv[(k + 2) % 3] != edge_b) {
            continue;  // not across the edge
        }
        const double* n = normals_.data() + 3 * g;
        double c[3];
        const double own_n[3] = {own.x(), own.y(), own.z()};
        cross3(n, own_n, c);
        if (!(dot3(n, own_n) > 0.0 && std::sqrt(dot3(c, c)) <= sin_tol)) all_close = false;
        for (int i = 0; i < 3; ++i) sum[i] += weight * n[i];
    }
    if (all_close) return own;
    const giUnitVec3 mean(sum[0], sum[1], sum[2]);
    return mean.is_set() ? mean : own;
}

srkSurfPtr srkMeshSurf::clone() const { return std::make_shared<srkMeshSurf>(*this); }

int srkMeshSurf::transform_in_place(const giXform3& xform) {
    if (!xform.is_set() || tris_.size() == 0) return 0;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            if (!std::isfinite(xform(r, c))) return 0;
    const double det = xform.determinant();
    if (!(std::fabs(det) > 0.0) || !std::isfinite(det)) return 0;
    srkMeshSurf moved;
    if (!moved.vertices_.reserve(vertices_.size()) || !moved.facets_.become(utCopy, facets_))
        return 0;
    for (int i = 0; i < vertex_count(); ++i) {
        const giPoint3 q = xform * vertex(i);
        if (!q.is_finite()) return 0;
        moved.vertices_.append(q.x());
        moved.vertices_.append(q.y());
        moved.vertices_.append(q.z());
    }
    if (!moved.finish()) return 0;
    *this = std::move(moved);
    return 1;
}

// ---- STL ----------------------------------------------------------------------

int srkMeshSurf::read_stl(const std::string& path, srkMeshSurf& out, std::string& error) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = "cannot open '" + path + "'";
        return 0;
    }
    return read_stl(file, out, error);
}

int srkMeshSurf::read_stl(std::istream& in, srkMeshSurf& out, std::string& error) {
    std::string data;
    char chunk[1 << 16];
    // Bounded by the content limit: each round reads at least one byte or ends.
    for (long long round = 0; round <= kMaxContent; ++round) {
        in.read(chunk, sizeof chunk);
        const std::streamsize got = in.gcount();
        if (got <= 0) break;
        if (static_cast<long long>(data.size()) + got > kMaxContent) {
            error = "STL content larger than 2 GiB";
            return 0;
        }
        data.append(chunk, static_cast<std::size_t>(got));
    }
    if (data.empty()) {
        error = "STL: empty input";
        return 0;
    }
    doublecoDynArr xyz;
    std::string ascii_error;
    bool parsed = false;
    const bool looks_ascii = starts_with_solid(data);
    if (looks_ascii) parsed = parse_ascii(data, xyz, ascii_error) != 0;
    if (!parsed) {
        xyz.clear(0);
        std::string binary_error;
        parsed = parse_binary(data, xyz, binary_error) != 0;
        if (!parsed) {
            error = looks_ascii ? ascii_error : binary_error;
            return 0;
        }
    }
    const int nv = xyz.size() / 3;
    if (nv == 0) {
        error = "STL: no facets";
        return 0;
    }
    intcoDynArr index;
    if (!index.expand(nv)) {
        error = "out of memory";
        return 0;
    }
    for (int i = 0; i < nv; ++i) index[i] = i;
    return assemble(xyz.data(), nv, index.data(), nv, out, error);
}
