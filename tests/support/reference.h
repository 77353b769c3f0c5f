// Reference least-squares fits of tests/data/ (computed to 40 digits): the
// cases of a feature, their points, and the comparisons the tolerances are
// stated for.
#pragma once

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "metrofit/platform/geometry/arrays.h"

namespace testsupport {

struct ReferenceFit {
    std::string id, feature, file;
    int fit = 0;  // 0 the reference, 1.. alternative exact fits
    int n = 0;
    double rms = 0, tol_position = 0, tol_orientation = 0, tol_size = 0, tol_rms = 0;
    std::vector<double> params;  // canonical parameters, see tests/data/README.md
};

inline std::string reference_dir() { return METROFIT_TEST_DATA_DIR; }

// Every fit of the feature (references and alternatives) in file order.
inline std::vector<ReferenceFit> reference_fits(const std::string& feature) {
    std::vector<ReferenceFit> fits;
    std::ifstream in(reference_dir() + "/reference.txt");
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream s(line);
        ReferenceFit f;
        s >> f.id >> f.fit >> f.feature >> f.n >> f.file >> f.rms >> f.tol_position >>
            f.tol_orientation >> f.tol_size >> f.tol_rms;
        if (f.feature != feature) continue;
        for (double v; s >> v;) f.params.push_back(v);
        fits.push_back(f);
    }
    return fits;
}

// The rows of a case file, each as its doubles (strtod gives back the exact
// stored values).
inline std::vector<std::vector<double>> reference_rows(const std::string& file) {
    std::vector<std::vector<double>> rows;
    std::ifstream in(reference_dir() + "/" + file);
    std::string line;
    while (std::getline(in, line)) {
        std::vector<double> row;
        const char* p = line.c_str();
        char* end = nullptr;
        for (double v = std::strtod(p, &end); end != p; v = std::strtod(p, &end)) {
            row.push_back(v);
            p = end;
            while (*p == ',' || *p == ' ') ++p;
        }
        if (!row.empty()) rows.push_back(row);
    }
    return rows;
}

inline giPoint3coDynArr reference_points3(const std::string& file) {
    giPoint3coDynArr pts;
    for (const auto& r : reference_rows(file)) pts.append(giPoint3(r[0], r[1], r[2]));
    return pts;
}

inline giPoint2coDynArr reference_points2(const std::string& file) {
    giPoint2coDynArr pts;
    for (const auto& r : reference_rows(file)) pts.append(giPoint2(r[0], r[1]));
    return pts;
}

// Angle between two directions ignoring their sense, accurate near 0.
inline double undirected_angle(double ux, double uy, double uz, double vx, double vy, double vz) {
    const double cx = uy * vz - uz * vy, cy = uz * vx - ux * vz, cz = ux * vy - uy * vx;
    return std::atan2(std::sqrt(cx * cx + cy * cy + cz * cz),
                      std::abs(ux * vx + uy * vy + uz * vz));
}

// Distance of point q from the line through p along unit direction u.
inline double distance_from_line(double qx, double qy, double qz, double px, double py, double pz,
                                 double ux, double uy, double uz) {
    const double wx = qx - px, wy = qy - py, wz = qz - pz;
    const double cx = uy * wz - uz * wy, cy = uz * wx - ux * wz, cz = ux * wy - uy * wx;
    return std::sqrt(cx * cx + cy * cy + cz * cz);
}

}  // namespace testsupport
