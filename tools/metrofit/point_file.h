// Reading the text files of points that the metrofit tool fits.
//
// One point per line, its numbers separated by commas, spaces or tabs (a
// comma may have spaces around it); everything from '#' to the end of the
// line is a comment; blank lines are skipped; a trailing '\r' (files written
// on Windows) and a UTF-8 byte-order mark at the start are ignored.
//
// Nothing is guessed: every data line must hold exactly the expected number
// of values, each a complete finite number. Two separators in a row, a
// separator at the start or the end, a word, "nan", "inf" or a value beyond
// the double range make the line bad, and reading stops there with a
// message that names the line.
#pragma once

#include <functional>
#include <istream>
#include <string>
#include <vector>

namespace metrofit_tool {

// The numbers of a point file, row-major, with the line each row came from.
struct PointTable {
    int columns = 0;
    std::vector<double> values;
    std::vector<int> lines;

    int rows() const { return static_cast<int>(lines.size()); }
    double at(int row, int column) const { return values[row * columns + column]; }
};

// Splits one line into its fields (the text between separators). Returns 1
// with the fields, 0 for a line without data, -1 with a message for a
// misplaced comma.
int split_point_fields(const std::string& line, std::vector<std::string>& fields,
                       std::string& error);

// Splits one line into numbers. Returns 1 with the numbers in `row`, 0 for
// a line without data (blank or comment only; `row` empty), -1 with a
// message in `error` for a bad line.
int parse_point_line(const std::string& line, std::vector<double>& row, std::string& error);

// Reads every line of `in` (a byte-order mark before the first is skipped)
// and hands each data line to `take` with its line number: as numbers
// (read_number_rows) or as fields (read_field_rows). Returns false with
// "line N: message" in `error` at the first line that is malformed or that
// `take` refuses (its reason in the message), "cannot read the file" when
// the stream fails, true otherwise.
using NumberRowTaker =
    std::function<bool(std::vector<double>& row, int line, std::string& message)>;
using FieldRowTaker = std::function<bool(const std::string& text, std::vector<std::string>& fields,
                                         int line, std::string& message)>;
bool read_number_rows(std::istream& in, const NumberRowTaker& take, std::string& error);
bool read_field_rows(std::istream& in, const FieldRowTaker& take, std::string& error);

// Reads every line of `in`; each data line must hold `columns` numbers,
// named by `column_names` (e.g. "x y z") in messages. On a bad line returns
// false with "line N: ..." in `error` and `table` holding the rows before it.
bool read_point_table(std::istream& in, int columns, const std::string& column_names,
                      PointTable& table, std::string& error);

}  // namespace metrofit_tool
