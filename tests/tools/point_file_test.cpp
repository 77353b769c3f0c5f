#include "tools/metrofit/point_file.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

using metrofit_tool::parse_point_line;
using metrofit_tool::PointTable;
using metrofit_tool::read_point_table;

struct GoodLine {
    std::string text;
    std::vector<double> values;  // empty: no data on the line
};

class ToolPointLine : public ::testing::TestWithParam<GoodLine> {};

TEST_P(ToolPointLine, ReadsEverySeparatorStyle) {
    std::vector<double> row{99.0};
    std::string error;
    const int status = parse_point_line(GetParam().text, row, error);
    EXPECT_EQ(status, GetParam().values.empty() ? 0 : 1) << error;
    EXPECT_EQ(row, GetParam().values);
}

INSTANTIATE_TEST_SUITE_P(
    Tool, ToolPointLine,
    ::testing::Values(GoodLine{"1,2,3", {1, 2, 3}}, GoodLine{"1 2 3", {1, 2, 3}},
                      GoodLine{"\t1\t2\t3", {1, 2, 3}}, GoodLine{"  1 ,2 ,  3  ", {1, 2, 3}},
                      GoodLine{"1.5e3, -2.25, +4", {1500, -2.25, 4}},
                      GoodLine{"1 2 3 # probe 7", {1, 2, 3}}, GoodLine{"1,2\r", {1, 2}},
                      GoodLine{"-0.0 5", {-0.0, 5}}, GoodLine{"", {}}, GoodLine{"   \t ", {}},
                      GoodLine{"# x, y, z", {}}, GoodLine{"  # indented comment", {}},
                      GoodLine{"\r", {}}));

struct BadLine {
    std::string text;
    std::string message;  // a part the message must hold
};

class ToolPointLineBad : public ::testing::TestWithParam<BadLine> {};

TEST_P(ToolPointLineBad, NamesWhatIsWrong) {
    std::vector<double> row;
    std::string error;
    EXPECT_EQ(parse_point_line(GetParam().text, row, error), -1);
    EXPECT_NE(error.find(GetParam().message), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(
    Tool, ToolPointLineBad,
    ::testing::Values(BadLine{"1,,2", "empty value"}, BadLine{",1,2", "starts with a comma"},
                      BadLine{"1,2,", "ends with a comma"},
                      BadLine{"1, 2 ,  ", "ends with a comma"},
                      BadLine{"1,2,x", "not a number: 'x'"}, BadLine{"1;2;3", "not a number"},
                      BadLine{"1.2.3 4", "not a number"}, BadLine{"1 2mm 3", "'2mm'"},
                      BadLine{"1 nan 3", "not finite: 'nan'"}, BadLine{"-inf 1 2", "not finite"},
                      BadLine{"1e999 0 0", "out of range"}));

TEST(ToolPointTable, KeepsRowsAndTheirLineNumbers) {
    // Windows line ends, a byte-order mark and a final line without newline.
    std::istringstream in("\xEF\xBB\xBF# x y\r\n1, 2\r\n\r\n# gap\r\n3\t4\r\n5 6");
    PointTable t;
    std::string error;
    ASSERT_TRUE(read_point_table(in, 2, "x y", t, error)) << error;
    ASSERT_EQ(t.rows(), 3);
    EXPECT_EQ(t.lines, (std::vector<int>{2, 5, 6}));
    EXPECT_EQ(t.at(1, 0), 3.0);
    EXPECT_EQ(t.at(2, 1), 6.0);

    std::istringstream empty("# nothing but comments\n\n");
    ASSERT_TRUE(read_point_table(empty, 3, "x y z", t, error));
    EXPECT_EQ(t.rows(), 0);
}

}  // namespace
