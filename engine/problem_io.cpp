#include "problem_io.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace corefit {
namespace {

// Far beyond any file the desktop program writes; guards against reading something else whole.
constexpr std::size_t maxFileBytes = std::size_t{16} << 20;

bool isSeparator(char c) { return c == ' ' || c == '\t' || c == ',' || c == '\r'; }
bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

// "%.10g" whatever the process locale.
std::string formatReal(double value) {
    char buffer[32];
    const auto result =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 10);
    return std::string(buffer, result.ptr);
}

// A token as it may appear in a one-line message: quoted, short, without control characters.
std::string quoted(std::string_view token) {
    constexpr std::size_t shown = 24;
    std::string text(token.substr(0, shown));
    if (token.size() > shown) {
        while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80)
            text.pop_back(); // do not cut a UTF-8 sequence
        if (!text.empty() && static_cast<unsigned char>(text.back()) >= 0xC0) text.pop_back();
        text += "...";
    }
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return "\"" + text + "\"";
}

enum class Parsed { Ok, NotNumber, NotInteger, OutOfRange, NotFinite };

// The token without a leading '+', which from_chars does not take but a file may hold.
std::string_view withoutPlus(std::string_view token) {
    if (token.size() > 1 && token[0] == '+' && token[1] != '-' && token[1] != '+')
        token.remove_prefix(1);
    return token;
}

// The whole token as a number in the C format, whatever the process locale.
Parsed parseReal(std::string_view token, double& value) {
    token = withoutPlus(token);
    const char* end = token.data() + token.size();
    const auto result = std::from_chars(token.data(), end, value);
    if (result.ec == std::errc::invalid_argument || result.ptr != end) return Parsed::NotNumber;
    if (result.ec == std::errc::result_out_of_range) return Parsed::OutOfRange;
    return std::isfinite(value) ? Parsed::Ok : Parsed::NotFinite;
}

Parsed parseInteger(std::string_view token, int& value) {
    double real = 0;
    if (const Parsed asReal = parseReal(token, real); asReal != Parsed::Ok) return asReal;
    token = withoutPlus(token);
    const char* end = token.data() + token.size();
    const auto result = std::from_chars(token.data(), end, value);
    if (result.ec == std::errc::result_out_of_range) return Parsed::OutOfRange;
    if (result.ec != std::errc() || result.ptr != end) return Parsed::NotInteger;
    return Parsed::Ok;
}

bool readFile(const std::string& path, std::string& text, std::string& error) {
    const std::string name = fileName(path);
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        error = name + ": cannot open: " + std::strerror(errno);
        return false;
    }
    text.clear();
    char buffer[65536];
    bool ok = true;
    while (ok) {
        const std::size_t got = std::fread(buffer, 1, sizeof buffer, file);
        text.append(buffer, got);
        if (text.size() > maxFileBytes) {
            error = name + ": larger than " + std::to_string(maxFileBytes >> 20) +
                    " MiB; not an engine file";
            ok = false;
        } else if (got < sizeof buffer) {
            if (std::ferror(file)) {
                error = name + ": cannot read: " + std::strerror(errno);
                ok = false;
            }
            break;
        }
    }
    std::fclose(file);
    return ok;
}

// The lines of a file without their ends (LF or CR LF); blank lines at the end are dropped,
// blank lines elsewhere are kept so that they are reported where they are.
std::vector<std::string> splitLines(std::string_view text) {
    if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
    std::vector<std::string> lines;
    while (!text.empty()) {
        const auto end = text.find('\n');
        std::string_view line = text.substr(0, end);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        lines.emplace_back(line);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    while (!lines.empty() && isBlank(lines.back())) lines.pop_back();
    return lines;
}

// Takes a file line by line, each line a fixed count of numbers, and words the errors.
class LineReader {
public:
    LineReader(std::string name, std::vector<std::string> lines, std::string& error)
        : name_(std::move(name)), lines_(std::move(lines)), error_(error) {}

    bool atEnd() const { return next_ >= lines_.size(); }

    // Takes the next line, which must hold count numbers; what names them for the messages.
    bool take(std::size_t count, const std::string& what) {
        if (!takeWords(what)) return false;
        for (const auto token : tokens_) {
            double ignored = 0;
            if (!check(parseReal(token, ignored), token)) return false;
        }
        if (tokens_.size() != count)
            return fail("expected " + std::to_string(count) +
                        (count == 1 ? " number" : " numbers") + " (" + what + "), found " +
                        std::to_string(tokens_.size()));
        return true;
    }

    // Takes the next line as words and numbers, whatever they are; what names the line.
    bool takeWords(const std::string& what) {
        what_ = what;
        current_ = next_;
        if (atEnd())
            return fail((lines_.empty() ? "the file is empty" : "the file ends early") +
                        std::string("; expected ") + what);
        const std::string_view line = lines_[next_++];
        if (isBlank(line)) return fail("blank line; expected " + what);
        tokens_.clear();
        for (std::size_t i = 0; i < line.size();) {
            if (isSeparator(line[i])) {
                ++i;
                continue;
            }
            std::size_t end = i;
            while (end < line.size() && !isSeparator(line[end])) ++end;
            tokens_.push_back(line.substr(i, end - i));
            i = end;
        }
        return true;
    }
    std::size_t tokenCount() const { return tokens_.size(); }
    std::string_view token(std::size_t index) const { return tokens_[index]; }
    // The line taken last, from 1.
    int lineNumber() const { return static_cast<int>(current_) + 1; }
    // What the numbers of the line taken last stand for, in messages about them.
    void setWhat(const std::string& what) { what_ = what; }

    bool integer(std::size_t index, int& value) {
        return check(parseInteger(tokens_[index], value), tokens_[index]);
    }
    bool real(std::size_t index, double& value) {
        return check(parseReal(tokens_[index], value), tokens_[index]);
    }

    // Sets the error for the line taken last and returns false.
    bool fail(const std::string& what) {
        error_ = name_ + " line " + std::to_string(current_ + 1) + ": " + what;
        return false;
    }
    // Sets the error for the line after the one taken last.
    bool failNext(const std::string& what) {
        current_ = next_;
        return fail(what);
    }
    // Sets the error for a line by its number, from 1.
    bool failAt(int line, const std::string& what) {
        current_ = static_cast<std::size_t>(std::max(line, 1) - 1);
        return fail(what);
    }

private:
    bool check(Parsed parsed, std::string_view token) {
        switch (parsed) {
        case Parsed::Ok:
            return true;
        case Parsed::NotNumber:
            return fail(quoted(token) + " is not a number (" + what_ + ")");
        case Parsed::NotInteger:
            return fail(quoted(token) + " is not an integer (" + what_ + ")");
        case Parsed::OutOfRange:
            return fail(quoted(token) + " is out of range (" + what_ + ")");
        case Parsed::NotFinite:
            return fail(quoted(token) + " is not a finite number (" + what_ + ")");
        }
        return false;
    }

    std::string name_;
    std::vector<std::string> lines_;
    std::string& error_;
    std::size_t next_ = 0, current_ = 0;
    std::string what_;
    std::vector<std::string_view> tokens_;
};

bool readInput(LineReader& in, Problem& problem) {
    int zero = 0, unit = 0, kind = 0;
    if (!in.take(3, "0, the energy unit and the data kind") || !in.integer(0, zero) ||
        !in.integer(1, unit) || !in.integer(2, kind))
        return false;
    if (zero != 0) return in.fail("the first value is " + std::to_string(zero) + "; it must be 0");
    if (unit < 0 || unit > 2)
        return in.fail("energy unit " + std::to_string(unit) +
                       "; it must be 0 (cm-1), 1 (meV) or 2 (K)");
    if (kind < 0 || kind > 1)
        return in.fail("data kind " + std::to_string(kind) + "; it must be 0 (chiT) or 1 (chi)");
    problem.unit = static_cast<EnergyUnit>(unit);
    problem.kind = static_cast<DataKind>(kind);

    int sites = 0;
    if (!in.take(1, "the site count") || !in.integer(0, sites)) return false;
    if (sites < 1 || sites > maxSites)
        return in.fail("site count " + std::to_string(sites) + "; it must be 1 to " +
                       std::to_string(maxSites));
    for (int site = 1; site <= sites; ++site) {
        int twiceSpin = 0;
        if (!in.take(1, "the spin of site " + std::to_string(site) + " as 2S") ||
            !in.integer(0, twiceSpin))
            return false;
        if (twiceSpin < 1 || twiceSpin > maxTwiceSpin)
            return in.fail("site " + std::to_string(site) + " has spin " +
                           std::to_string(twiceSpin) + "; a spin is given as 2S and must be 1 to " +
                           std::to_string(maxTwiceSpin) + " (S = 1/2 to " +
                           std::to_string(maxTwiceSpin / 2) + ")");
        problem.twiceSpin.push_back(twiceSpin);
    }

    int count = 0;
    double tolerance = 0;
    if (!in.take(2, "the parameter count and the tolerance") || !in.integer(0, count) ||
        !in.real(1, tolerance))
        return false;
    if (count < firstJIndex || count > firstJIndex + maxJValues)
        return in.fail("parameter count " + std::to_string(count) +
                       "; it must be 4 plus the number of J values (0 to " +
                       std::to_string(maxJValues) + "), so 4 to " +
                       std::to_string(firstJIndex + maxJValues));
    problem.toleranceDefaulted = tolerance <= 0;
    problem.tolerance = problem.toleranceDefaulted ? defaultTolerance : tolerance;

    for (int index = 0; index < count; ++index) {
        Parameter parameter;
        if (!in.take(2, "the start and step of " + parameterName(index)) ||
            !in.real(0, parameter.start) || !in.real(1, parameter.step))
            return false;
        problem.parameters.push_back(parameter);
    }

    const int jCount = count - firstJIndex;
    while (!in.atEnd()) {
        int a = 0, b = 0, p = 0;
        if (!in.take(3, "an interaction: site, site, parameter") || !in.integer(0, a) ||
            !in.integer(1, b) || !in.integer(2, p))
            return false;
        for (const int site : {a, b})
            if (site < 1 || site > sites)
                return in.fail("an interaction names site " + std::to_string(site) +
                               "; the sites are 1 to " + std::to_string(sites));
        if (a == b) return in.fail("an interaction joins site " + std::to_string(a) + " to itself");
        if (jCount == 0)
            return in.fail("an interaction names parameter " + std::to_string(p) +
                           ", but there are no J values (parameter count 4)");
        if (p < firstJIndex + 1 || p > firstJIndex + jCount)
            return in.fail("an interaction names parameter " + std::to_string(p) +
                           (jCount == 1 ? std::string("; the only J value is parameter 5")
                                        : "; the J values are parameters 5 to " +
                                              std::to_string(firstJIndex + jCount)));
        problem.bonds.push_back({a - 1, b - 1, p - firstJIndex - 1});
    }
    return true;
}

// "field B": the field at which the chi or chiT values were measured.
bool readField(LineReader& in, Problem& problem, bool& seen) {
    if (seen) return in.fail("a second field line; the field is given once");
    seen = true;
    in.setWhat("the field in tesla");
    if (in.tokenCount() != 2)
        return in.fail("expected \"field\" and one number, the field in tesla; found " +
                       std::to_string(in.tokenCount() - 1) + " after it");
    double field = 0;
    if (!in.real(1, field)) return false;
    if (!(field > 0) || field > maxField)
        return in.fail("field " + formatReal(field) + " T; it must be above 0 and at most " +
                       formatReal(maxField) + " T");
    problem.field = field;
    return true;
}

// "weight relative" (or "weight uniform"): how the residuals of the chi or chiT set count.
bool readWeight(LineReader& in, Problem& problem, bool& seen) {
    if (seen) return in.fail("a second weight line; the weighting is given once");
    seen = true;
    if (in.tokenCount() != 2)
        return in.fail("expected \"weight relative\" or \"weight uniform\"; found " +
                       std::to_string(in.tokenCount() - 1) + " words after \"weight\"");
    if (in.token(1) == "relative")
        problem.weighting = Weighting::Relative;
    else if (in.token(1) == "uniform")
        problem.weighting = Weighting::Uniform;
    else
        return in.fail("weight " + quoted(in.token(1)) + "; it must be relative or uniform");
    return true;
}

// "magnetisation K, first, last, W" and its K points "T H M", the last lines of the file.
bool readMagnetisation(LineReader& in, Problem& problem) {
    in.setWhat("magnetisation: the point count, the first and the last fitted point, the weight");
    if (in.tokenCount() != 5)
        return in.fail("expected \"magnetisation\" and 4 numbers (the point count, the first and "
                       "the last fitted point, the weight); found " +
                       std::to_string(in.tokenCount() - 1) + " after it");
    int count = 0, first = 0, last = 0;
    double weight = 0;
    if (!in.integer(1, count) || !in.integer(2, first) || !in.integer(3, last) ||
        !in.real(4, weight))
        return false;
    if (count < 1 || count > maxMagnetisationPoints)
        return in.fail("magnetisation point count " + std::to_string(count) + "; it must be 1 to " +
                       std::to_string(maxMagnetisationPoints));
    if (first < 1 || first > last || last > count)
        return in.fail("fitted magnetisation points " + std::to_string(first) + " to " +
                       std::to_string(last) + "; they must satisfy 1 <= first <= last <= " +
                       std::to_string(count) + " (the magnetisation point count)");
    if (weight < 0)
        return in.fail("magnetisation weight " + formatReal(weight) + "; it must be 0 or above");
    problem.magnetisationFirst = first;
    problem.magnetisationLast = last;
    problem.magnetisationWeight = weight;
    problem.magnetisationLine = in.lineNumber();
    for (int index = 1; index <= count; ++index) {
        MagnetisationPoint point;
        if (!in.take(3, "magnetisation point " + std::to_string(index) + " of " +
                            std::to_string(count) + ": temperature, field and magnetisation") ||
            !in.real(0, point.temperature) || !in.real(1, point.field) ||
            !in.real(2, point.observed))
            return false;
        const std::string which = "magnetisation point " + std::to_string(index);
        if (point.temperature <= 0)
            return in.fail(which + " has temperature " + formatReal(point.temperature) +
                           "; it must be above 0");
        if (!(point.field > 0) || point.field > maxField)
            return in.fail(which + " has field " + formatReal(point.field) +
                           " T; it must be above 0 and at most " + formatReal(maxField) + " T");
        problem.magnetisation.push_back(point);
    }
    if (!in.atEnd())
        return in.failNext("more lines than the " + std::to_string(count) +
                           " magnetisation points the magnetisation line announces");
    return true;
}

bool readData(LineReader& in, Problem& problem) {
    int count = 0, first = 0, last = 0;
    if (!in.take(3, "the point count, the first and the last fitted point") ||
        !in.integer(0, count) || !in.integer(1, first) || !in.integer(2, last))
        return false;
    if (count < 0 || count > maxPoints)
        return in.fail("point count " + std::to_string(count) + "; it must be 1 to " +
                       std::to_string(maxPoints) + " (or 0 before a magnetisation set)");
    if (count == 0 && (first != 1 || last != 0))
        return in.fail("point count 0 with fitted points " + std::to_string(first) + " to " +
                       std::to_string(last) +
                       "; without points the first line is \"0, 1, 0\", and a magnetisation "
                       "set follows");
    if (count > 0 && (first < 1 || first > last || last > count))
        return in.fail("fitted points " + std::to_string(first) + " to " + std::to_string(last) +
                       "; they must satisfy 1 <= first <= last <= " + std::to_string(count) +
                       " (the point count)");
    problem.first = first;
    problem.last = last;

    const std::string quantity = problem.kind == DataKind::ChiT ? "chiT" : "chi";
    for (int index = 1; index <= count; ++index) {
        Point point;
        if (!in.take(2, "point " + std::to_string(index) + " of " + std::to_string(count) +
                            ": temperature and " + quantity) ||
            !in.real(0, point.temperature) || !in.real(1, point.observed))
            return false;
        if (point.temperature <= 0)
            return in.fail("point " + std::to_string(index) + " has temperature " +
                           formatReal(point.temperature) + "; it must be above 0");
        problem.points.push_back(point);
    }

    // Then, in any order, a field line and a weight line, and last a magnetisation set.
    bool fieldSeen = false, weightSeen = false;
    while (!in.atEnd()) {
        if (!in.takeWords("a field, weight or magnetisation line after the " +
                          std::to_string(count) + " points"))
            return false;
        const std::string_view word = in.token(0);
        double number = 0;
        if (parseReal(word, number) == Parsed::Ok)
            return in.fail("more lines than the " + std::to_string(count) +
                           " points the first line announces");
        if (word == "field") {
            if (!readField(in, problem, fieldSeen)) return false;
        } else if (word == "weight") {
            if (!readWeight(in, problem, weightSeen)) return false;
        } else if (word == "magnetisation") {
            if (!readMagnetisation(in, problem)) return false;
        } else {
            return in.fail(quoted(word) +
                           " is not a line of the data file; expected field, weight or "
                           "magnetisation (lower case) after the points");
        }
    }

    // What the deviation needs of the values: relative residuals divide by every fitted value;
    // with a magnetisation set, each set is scaled by the size of its values.
    if (count == 0 && !problem.hasMagnetisation())
        return in.failAt(1, "no points, and no magnetisation set after them: nothing to fit");
    if (problem.weighting == Weighting::Relative)
        for (int index = first; index <= last; ++index)
            if (problem.points[static_cast<std::size_t>(index - 1)].observed == 0)
                return in.failAt(index + 1, "point " + std::to_string(index) + " has " + quantity +
                                                " 0; relative weighting divides by every fitted "
                                                "value");
    if (problem.hasMagnetisation()) {
        if (count == 0 && problem.magnetisationWeight == 0)
            return in.failAt(problem.magnetisationLine,
                             "magnetisation weight 0 and no other points: nothing to fit");
        if (count > 0 && problem.weighting == Weighting::Uniform && observedSize(problem) == 0)
            return in.failAt(1, "the fitted " + quantity +
                                    " values are all 0; the joint deviation measures each set "
                                    "against the size of its values");
        if (observedMagnetisationSize(problem) == 0)
            return in.failAt(problem.magnetisationLine,
                             "the fitted magnetisation values are all 0; the joint deviation "
                             "measures each set against the size of its values");
    }
    return true;
}

// write() until all is written or it fails.
bool writeAll(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<std::size_t>(written);
    }
    return true;
}

// An uncertainty as written on lines 3 and 5: NaN stands for one that could not be estimated.
std::string formatUncertainty(double value) {
    return std::isnan(value) ? std::string("undetermined") : formatReal(value);
}

std::string outputText(const Problem& problem, const Outcome& outcome) {
    const auto& v = outcome.values;
    const auto& u = outcome.uncertainties;
    std::string text = formatReal(outcome.deviation) + ' ' + formatReal(v[gIndex]) + ' ' +
                       formatReal(v[cIndex]) + '\n';
    text += formatReal(v[zjIndex]) + ' ' + formatReal(v[tipIndex]) + '\n';
    text += '#';
    for (int i = 0; i < firstJIndex; ++i)
        text += ' ' + formatUncertainty(u[static_cast<std::size_t>(i)]);
    text += '\n' + std::to_string(problem.jCount());
    for (std::size_t i = firstJIndex; i < v.size(); ++i) text += ' ' + formatReal(v[i]);
    text += "\n#";
    for (std::size_t i = firstJIndex; i < u.size(); ++i) text += ' ' + formatUncertainty(u[i]);
    text += '\n' + std::to_string(problem.points.size()) + ' ' + std::to_string(problem.first) +
            ' ' + std::to_string(problem.last) + '\n';
    for (std::size_t i = 0; i < problem.points.size(); ++i)
        text += formatReal(problem.points[i].temperature) + ' ' +
                formatReal(outcome.calculated[i]) + ' ' + formatReal(problem.points[i].observed) +
                '\n';
    // The magnetisation set, after the pairs: each set's part of D, then every point.
    if (problem.hasMagnetisation()) {
        text += "# sets " + formatReal(outcome.chiDeviation) + ' ' +
                formatReal(outcome.magnetisationDeviation) + '\n';
        text += "# magnetisation " + std::to_string(problem.magnetisation.size()) + ' ' +
                std::to_string(problem.magnetisationFirst) + ' ' +
                std::to_string(problem.magnetisationLast) + '\n';
        const std::size_t offset = problem.points.size();
        for (std::size_t i = 0; i < problem.magnetisation.size(); ++i) {
            const MagnetisationPoint& point = problem.magnetisation[i];
            text += "# " + formatReal(point.temperature) + ' ' + formatReal(point.field) + ' ' +
                    formatReal(outcome.calculated[offset + i]) + ' ' + formatReal(point.observed) +
                    '\n';
        }
    }
    // The correlations, after the pairs: "# correlation P" and the parameter numbers (1 g ..
    // 14 J10), then one row of P values per parameter.
    const std::size_t count = outcome.correlated.size();
    if (count > 0 && outcome.correlation.size() == count * count) {
        text += "# correlation " + std::to_string(count);
        for (int index : outcome.correlated) text += ' ' + std::to_string(index + 1);
        text += '\n';
        for (std::size_t a = 0; a < count; ++a) {
            text += '#';
            for (std::size_t b = 0; b < count; ++b)
                text += ' ' + formatUncertainty(outcome.correlation[a * count + b]);
            text += '\n';
        }
    }
    for (const std::string& warning : outcome.warnings) text += "# warning " + warning + '\n';
    for (const Outcome::Minimum& other : outcome.alternatives) {
        text += other.equivalent ? "# equivalent " : "# alternative ";
        text += formatReal(other.deviation);
        for (double value : other.values) text += ' ' + formatReal(value);
        text += '\n';
    }
    if (!outcome.note.empty()) text += "# " + outcome.note + '\n';
    return text;
}

// Why the outcome cannot be written as it stands, or "" when it can.
std::string outcomeFault(const Problem& problem, const Outcome& outcome) {
    const std::size_t count = problem.parameters.size();
    if (count < firstJIndex || outcome.values.size() != count ||
        outcome.uncertainties.size() != count)
        return std::to_string(outcome.values.size()) + " values and " +
               std::to_string(outcome.uncertainties.size()) + " uncertainties for " +
               std::to_string(count) + " parameters";
    const std::size_t points = problem.points.size() + problem.magnetisation.size();
    if (outcome.calculated.size() != points)
        return std::to_string(outcome.calculated.size()) + " calculated values for " +
               std::to_string(points) + " points";
    if (!std::isfinite(outcome.deviation)) return "the deviation is not finite";
    if (problem.hasMagnetisation() &&
        !(std::isfinite(outcome.chiDeviation) && std::isfinite(outcome.magnetisationDeviation)))
        return "the deviation of a set is not finite";
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = parameterName(static_cast<int>(i));
        if (!std::isfinite(outcome.values[i])) return "the value of " + name + " is not finite";
        const double u = outcome.uncertainties[i];
        if (std::isinf(u) || (std::isnan(u) && !problem.parameters[i].free()))
            return "the uncertainty of " + name + " is not finite";
    }
    for (const Outcome::Minimum& other : outcome.alternatives) {
        if (other.values.size() != count) return "an alternative without every parameter";
        if (!std::isfinite(other.deviation) ||
            !std::all_of(other.values.begin(), other.values.end(),
                         [](double v) { return std::isfinite(v); }))
            return "an alternative that is not finite";
    }
    for (const std::string& warning : outcome.warnings)
        if (warning.find_first_of("\r\n") != std::string::npos) return "a warning of two lines";
    for (std::size_t i = 0; i < outcome.calculated.size(); ++i)
        if (!std::isfinite(outcome.calculated[i]))
            return i < problem.points.size()
                       ? "the calculated value at point " + std::to_string(i + 1) + " is not finite"
                       : "the calculated magnetisation at magnetisation point " +
                             std::to_string(i - problem.points.size() + 1) + " is not finite";
    return {};
}

} // namespace

bool readProblem(const std::string& inputPath, Problem& problem, std::string& error) {
    std::string inputText, dataText;
    if (!readFile(inputPath, inputText, error)) return false;
    Problem result;
    {
        LineReader input(fileName(inputPath), splitLines(inputText), error);
        if (!readInput(input, result)) return false;
    }
    const std::string dataPath = joinPath(directoryOf(inputPath), dataFileName(result.kind));
    if (!readFile(dataPath, dataText, error)) return false;
    if (!readProblemText(inputText, dataText, fileName(inputPath), fileName(dataPath), result,
                         error))
        return false;
    result.inputPath = inputPath;
    result.dataPath = dataPath;
    problem = std::move(result);
    return true;
}

bool readProblemText(const std::string& inputText, const std::string& dataText,
                     const std::string& inputName, const std::string& dataName, Problem& problem,
                     std::string& error) {
    Problem result;
    LineReader input(inputName, splitLines(inputText), error);
    if (!readInput(input, result)) return false;
    LineReader data(dataName, splitLines(dataText), error);
    if (!readData(data, result)) return false;
    result.inputPath = inputName;
    result.dataPath = dataName;
    problem = std::move(result);
    return true;
}

const char* dataFileName(DataKind kind) { return kind == DataKind::ChiT ? "chit.txt" : "chi.txt"; }

std::string fileName(const std::string& path) {
    const auto slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    return name.empty() ? path : name;
}

bool writeOutput(const std::string& outputPath, const Problem& problem, const Outcome& outcome,
                 std::string& error) {
    const std::string name = fileName(outputPath);
    if (const std::string fault = outcomeFault(problem, outcome); !fault.empty()) {
        error = name + ": not written: " + fault;
        return false;
    }
    const std::string text = outputText(problem, outcome);

    // A fresh file beside the target, so that the final rename stays within one file system.
    static std::atomic<unsigned> serial{0};
    const std::string directory = directoryOf(outputPath);
    std::string temporary;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        temporary = joinPath(directory, "." + name + "." + std::to_string(::getpid()) + "." +
                                            std::to_string(serial++) + ".tmp");
        fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno != EEXIST) break;
    }
    if (fd < 0) {
        error = name + ": cannot create a file in " + directory + ": " + std::strerror(errno);
        return false;
    }

    bool ok = writeAll(fd, text);
    while (ok && ::fsync(fd) != 0)
        if (errno != EINTR) ok = false;
    int savedErrno = ok ? 0 : errno;
    if (::close(fd) != 0 && ok) {
        ok = false;
        savedErrno = errno;
    }
    if (ok && std::rename(temporary.c_str(), outputPath.c_str()) != 0) {
        ok = false;
        savedErrno = errno;
    }
    if (!ok) {
        ::unlink(temporary.c_str());
        error = name + ": cannot write: " + std::strerror(savedErrno);
        return false;
    }

    // Make the rename itself durable; a failure here no longer affects the file's content.
    if (const int dirFd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
    return true;
}

std::string formatText(const char* pattern, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(text, sizeof text, pattern, arguments);
    va_end(arguments);
    return text;
}

std::string directoryOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    const auto end = path.find_last_not_of('/', slash);
    return end == std::string::npos ? "/" : path.substr(0, end + 1);
}

std::string joinPath(const std::string& directory, const std::string& name) {
    if (directory.empty()) return name;
    return directory.back() == '/' ? directory + name : directory + "/" + name;
}

} // namespace corefit
