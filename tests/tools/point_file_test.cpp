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

TEST(ToolPointTable, CountsEveryLineInMessages) {
    // The bad line is the 5th of the file: comments and blank lines count.
    std::istringstream in("# points\n1 2 3\n\n4,5,6\n7 8\n9 9 9\n");
    PointTable t;
    std::string error;
    EXPECT_FALSE(read_point_table(in, 3, "x y z", t, error));
    EXPECT_EQ(error, "line 5: expected 3 numbers (x y z), found 2");
    EXPECT_EQ(t.rows(), 2);  // the rows before it

    std::istringstream extra("1 2 3 4\n");
    EXPECT_FALSE(read_point_table(extra, 3, "x y z", t, error));
    EXPECT_EQ(error, "line 1: expected 3 numbers (x y z), found 4");

    std::istringstream word("1 2\n3 four\n");
    EXPECT_FALSE(read_point_table(word, 2, "x y", t, error));
    EXPECT_EQ(error, "line 2: not a number: 'four'");
}

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

TEST(ToolPointTable, NumbersRoundTripExactly) {
    // 17 significant digits give back the very doubles that were written.
    const double values[] = {0.1, -1234567.8901234567, 6.02214076e23, 4.9e-324};
    std::ostringstream text;
    text.precision(17);
    for (const double v : values) text << v << " " << -v << "\n";
    std::istringstream in(text.str());
    PointTable t;
    std::string error;
    ASSERT_TRUE(read_point_table(in, 2, "x y", t, error)) << error;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(t.at(i, 0), values[i]);
        EXPECT_EQ(t.at(i, 1), -values[i]);
    }
}

}  // namespace
