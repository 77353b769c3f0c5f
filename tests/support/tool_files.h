// Files the command-line tool's tests hand to the commands: a temporary file
// per test and process, and the box mesh most of them fit to.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace testsupport {

// Writes `content` to a file whose name carries the tag, the running test
// and the process (ctest runs tests in parallel) and returns its path.
inline std::string temp_file(const std::string& tag, const std::string& name,
                             const std::string& content) {
    const std::string path = ::testing::TempDir() + "metrofit_" + tag + "_" +
                             ::testing::UnitTest::GetInstance()->current_test_info()->name() + "_" +
                             std::to_string(::getpid()) + "_" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

// An ASCII STL of the box [0, 40] x [0, 30] x [0, 20] moved by (ax, ay, az),
// wound outward: two facets per face.
inline std::string box_stl(double ax = 0.0, double ay = 0.0, double az = 0.0) {
    const int faces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4},
                             {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    std::ostringstream s;
    s.precision(17);
    s << "solid box\n";
    for (const auto& f : faces)
        for (const int* t : {f, f + 1}) {
            s << "facet normal 0 0 0\nouter loop\n";
            for (int k : {f[0], t[1], t[2]})  // bit 0: x, bit 1: y, bit 2: z
                s << "vertex " << 40 * (k & 1) + ax << " " << 30 * ((k >> 1) & 1) + ay << " "
                  << 20 * (k >> 2) + az << "\n";
            s << "endloop\nendfacet\n";
        }
    return s.str() + "endsolid box\n";
}

}  // namespace testsupport
