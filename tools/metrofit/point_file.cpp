#include "tools/metrofit/point_file.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace metrofit_tool {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// The field as the user wrote it, shortened for messages, with control
// bytes shown as '?' so that a binary file cannot garble the terminal.
std::string quoted(const std::string& field) {
    std::string shown = field.size() > 40 ? field.substr(0, 40) + "..." : field;
    for (char& c : shown)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return "'" + shown + "'";
}

// One field as a finite double, or a message why not.
bool parse_number(const std::string& field, double& value, std::string& error) {
    errno = 0;
    char* end = nullptr;
    const double v = std::strtod(field.c_str(), &end);
    if (end != field.c_str() + field.size() || end == field.c_str()) {
        error = "not a number: " + quoted(field);
        return false;
    }
    if (std::isnan(v) || std::isinf(v)) {
        error =
            (errno == ERANGE ? "number out of range: " : "value is not finite: ") + quoted(field);
        return false;
    }
    value = v;
    return true;
}

}  // namespace

int split_point_fields(const std::string& line, std::vector<std::string>& fields,
                       std::string& error) {
    fields.clear();
    std::size_t end = line.find('#');
    if (end == std::string::npos) end = line.size();
    if (end > 0 && line[end - 1] == '\r') --end;

    std::size_t i = 0;
    while (i < end && is_blank(line[i])) ++i;
    if (i == end) return 0;
    // Fields separated by a comma (with optional blanks around it) or by
    // blanks alone.
    for (;;) {
        const std::size_t start = i;
        while (i < end && !is_blank(line[i]) && line[i] != ',') ++i;
        if (i == start) {
            error = fields.empty() ? "line starts with a comma" : "empty value between two commas";
            return -1;
        }
        fields.push_back(line.substr(start, i - start));
        while (i < end && is_blank(line[i])) ++i;
        if (i == end) return 1;
        if (line[i] == ',') {
            ++i;
            while (i < end && is_blank(line[i])) ++i;
            if (i == end) {
                error = "line ends with a comma";
                return -1;
            }
        }
    }
}

int parse_point_line(const std::string& line, std::vector<double>& row, std::string& error) {
    row.clear();
    std::vector<std::string> fields;
    const int status = split_point_fields(line, fields, error);
    if (status <= 0) return status;
    for (const std::string& field : fields) {
        double value = 0.0;
        if (!parse_number(field, value, error)) {
            row.clear();
            return -1;
        }
        row.push_back(value);
    }
    return 1;
}

namespace {

// The loop of both readers: `take_line` gets each line and its number and
// says 0 (no data), 1 (taken) or -1 (refused, with the message).
bool read_lines(std::istream& in,
                const std::function<int(const std::string&, int, std::string&)>& take_line,
                std::string& error) {
    std::string line, message;
    for (int number = 1; std::getline(in, line); ++number) {
        if (number == 1 && line.compare(0, 3, "\xEF\xBB\xBF") == 0) line.erase(0, 3);
        if (take_line(line, number, message) < 0) {
            error = "line " + std::to_string(number) + ": " + message;
            return false;
        }
    }
    if (in.bad()) {
        error = "cannot read the file";
        return false;
    }
    return true;
}

}  // namespace

bool read_number_rows(std::istream& in, const NumberRowTaker& take, std::string& error) {
    std::vector<double> row;
    return read_lines(
        in,
        [&](const std::string& line, int number, std::string& message) {
            const int status = parse_point_line(line, row, message);
            if (status <= 0) return status;
            return take(row, number, message) ? 1 : -1;
        },
        error);
}

bool read_field_rows(std::istream& in, const FieldRowTaker& take, std::string& error) {
    std::vector<std::string> fields;
    return read_lines(
        in,
        [&](const std::string& line, int number, std::string& message) {
            const int status = split_point_fields(line, fields, message);
            if (status <= 0) return status;
            return take(line, fields, number, message) ? 1 : -1;
        },
        error);
}

bool read_point_table(std::istream& in, int columns, const std::string& column_names,
                      PointTable& table, std::string& error) {
    table = PointTable();
    table.columns = columns;
    return read_number_rows(
        in,
        [&](std::vector<double>& row, int number, std::string& message) {
            if (static_cast<int>(row.size()) != columns) {
                message = "expected " + std::to_string(columns) + " numbers (" + column_names +
                          "), found " + std::to_string(row.size());
                return false;
            }
            table.values.insert(table.values.end(), row.begin(), row.end());
            table.lines.push_back(number);
            return true;
        },
        error);
}

}  // namespace metrofit_tool
