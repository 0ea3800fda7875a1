#include "import/moment_file.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <optional>

#include "platform/files.h"
#include "text/text.h"

namespace corvane {

namespace {

struct Line {
    std::string_view text; // without its line break
    int number;            // from 1
};

std::vector<Line> linesOf(std::string_view text) {
    std::vector<Line> result;
    int number = 0;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        result.push_back({line, ++number});
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return result;
}

std::string_view trimmed(std::string_view field) { return trimmedField(field); }

bool isBlank(std::string_view line) { return trimmed(line).empty(); }

// The fields of line between the marks (each trimmed); with ' ' as the mark, runs of blanks and
// tabs separate them and there are no empty fields.
std::vector<std::string_view> fieldsOf(std::string_view line, char mark) {
    std::vector<std::string_view> fields;
    if (mark == ' ') {
        std::size_t at = 0;
        while ((at = line.find_first_not_of(" \t", at)) != std::string_view::npos) {
            const std::size_t end = std::min(line.find_first_of(" \t", at), line.size());
            fields.push_back(trimmed(line.substr(at, end - at)));
            at = end;
        }
        return fields;
    }
    for (std::size_t at = 0;;) {
        const std::size_t end = std::min(line.find(mark, at), line.size());
        fields.push_back(trimmed(line.substr(at, end - at)));
        if (end == line.size()) break;
        at = end + 1;
    }
    return fields;
}

std::string lower(std::string_view text) {
    std::string result(text);
    for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

// A column whose values a row needs: where it stands and how its values become K, Oe or emu.
struct Column {
    std::size_t index = 0;
    double scale = 1.0;
};

// Reads the rows of the data lines: each must have at least `needed` fields (else it is cut
// short and the file refused); a row without a number in one of the columns is skipped.
class RowReader {
public:
    // comments: lines that begin with a comment mark are skipped (plain columns; an MPMS3 row
    // may begin with a comment of the user's).
    RowReader(const std::string& path, MomentFile& file, bool comments)
        : path_(path), file_(file), comments_(comments) {}

    bool read(const std::vector<Line>& lines, std::size_t first, char mark, Column t, Column h,
              Column m, std::size_t needed, const std::string& neededText, std::string& error) {
        for (std::size_t k = first; k < lines.size(); ++k) {
            const Line& line = lines[k];
            if (isBlank(line.text) || (comments_ && isComment(line.text))) continue;
            const std::vector<std::string_view> fields = fieldsOf(line.text, mark);
            if (fields.size() < needed) {
                error = formatC("%s, line %d: the row is cut short: it has %zu fields, %s.",
                                path_.c_str(), line.number, fields.size(), neededText.c_str());
                return false;
            }
            MomentRow row;
            row.line = line.number;
            if (!number(fields[t.index], t.scale, row.temperature) ||
                !number(fields[h.index], h.scale, row.field) ||
                !number(fields[m.index], m.scale, row.moment)) {
                if (file_.skippedRows++ == 0) file_.firstSkippedLine = line.number;
                continue;
            }
            file_.rows.push_back(row);
        }
        return true;
    }

    // Lines a plain-columns file skips: comments. (An MPMS3 data row never begins so.)
    static bool isComment(std::string_view line) {
        const std::string_view field = trimmed(line);
        return !field.empty() && std::string_view("#;!%").find(field[0]) != std::string_view::npos;
    }

private:
    static bool number(std::string_view text, double scale, double& value) {
        double read = 0;
        if (!parseReal(text, read) || !std::isfinite(read * scale)) return false;
        value = read * scale;
        return true;
    }

    const std::string& path_;
    MomentFile& file_;
    bool comments_;
};

// [SECTION] MPMS3

std::optional<std::size_t> indexOf(const std::vector<std::string_view>& names,
                                   std::string_view name) {
    for (std::size_t k = 0; k < names.size(); ++k)
        if (names[k] == name) return k;
    return std::nullopt;
}

// "INFO,value,NAME": the value may itself hold commas, the name is after the last one.
void readInfo(std::string_view line, MomentFile& file) {
    if (line.substr(0, 5) != "INFO,") return;
    const std::size_t last = line.rfind(',');
    if (last < 5) return;
    const std::string_view name = trimmed(line.substr(last + 1));
    const std::string_view value = trimmed(line.substr(5, last - 5));
    if (name == "SAMPLE_MATERIAL") {
        file.material = printableText(value, 119);
        return;
    }
    for (HeaderValue* entry : {&file.mass, &file.molarMass, &file.sampleSize}) {
        double number = 0;
        if (name == entry->name && parseReal(value, number)) {
            entry->given = true;
            entry->value = number;
        }
    }
}

bool readMpms3(const std::vector<Line>& lines, const std::string& path, MomentFile& file,
               std::string& error) {
    std::size_t data = lines.size();
    for (std::size_t k = 0; k < lines.size() && data == lines.size(); ++k) {
        const std::string_view text = trimmed(lines[k].text);
        if (text == "[Data]")
            data = k;
        else
            readInfo(text, file);
    }
    if (data == lines.size()) {
        error = path + ": the file has a [Header] but no [Data] section, so it holds no "
                       "measured rows.";
        return false;
    }
    std::size_t head = data + 1;
    while (head < lines.size() && isBlank(lines[head].text)) ++head;
    if (head == lines.size()) {
        error = formatC("%s, line %d: [Data] is not followed by the row of column names.",
                        path.c_str(), lines[data].number);
        return false;
    }
    const Line& header = lines[head];
    const std::vector<std::string_view> names = fieldsOf(header.text, ',');
    Column columns[2];
    const char* required[2] = {"Temperature (K)", "Magnetic Field (Oe)"};
    for (int c = 0; c < 2; ++c) {
        const std::optional<std::size_t> at = indexOf(names, required[c]);
        if (!at) {
            error = formatC("%s, line %d: the row of column names has no column \"%s\".",
                            path.c_str(), header.number, required[c]);
            return false;
        }
        columns[c].index = *at;
    }

    // The moment column: the first of mpmsMomentColumns that a row fills with a number.
    std::optional<std::size_t> moment;
    for (const char* name : mpmsMomentColumns) {
        const std::optional<std::size_t> at = indexOf(names, name);
        if (!at || moment) continue;
        for (std::size_t k = head + 1; k < lines.size() && !moment; ++k) {
            const std::vector<std::string_view> fields = fieldsOf(lines[k].text, ',');
            double ignored = 0;
            if (*at < fields.size() && parseReal(fields[*at], ignored)) {
                moment = at;
                file.momentColumn = name;
            }
        }
    }
    for (const char* name : mpmsMomentColumns) { // none filled: the rows are all skipped
        if (moment) break;
        moment = indexOf(names, name);
        if (moment) file.momentColumn = name;
    }
    if (!moment) {
        error = formatC("%s, line %d: the row of column names has no moment column (\"%s\", "
                        "\"%s\" or \"%s\").",
                        path.c_str(), header.number, mpmsMomentColumns[1], mpmsMomentColumns[0],
                        mpmsMomentColumns[2]);
        return false;
    }
    RowReader reader(path, file, false);
    return reader.read(
        lines, head + 1, ',', columns[0], columns[1], {*moment, 1.0}, names.size(),
        formatC("the row of column names (line %d) %zu", header.number, names.size()), error);
}

// [SECTION] Plain columns

// What a header name stands for, and the factor that takes its unit to K, Oe or emu; 0 when
// the unit is not one of those known.
enum class Quantity { Other, Temperature, Field, Moment };

struct NamedColumn {
    Quantity quantity = Quantity::Other;
    double scale = 1.0;
    std::string unit; // as written, for a message
};

NamedColumn columnNamed(std::string_view name) {
    std::string base = lower(name), unit;
    const std::size_t open = base.find_first_of("([");
    if (open != std::string::npos) {
        const std::size_t close = base.find_first_of(")]", open);
        unit = std::string(trimmed(base.substr(
            open + 1, close == std::string::npos ? std::string::npos : close - open - 1)));
        base = std::string(trimmed(base.substr(0, open)));
    }
    NamedColumn column;
    column.unit = unit;
    const auto isOneOf = [&](std::initializer_list<const char*> names) {
        return std::any_of(names.begin(), names.end(), [&](const char* n) { return base == n; });
    };
    const auto unitScale = [&](std::initializer_list<std::pair<const char*, double>> units) {
        if (unit.empty()) return 1.0;
        for (const auto& [u, scale] : units)
            if (unit == u) return scale;
        return 0.0;
    };
    if (isOneOf({"t", "temp", "temperature"})) {
        column.quantity = Quantity::Temperature;
        column.scale = unitScale({{"k", 1.0}});
    } else if (isOneOf({"h", "b", "field", "magnetic field", "applied field"})) {
        column.quantity = Quantity::Field;
        column.scale = unitScale({{"oe", 1.0}, {"g", 1.0}, {"koe", 1e3}, {"t", 1e4}, {"mt", 10.0}});
    } else if (isOneOf({"m", "moment", "magnetic moment", "long moment"})) {
        column.quantity = Quantity::Moment;
        column.scale = unitScale({{"emu", 1.0}});
    }
    return column;
}

bool readColumns(const std::vector<Line>& lines, const std::string& path, MomentFile& file,
                 std::string& error) {
    std::size_t first = 0;
    while (first < lines.size() &&
           (isBlank(lines[first].text) || RowReader::isComment(lines[first].text)))
        ++first;
    if (first == lines.size()) {
        error = path + ": the file holds no rows of temperature, field and moment.";
        return false;
    }
    const std::string_view opening = lines[first].text;
    const char mark = opening.find(',') != std::string_view::npos    ? ','
                      : opening.find('\t') != std::string_view::npos ? '\t'
                                                                     : ' ';
    std::vector<std::string_view> names = fieldsOf(opening, mark);
    // Between blanks, a unit in brackets belongs to the name before it: "Field (Oe)".
    for (std::size_t k = 1; mark == ' ' && k < names.size();) {
        if (names[k].empty() || (names[k].front() != '(' && names[k].front() != '[')) {
            ++k;
            continue;
        }
        const char* begin = names[k - 1].data();
        names[k - 1] = std::string_view(
            begin, static_cast<std::size_t>(names[k].data() + names[k].size() - begin));
        names.erase(names.begin() + static_cast<std::ptrdiff_t>(k));
    }
    double ignored = 0;
    const bool headed = !names.empty() && !parseReal(names[0], ignored);
    Column t{0, 1.0}, h{1, 1.0}, m{2, 1.0};
    std::size_t needed = 3;
    std::string neededText = "the three of temperature, field and moment";
    if (headed) {
        const struct {
            Quantity quantity;
            Column* column;
            const char* what;
            const char* units;
        } wanted[] = {{Quantity::Temperature, &t, "temperature", "K"},
                      {Quantity::Field, &h, "field", "Oe, kOe, T or mT"},
                      {Quantity::Moment, &m, "moment", "emu"}};
        needed = 0;
        for (const auto& w : wanted) {
            bool found = false;
            for (std::size_t k = 0; k < names.size() && !found; ++k) {
                const NamedColumn named = columnNamed(names[k]);
                if (named.quantity != w.quantity) continue;
                if (named.scale == 0) {
                    error = formatC("%s, line %d: the %s column \"%s\" is in %s; it must be in "
                                    "%s.",
                                    path.c_str(), lines[first].number, w.what,
                                    printableText(names[k]).c_str(),
                                    printableText(named.unit).c_str(), w.units);
                    return false;
                }
                *w.column = {k, named.scale};
                needed = std::max(needed, k + 1);
                found = true;
            }
            if (!found) {
                error = formatC("%s, line %d: the header row names no %s column (such as "
                                "\"T\", \"Temperature (K)\", \"H\", \"Field (Oe)\", \"M\" or "
                                "\"Moment (emu)\").",
                                path.c_str(), lines[first].number, w.what);
                return false;
            }
        }
        neededText = formatC("the header row (line %d) names %zu", lines[first].number, needed);
        ++first;
    }
    file.momentColumn = headed ? std::string(names[m.index]) : "column 3";
    RowReader reader(path, file, true);
    return reader.read(lines, first, mark, t, h, m, needed, neededText, error);
}

} // namespace

bool isMpms3Text(std::string_view text) {
    const std::vector<Line> lines = linesOf(text);
    return std::any_of(lines.begin(), lines.end(), [](const Line& line) {
        const std::string_view t = trimmed(line.text);
        return t == "[Header]" || t == "[Data]";
    });
}

bool readMomentText(std::string_view text, const std::string& path, MomentFile& file,
                    std::string& error) {
    if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3); // a byte-order mark
    const std::vector<Line> lines = linesOf(text);
    MomentFile read;
    read.path = path;
    read.format = isMpms3Text(text) ? MomentFormat::Mpms3 : MomentFormat::Columns;
    if (!(read.format == MomentFormat::Mpms3 ? readMpms3(lines, path, read, error)
                                             : readColumns(lines, path, read, error)))
        return false;
    if (read.rows.empty()) {
        error = read.skippedRows > 0
                    ? formatC("%s: none of its %d rows has a temperature, a field and a moment "
                              "(%s) that are numbers.",
                              path.c_str(), read.skippedRows, read.momentColumn.c_str())
                    : path + ": the file holds no rows of temperature, field and moment.";
        return false;
    }
    file = std::move(read);
    return true;
}

bool readMomentFile(const std::string& path, MomentFile& file, std::string& error) {
    std::string contents, why;
    if (!readWholeFile(path, contents, why, maxMomentFileBytes)) {
        error = "Cannot read " + path + ": " + why;
        return false;
    }
    return readMomentText(contents, path, file, error);
}

} // namespace corvane
