#include "data_import.h"

#include <algorithm>
#include <cctype>

#include "fit/limits.h"
#include "text/text.h"

namespace newqpi {

namespace {

enum class Separator { Semicolon, Tab, Comma, Blanks };

std::vector<std::string_view> lines(std::string_view text) {
    std::vector<std::string_view> result;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        result.push_back(line);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return result;
}

std::string_view trimmed(std::string_view field) { return corvane::trimmedField(field); }

// A field with a comma and no point: the comma is a decimal comma.
std::string decimalPoint(std::string field) {
    if (field.find('.') == std::string::npos) std::replace(field.begin(), field.end(), ',', '.');
    return field;
}

std::vector<std::string> split(std::string_view line, Separator separator) {
    std::vector<std::string> fields;
    if (separator == Separator::Blanks) {
        std::size_t at = 0;
        while ((at = line.find_first_not_of(" \t", at)) != std::string_view::npos) {
            const std::size_t end = std::min(line.find_first_of(" \t", at), line.size());
            fields.push_back(decimalPoint(std::string(trimmed(line.substr(at, end - at)))));
            at = end;
        }
        return fields;
    }
    const char mark = separator == Separator::Semicolon ? ';'
                      : separator == Separator::Tab     ? '\t'
                                                        : ',';
    for (std::size_t at = 0;;) {
        const std::size_t end = std::min(line.find(mark, at), line.size());
        std::string field(trimmed(line.substr(at, end - at)));
        fields.push_back(separator == Separator::Comma ? field : decimalPoint(field));
        if (end == line.size()) break;
        at = end + 1;
    }
    if (fields.size() > 1 && fields.back().empty()) fields.pop_back(); // a trailing separator
    return fields;
}

// A line that may hold data: its first character past blanks can begin a number.
bool looksLikeData(std::string_view line) {
    const std::string_view field = trimmed(line);
    return !field.empty() && (std::isdigit(static_cast<unsigned char>(field[0])) ||
                              field[0] == '-' || field[0] == '+' || field[0] == '.');
}

Separator separatorOf(const std::vector<std::string_view>& all) {
    bool tab = false;
    std::string_view firstComma;
    for (std::string_view line : all) {
        if (!looksLikeData(line)) continue;
        if (line.find(';') != std::string_view::npos) return Separator::Semicolon;
        tab = tab || line.find('\t') != std::string_view::npos;
        if (firstComma.empty() && line.find(',') != std::string_view::npos) firstComma = line;
    }
    if (tab) return Separator::Tab;
    if (!firstComma.empty()) {
        double ignored = 0;
        const std::vector<std::string> fields = split(firstComma, Separator::Comma);
        if (fields.size() >= 2 && std::all_of(fields.begin(), fields.end(), [&](const auto& f) {
                return corvane::parseReal(f, ignored);
            }))
            return Separator::Comma;
    }
    return Separator::Blanks;
}

} // namespace

bool importData(std::string_view text, int valueColumn, ImportedData& data, std::string& error) {
    const std::vector<std::string_view> all = lines(text);
    const Separator separator = separatorOf(all);
    ImportedData read;
    for (std::string_view line : all) {
        std::vector<std::string> fields = split(line, separator);
        double temperature = 0;
        if (fields.empty() || !corvane::parseReal(fields[0], temperature)) {
            ++read.skippedLines;
            continue;
        }
        if (read.pairs.size() >= static_cast<std::size_t>(maxImportedLines)) {
            error = corvane::formatC("There are more than %d data lines; at most %d pairs are "
                                     "fitted.",
                                     maxImportedLines, corvane::maxPairs);
            return false;
        }
        read.columns = std::max(read.columns, static_cast<int>(fields.size()));
        const auto column = static_cast<std::size_t>(valueColumn - 1);
        read.pairs.push_back({fields[0], column < fields.size() ? fields[column] : ""});
    }
    if (read.pairs.empty()) {
        error = "There is no data line: no line begins with a temperature.";
        return false;
    }
    if (valueColumn < 2 || valueColumn > read.columns) {
        error = corvane::formatC("The data lines have %d columns; there is no value column %d.",
                                 read.columns, valueColumn);
        return false;
    }
    data = std::move(read);
    return true;
}

} // namespace newqpi
