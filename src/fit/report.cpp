#include "fit/report.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <string_view>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "fit/line_pieces.h"
#include "fit/results.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "text/text.h"

namespace corvane {

namespace {

// [SECTION] Layout

// Every label of the report, shared by the writer and the reader: the reader finds the values
// by these texts, so the two can never drift apart.
namespace label {
const std::string asterisks(78, '*');
constexpr std::string_view banner =
    "\n     ***** Magnetic Susceptibility Fitting By Corvane v.1.0*****\n\n";
constexpr std::string_view date = "  Date: ";
constexpr std::string_view title = "  TITLE - ";
constexpr std::string_view titleKey = "TITLE"; // searched in the upper-case copy
constexpr std::string_view spinSites = "  Spin Sites: ";
constexpr std::string_view spinsOnSites = "  Spins On Sites:\n";
constexpr std::string_view siteHeading = "Site #     Spin";
constexpr std::string_view interactions = "  Interactions:";
constexpr std::string_view betweenSite = "Between site #";
constexpr std::string_view andSite = "and site #";
constexpr std::string_view isJ = "is J";
constexpr std::string_view energyUnit = "Energy Unit: ";
constexpr const char* unitNames[energyUnitCount] = {"cm-1", "meV", "K"};
constexpr std::string_view section = "Fitting Results - Calculation # ";
constexpr std::string_view deviation = "with fiting squared diviation = ";
constexpr std::string_view tolerance = " (Convergence Tolerance = ";
constexpr std::string_view initialParameters = "Initial Parameters:";
constexpr std::string_view starting[4] = {
    "g    - starting = ", "C    - starting = ", "zJ   - starting = ", "Xtip - starting = "};
constexpr std::string_view step = "step= ";
constexpr std::string_view fittedParameters = "Fitted Parameters:";
constexpr std::string_view fitted[4] = {"g = ", "C = ", "zJ = ", "Xtip = "};
constexpr std::string_view initialJValues = "Initial J Values: ";
constexpr std::string_view fittedJValues = "Fitted J Values: ";
constexpr std::string_view totalPairs = "Total data pairs: ";
constexpr std::string_view fittingFrom = "Fitting from pair #";
constexpr std::string_view toPair = " to pair #";
constexpr std::string_view temperature = "Tempreture (K)";
constexpr std::string_view chiTExperimental = "ChiT (Experimental)";
// What a run knew beyond the values (written only then; a reader that knows only the labels
// above reads past these lines).
constexpr std::string_view uncertainties = "Standard Uncertainties:";
constexpr std::string_view correlations = "Correlations Of Free Parameters:";
constexpr std::string_view perDegree = "Squared Deviation Per Degree Of Freedom: ";
constexpr std::string_view warning = "Warning: ";
constexpr std::string_view otherMinimum = "Other Minimum: squared deviation ";
constexpr std::string_view equivalentMinimum = "Equivalent Minimum: squared deviation ";
constexpr std::string_view minimumAt = " at";
constexpr std::string_view fitEnd = "Fit End: ";
constexpr const char* fitEnds[] = {"converged", "iteration limit", "interrupted", "plateau"};
constexpr const char* fixedWord = "fixed";
constexpr const char* undeterminedWord = "undetermined";
constexpr const char* unknownWord = "-";
// The field, the weighting and the magnetization set (written only where a problem has them; a
// reader that knows only the labels above reads past these lines).
constexpr std::string_view chiField = "Field Of The Susceptibility Data (T): ";
constexpr std::string_view relativeWeighting = "Residuals Of The Susceptibility Data: relative";
constexpr std::string_view magnetWeight = "Weight Of The Magnetization Data: ";
constexpr std::string_view fittedMagnet = "Fitted Magnetization:";
constexpr std::string_view magnetPoints = "Total magnetization points: ";
constexpr std::string_view setDeviations = "Parts of the squared deviation: susceptibility ";
constexpr std::string_view magnetPart = " and magnetization ";
constexpr std::string_view magnetHeading =
    "  #    Temperature (K)   Field (T)     M (Experimental)   M (Fitted)    M in N muB\n";
constexpr std::string_view magnetTable = "M (Experimental)";
constexpr const char* pairHeadings[dataKindCount] = {
    "  #    Tempreture (K)      ChiT (Experimental)      ChiT (Fitted)\n",
    "  #    Tempreture (K)      Chi (Experimental)       Chi (Fitted)\n"};
} // namespace label

// The four parameters of a calculation that every section lists, in the report's order.
std::array<FitParameter*, 4> fourParameters(Calculation& calc) {
    return {&calc.g, &calc.c, &calc.zJ, &calc.tip};
}
std::array<const FitParameter*, 4> fourParameters(const Calculation& calc) {
    return {&calc.g, &calc.c, &calc.zJ, &calc.tip};
}

std::string str(std::string_view text) { return std::string(text); }

void appendHead(std::string& out, const FitDocument& doc, const std::string& date) {
    out += label::banner;
    out += str(label::date) + date + "\n\n";
    out += str(label::title) + doc.title + "\n\n";
    out += str(label::spinSites) + formatC("%d\n", doc.siteCount);
    out += label::spinsOnSites;
    out += "  " + str(label::siteHeading) + "\n";
    out += "  ---------------\n";
    for (int s = 1; s <= doc.siteCount; ++s)
        out += formatC("    %d         %d\n", s, doc.sites[slot(s)].spin);
    out += "\n" + str(label::interactions) + "\n";
    for (int n = 1; n <= doc.interactionCount; ++n) {
        const Interaction& path = doc.interactions[slot(n)];
        out += "  " + str(label::betweenSite) + formatC("%d ", path.siteA) + str(label::andSite) +
               formatC("%d ", path.siteB) + str(label::isJ) +
               formatC("%d\n", path.parameterIndex - fixedParameterCount);
    }
    const int unit = static_cast<int>(doc.energyUnit);
    if (unit >= 0 && unit < energyUnitCount)
        out += "\n  " + str(label::energyUnit) + label::unitNames[unit] + "\n";
    if (doc.field != 0) out += "  " + str(label::chiField) + formatC("%f\n", doc.field);
    if (doc.weighting == Weighting::Relative) out += "  " + str(label::relativeWeighting) + "\n";
    if (doc.magnetCount > 0)
        out += "  " + str(label::magnetWeight) + formatC("%f\n", doc.magnetWeight);
}

// The magnetization set of a section: each point's observed and fitted M.
void appendMagnetisation(std::string& out, const FitDocument& doc, const Calculation& calc) {
    out += "\n  " + str(label::fittedMagnet) + "\n\n";
    out += "  " + str(label::magnetPoints) + formatC("%d.   ", doc.magnetCount) +
           str(label::setDeviations) + formatC("%g", calc.chiDeviation) + str(label::magnetPart) +
           formatC("%g\n\n", calc.magnetDeviation);
    out += label::magnetHeading;
    out += "  " + std::string(62, '_') + "\n";
    for (int i = 1; i <= doc.magnetCount; ++i) {
        const MagnetPoint& point = doc.magnetPoints[slot(i)];
        out += formatC("  %d   %f        %f      %f          %f\n", i, point.temperature,
                       point.field, point.observed, calc.fittedMagnet[slot(i)]);
    }
}

// An uncertainty as the report keeps it.
std::string uncertaintyText(const FitParameter& f) {
    if (f.step == 0 && f.uncertainty == 0) return label::fixedWord;
    if (std::isnan(f.uncertainty)) return label::unknownWord;
    if (!std::isfinite(f.uncertainty)) return label::undeterminedWord;
    return formatC("%.6g", f.uncertainty);
}

// What the run knew beyond the values: uncertainties, correlations, the deviation per degree of
// freedom, warnings, other minima and how the fit ended.
void appendRunResults(std::string& out, const FitDocument& doc, int n) {
    const Calculation& calc = doc.calculations[slot(n)];
    const std::vector<ResultRow> rows = resultRows(doc, n - 1);
    out += "\n  " + str(label::uncertainties) + "\n";
    out += "     Parameter   Value              Uncertainty\n";
    out += "  ---------------------------------------------\n";
    for (const ResultRow& row : rows) {
        const FitParameter& f = row.parameter <= fixedParameterCount
                                    ? *fourParameters(calc)[slot(row.parameter)]
                                    : calc.j[slot(row.parameter - fixedParameterCount)];
        out += formatC("     %-11s %-18s %s\n", row.name.c_str(), formatC("%f", f.fitted).c_str(),
                       uncertaintyText(f).c_str());
    }
    if (calc.correlatedCount > 0) {
        out += "\n  " + str(label::correlations);
        for (int a = 0; a < calc.correlatedCount; ++a)
            out += " " + parameterName(calc.correlated[static_cast<std::size_t>(a)]);
        out += "\n";
        for (int a = 0; a < calc.correlatedCount; ++a) {
            out += formatC("     %-6s", parameterName(calc.correlated[static_cast<std::size_t>(a)]).c_str());
            for (int b = 0; b < calc.correlatedCount; ++b) {
                const double r = calc.correlation[static_cast<std::size_t>(a)][static_cast<std::size_t>(b)];
                out += std::isfinite(r) ? formatC(" %7.3f", r) : formatC(" %7s", label::unknownWord);
            }
            out += "\n";
        }
    }
    const double perDegree = deviationPerDegree(doc, n - 1);
    if (std::isfinite(perDegree))
        out += "\n  " + str(label::perDegree) +
               formatC("%g (%d points, %d free parameters)\n", perDegree, fittedPoints(doc, n - 1),
                       freeParameters(doc, n - 1));
    for (const std::string& warning : calc.warnings)
        out += "  " + str(label::warning) + printableText(warning) + "\n";
    // Another minimum: its label line, then its values four to a line, each line but the last
    // ending in a comma.
    for (const Calculation::OtherMinimum& other : calc.alternatives) {
        out += "  " + str(other.equivalent ? label::equivalentMinimum : label::otherMinimum) +
               formatC("%g", other.deviation) + str(label::minimumAt) + "\n      ";
        for (std::size_t k = 0; k < rows.size(); ++k) {
            out += rows[k].name + " " +
                   formatC("%.10g", other.values[static_cast<std::size_t>(rows[k].parameter - 1)]);
            out += k + 1 == rows.size() ? "\n" : k % 4 == 3 ? ",\n      " : ", ";
        }
    }
    if (calc.end != FitEnd::Converged)
        out += "  " + str(label::fitEnd) + label::fitEnds[static_cast<int>(calc.end)] + ". " +
               fitEndText(calc.end) + "\n";
}

void appendSection(std::string& out, const FitDocument& doc, int n) {
    const Calculation& calc = doc.calculations[slot(n)];
    out += "\n\n" + label::asterisks + "\n";
    out += "  " + str(label::section) + formatC("%d ", n) + str(label::deviation) +
           formatC("%f", calc.deviation) + str(label::tolerance) + formatC("%f)\n", calc.tolerance);
    out += "\n";
    out += "  " + str(label::initialParameters) + "\n";
    const auto parameters = fourParameters(calc);
    for (std::size_t p = 0; p < parameters.size(); ++p)
        out += "  " + str(label::starting[p]) + formatC("%f     ", parameters[p]->start) +
               str(label::step) + formatC("%f\n", parameters[p]->step);
    out += "\n";
    out += "  " + str(label::initialJValues) + formatC("%d\n", doc.jCount);
    out += "    #    Starting Value   Step\n";
    out += "  ------------------------------------------\n";
    for (int k = 1; k <= doc.jCount; ++k) {
        const FitParameter& j = calc.j[slot(k)];
        out += formatC("    %d   %f        %f\n", k, j.start, j.step);
    }
    out += "\n  " + str(label::fittedParameters) + "\n  ";
    for (std::size_t p = 0; p < parameters.size(); ++p)
        out +=
            (p > 0 ? "     " : "") + str(label::fitted[p]) + formatC("%f", parameters[p]->fitted);
    out += "\n\n";
    out += "  " + str(label::fittedJValues) + formatC("%d\n", doc.jCount);
    out += "     #      Value\n";
    out += "  -----------------\n";
    for (int k = 1; k <= doc.jCount; ++k)
        out += formatC("     %d      %f\n", k, calc.j[slot(k)].fitted);
    if (hasRunResults(calc)) appendRunResults(out, doc, n);
    out += "\n  Fitted Susceptibility:\n\n";
    out += "  " + str(label::totalPairs) + formatC("%d.   ", doc.pairCount) +
           str(label::fittingFrom) + formatC("%d", calc.firstPair) + str(label::toPair) +
           formatC("%d\n\n", calc.lastPair);
    out += label::pairHeadings[doc.dataKind == DataKind::Chi ? 1 : 0];
    out += "  " + std::string(62, '_') + "\n";
    for (int i = 1; i <= doc.pairCount; ++i) {
        const DataPair& pair = doc.pairs[slot(i)];
        out += formatC("  %d   %f                  %f                       %f\n", i,
                       pair.temperature, pair.observed, calc.fittedValues[slot(i)]);
    }
    if (doc.magnetCount > 0) appendMagnetisation(out, doc, calc);
    out += "\n" + label::asterisks + "\n";
}

// [SECTION] Numbers in lines

// The number that directly follows label in text (blanks before it skipped), read up to the
// first character that cannot continue it. False when the label or the number is missing.
// The number that directly follows name in text (blanks before it skipped). It must end the
// word: a blank, the line's end or one of the characters in ends follows it, so that "0,5" is
// no number rather than 0. False when the name or such a number is missing.
std::string_view numberText(std::string_view text, std::string_view name, const char* chars,
                            std::string_view ends) {
    const std::size_t at = text.find(name);
    if (at == std::string_view::npos) return {};
    std::string_view rest = text.substr(at + name.size());
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    const std::size_t end = std::min(rest.find_first_not_of(chars), rest.size());
    if (end < rest.size() && rest[end] != ' ' && rest[end] != '\n' &&
        ends.find(rest[end]) == std::string_view::npos)
        return {};
    return rest.substr(0, end);
}
bool realAfter(std::string_view text, std::string_view name, double& value) {
    return parseReal(numberText(text, name, "0123456789+-.eE", ")"), value);
}
bool integerAfter(std::string_view text, std::string_view name, int& value) {
    return parseInteger(numberText(text, name, "0123456789+-", "."), value);
}
bool holds(const LinePiece& piece, std::string_view text) {
    return piece.text.find(text) != std::string::npos;
}

// A line of asterisks alone: a section's opening or closing line, or the part of one that a
// report cut short still holds.
bool isAsteriskLine(const LinePiece& piece) {
    const std::size_t end = piece.text.find_last_not_of("\n");
    return end != std::string::npos && piece.text.find_first_not_of('*') > end;
}

// A count from a file must lie in 0..limit for the document to hold what follows it.
bool countFits(int count, int limit) { return count >= 0 && count <= limit; }

// [SECTION] Engine output

// Reads the engine's output for the problem doc holds: the counts must be the problem's, every
// value a finite number the report can print, and the pairs the problem's own.
class OutputReader {
public:
    OutputReader(const std::vector<LinePiece>& lines, FitDocument& doc, int calculation)
        : lines_(lines), doc_(doc), calculation_(calculation) {}

    bool read(std::string& problem) {
        if (!readAll()) {
            problem = problem_;
            return false;
        }
        return true;
    }

private:
    static constexpr int headLines = 6;

    bool fail(int line, const std::string& what) {
        problem_ = line > 0 ? formatC("line %d: %s", line, what.c_str()) : what;
        return false;
    }

    // Token n of line (from 1) as a finite real within what the report prints.
    bool real(int line, int n, const char* what, double& value) {
        const std::string_view token = word(lines_[slot(line)].text, n);
        if (token.empty()) return fail(line, formatC("the %s is missing", what));
        if (!parseReal(token, value))
            return fail(line, formatC("the %s \"%s\" is not a finite number", what,
                                      printableText(token).c_str()));
        if (std::fabs(value) > maxValueMagnitude)
            return fail(line, formatC("the %s %s is too large for the report", what,
                                      printableText(token).c_str()));
        return true;
    }
    bool integer(int line, int n, const char* what, int& value) {
        const std::string_view token = word(lines_[slot(line)].text, n);
        if (!parseInteger(token, value))
            return fail(line, formatC("the %s \"%s\" is not a whole number", what,
                                      printableText(token).c_str()));
        return true;
    }

    // The uncertainties of line 3 or 5: after its "#", one token per parameter; a number, or a
    // word for one the data cannot determine (infinite). A line without them leaves them
    // unknown (NaN).
    void uncertainties(int line, const std::array<FitParameter*, maxParameters>& parameters,
                       int count) {
        const std::string& text = lines_[slot(line)].text;
        const std::size_t hash = text.find('#');
        for (int k = 0; k < count; ++k) {
            double value = 0.0;
            const std::string_view token =
                hash == std::string::npos ? std::string_view{}
                                          : word(std::string_view(text).substr(hash + 1), k + 1);
            if (token.empty())
                value = std::nan("");
            else if (!parseReal(token, value))
                value = HUGE_VAL; // "undetermined"
            parameters[static_cast<std::size_t>(k)]->uncertainty = value;
        }
    }

    bool readAll() {
        if (lines_.size() < headLines)
            return fail(0, formatC("it ends after line %zu, before the number of pairs (line 6)",
                                   lines_.size()));
        Calculation& calc = doc_.calculations[slot(calculation_)];
        Calculation found = calc;
        int jCount = 0, pairCount = 0;
        if (!real(1, 1, "squared deviation", found.deviation) ||
            !real(1, 2, "value of g", found.g.fitted) ||
            !real(1, 3, "value of C", found.c.fitted) ||
            !real(2, 1, "value of zJ", found.zJ.fitted) ||
            !real(2, 2, "value of Xtip", found.tip.fitted) ||
            !integer(4, 1, "number of J values", jCount))
            return false;
        if (jCount != doc_.jCount)
            return fail(4, formatC("%d J values, but the problem has %d", jCount, doc_.jCount));
        for (int k = 1; k <= jCount; ++k) {
            const std::string what = formatC("value of J%d", k);
            if (!real(4, k + 1, what.c_str(), found.j[slot(k)].fitted)) return false;
        }
        if (!integer(6, 1, "number of pairs", pairCount) ||
            !integer(6, 2, "first fitted pair", found.firstPair) ||
            !integer(6, 3, "last fitted pair", found.lastPair))
            return false;
        if (pairCount != doc_.pairCount)
            return fail(6, formatC("%d pairs, but the problem has %d", pairCount, doc_.pairCount));
        if (found.firstPair < 1 || found.firstPair > found.lastPair || found.lastPair > pairCount)
            return fail(6, formatC("the fitted range, pairs %d to %d, lies outside pairs 1 to %d",
                                   found.firstPair, found.lastPair, pairCount));
        if (lines_.size() < static_cast<std::size_t>(headLines + pairCount))
            return fail(0, formatC("it ends after %zu of its %d pair lines",
                                   lines_.size() - headLines, pairCount));
        for (int i = 1; i <= pairCount; ++i) {
            const int line = headLines + i;
            double temperature = 0.0, observed = 0.0;
            if (!real(line, 1, "temperature", temperature) ||
                !real(line, 2, "fitted value", found.fittedValues[slot(i)]) ||
                !real(line, 3, "observed value", observed))
                return false;
            const DataPair& pair = doc_.pairs[slot(i)];
            if (!agrees(temperature, pair.temperature) || !agrees(observed, pair.observed))
                return fail(line, formatC("pair %d is not the problem's pair %d (T %s, value %s)",
                                          i, i, formatExact(pair.temperature).c_str(),
                                          formatExact(pair.observed).c_str()));
        }
        std::array<FitParameter*, maxParameters> parameters{};
        const auto four = fourParameters(found);
        std::copy(four.begin(), four.end(), parameters.begin());
        uncertainties(3, parameters, fixedParameterCount);
        for (int k = 1; k <= jCount; ++k) parameters[slot(k)] = &found.j[slot(k)];
        uncertainties(5, parameters, jCount);
        int next = headLines + pairCount + 1;
        if (!magnetisation(next, found)) return false;
        if (!correlations(next, found)) return false;
        if (!searchResults(headLines + pairCount + 1, found)) return false;
        calc = found;
        return true;
    }

    // The engine's warnings and the other minima of its search, after the pairs: "# warning
    // <sentence>", "# alternative D v1 .. vP" or "# equivalent D v1 .. vP" (every parameter, g
    // first).
    bool searchResults(int first, Calculation& found) {
        found.warnings.clear();
        found.alternatives.clear();
        for (int line = first; line <= static_cast<int>(lines_.size()); ++line) {
            const std::string& text = lines_[slot(line)].text;
            if (word(text, 1) != "#") continue;
            const std::string_view kind = word(text, 2);
            if (kind == "warning") {
                const std::size_t start = text.find("warning") + 7;
                const std::size_t from = text.find_first_not_of(' ', start);
                const std::size_t end = text.find_last_not_of(" \t\r\n");
                if (from != std::string::npos && end != std::string::npos && end >= from)
                    found.warnings.push_back(text.substr(from, end + 1 - from));
            } else if (kind == "alternative" || kind == "equivalent") {
                Calculation::OtherMinimum other;
                other.equivalent = kind == "equivalent";
                if (!real(line, 3, "deviation of an alternative", other.deviation)) return false;
                for (int k = 0; k < fixedParameterCount + doc_.jCount; ++k)
                    if (!real(line, 4 + k, "value of an alternative",
                              other.values[static_cast<std::size_t>(k)]))
                        return false;
                found.alternatives.push_back(other);
            }
        }
        return true;
    }

    // The magnetization set that follows the pairs when the problem has one: "# sets Dchi Dm"
    // (each set's part of the deviation), "# magnetisation K first last", then K lines
    // "# T H calculated observed". Leaves `line` at the line after it.
    bool magnetisation(int& line, Calculation& found) {
        found.chiDeviation = found.magnetDeviation = 0.0;
        const auto marked = [&](int at, std::string_view kind) {
            return at <= static_cast<int>(lines_.size()) &&
                   word(lines_[slot(at)].text, 1) == "#" && word(lines_[slot(at)].text, 2) == kind;
        };
        if (marked(line, "sets")) {
            if (!real(line, 3, "deviation of the chi data", found.chiDeviation) ||
                !real(line, 4, "deviation of the magnetization data", found.magnetDeviation))
                return false;
            ++line;
        }
        if (!marked(line, "magnetisation")) {
            if (doc_.magnetCount == 0) return true;
            return fail(line > static_cast<int>(lines_.size()) ? 0 : line,
                        formatC("the fitted magnetization is missing; the problem has %d "
                                "magnetization points",
                                doc_.magnetCount));
        }
        int count = 0, first = 0, last = 0;
        if (!integer(line, 3, "number of magnetization points", count) ||
            !integer(line, 4, "first fitted magnetization point", first) ||
            !integer(line, 5, "last fitted magnetization point", last))
            return false;
        if (count != doc_.magnetCount)
            return fail(line, formatC("%d magnetization points, but the problem has %d", count,
                                      doc_.magnetCount));
        if (lines_.size() < static_cast<std::size_t>(line + count))
            return fail(0, "it ends in the table of the fitted magnetization");
        for (int i = 1; i <= count; ++i) {
            const int at = line + i;
            double temperature = 0.0, field = 0.0, observed = 0.0;
            if (word(lines_[slot(at)].text, 1) != "#" ||
                !real(at, 2, "temperature", temperature) || !real(at, 3, "field", field) ||
                !real(at, 4, "fitted magnetization", found.fittedMagnet[slot(i)]) ||
                !real(at, 5, "observed magnetization", observed))
                return false;
            const MagnetPoint& point = doc_.magnetPoints[slot(i)];
            if (!agrees(temperature, point.temperature) || !agrees(field, point.field) ||
                !agrees(observed, point.observed))
                return fail(at, formatC("magnetization point %d is not the problem's (T %s, H %s, "
                                        "M %s)",
                                        i, formatExact(point.temperature).c_str(),
                                        formatExact(point.field).c_str(),
                                        formatExact(point.observed).c_str()));
        }
        line += count + 1;
        return true;
    }

    // The correlations that may follow the pairs: "# correlation P p1 .. pP" (P free parameters
    // by their engine numbers), then P lines "# r1 .. rP", a word for one not determined.
    bool correlations(int first, Calculation& found) {
        found.correlatedCount = 0;
        if (lines_.size() < static_cast<std::size_t>(first)) return true;
        const std::string& head = lines_[slot(first)].text;
        if (word(head, 1) != "#" || word(head, 2) != "correlation") return true;
        int count = 0;
        if (!parseInteger(word(head, 3), count) || count < 0 || count > maxParameters)
            return fail(first, formatC("the number of correlated parameters is not 0 to %d",
                                         maxParameters));
        if (lines_.size() < static_cast<std::size_t>(first + count))
            return fail(0, "it ends in the table of correlations");
        for (int a = 0; a < count; ++a) {
            int& parameter = found.correlated[static_cast<std::size_t>(a)];
            if (!parseInteger(word(head, 4 + a), parameter) || parameter < 1 ||
                parameter > fixedParameterCount + doc_.jCount)
                return fail(first, "a correlated parameter is not one of the problem");
            const std::string& row = lines_[slot(first + 1 + a)].text;
            for (int b = 0; b < count; ++b) {
                double r = std::nan("");
                const std::string_view token = word(row, 2 + b);
                if (parseReal(token, r) && std::fabs(r) > 1.0 + 1e-9)
                    return fail(first + 1 + a, "a correlation lies outside -1 to 1");
                found.correlation[static_cast<std::size_t>(a)][static_cast<std::size_t>(b)] = r;
            }
        }
        found.correlatedCount = count;
        return true;
    }

    // The engine echoes the pairs with at least ten significant digits.
    static bool agrees(double echoed, double value) {
        return std::fabs(echoed - value) <= 1e-9 * std::max(std::fabs(value), 1e-300) ||
               echoed == value;
    }

    const std::vector<LinePiece>& lines_;
    FitDocument& doc_;
    int calculation_; // the calculation (from 1) that takes the results
    std::string problem_;
};

// [SECTION] Report reader

// Reads the report's lines in order, label by label. Every action that reads further lines
// leaves the last one it read in line_, and the later labels are tested against that line.
// A report that ends before a section is complete is refused, so that a report cut short never
// gives values it does not hold.
class ReportReader {
public:
    ReportReader(const std::vector<LinePiece>& lines, FitDocument& doc)
        : lines_(lines), doc_(doc) {}

    bool readReport() {
        // The field, weighting and magnetization set are the report's own, or none.
        doc_.field = 0.0;
        doc_.weighting = Weighting::Uniform;
        doc_.magnetWeight = 1.0;
        doc_.magnetCount = 0;
        while (advance()) {
            if (isSkipped(*line_)) continue;
            if (isAsteriskLine(*line_)) { // a section's opening line, or part of one
                opened_ = line_->line;
                continue;
            }
            if (!readHeadLabels()) return false;
            if (line_ == nullptr) break;
            if (holds(*line_, label::section)) {
                opened_ = 0;
                sectionSeen_ = true;
                if (!readSectionHeading()) return false;
            }
        }
        if (opened_ != 0)
            return fail(
                formatC("the file ends after the opening line of a section (line %d)", opened_));
        if (!sectionSeen_) return fail("it holds no fit results (no \"Fitting Results\" section)");
        constexpr const char* headParts[] = {"number of spin sites", "table of spins",
                                             "list of interactions"};
        for (std::size_t part = 0; part < headSeen_.size(); ++part)
            if (!headSeen_[part]) return fail(formatC("it has no %s", headParts[part]));
        if (tableSites_ != doc_.siteCount)
            return fail(formatC("it gives %d spin sites, but its table of spins %d", doc_.siteCount,
                                tableSites_));
        return checkNumbers();
    }

    const std::string& problem() const { return problem_; }

private:
    // Reads the next line into line_; false (and line_ null) at the end of the file.
    bool advance() {
        line_ = next_ < lines_.size() ? &lines_[next_++] : nullptr;
        return line_ != nullptr;
    }

    bool fail(const std::string& what) {
        problem_ = line_ != nullptr ? formatC("line %d: %s", line_->line, what.c_str()) : what;
        return false;
    }
    bool endsIn(const std::string& where) {
        problem_ = "the file ends in " + where + "; it is not complete";
        return false;
    }

    // Reads the next line of a table; false, with what is missing, at the end of the file or
    // in a last line that the end of the file cuts (only a closing line may lack its newline).
    bool row(const std::string& where) {
        if (!advance()) return endsIn(where);
        const bool cut = next_ == lines_.size() && line_->text.back() != '\n';
        return !cut || holds(*line_, label::asterisks) || endsIn(where);
    }

    // Values as the writer prints them: finite and small enough for a line of the report.
    bool number(const char* what, std::string_view token, double& value) {
        if (parseReal(token, value) && std::fabs(value) <= maxValueMagnitude) return true;
        return fail(formatC("the %s \"%s\" is not a number of the report", what,
                            printableText(token).c_str()));
    }
    bool numberAfter(std::string_view name, double& value) {
        if (realAfter(line_->text, name, value) && std::fabs(value) <= maxValueMagnitude)
            return true;
        return fail(formatC("no number of the report after \"%s\"", std::string(name).c_str()));
    }
    bool wholeAfter(std::string_view name, int& value) {
        if (integerAfter(line_->text, name, value)) return true;
        return fail(formatC("no whole number after \"%s\"", std::string(name).c_str()));
    }

    // The labels of the problem, tested in order on line_. The title line is the title's alone:
    // a title may hold the text of another label.
    bool readHeadLabels() {
        if (line_->upper.find(label::titleKey) != std::string::npos) {
            std::string_view title = line_->text;
            title = title.substr(std::min(label::title.size(), title.size()));
            title = title.substr(0, title.find('\n'));
            doc_.title = title.substr(0, maxTitleLength);
            return true;
        }
        if (holds(*line_, label::spinSites)) {
            if (!wholeAfter(label::spinSites, doc_.siteCount)) return false;
            headSeen_[0] = true;
            if (!countFits(doc_.siteCount, maxSites))
                return fail(
                    formatC("%d spin sites; the document holds 0 to %d", doc_.siteCount, maxSites));
        }
        if (holds(*line_, label::siteHeading)) {
            const std::string where = "the table of spins";
            if (!row(where)) return false;
            for (int s = 1; s <= doc_.siteCount; ++s) {
                if (!row(where)) return false;
                int& spin = doc_.sites[slot(s)].spin;
                if (!parseInteger(word(line_->text, 2), spin) || spin < 1 || spin > maxTwiceSpin)
                    return fail(formatC("the spin of site %d is not a whole number from 1 to %d", s,
                                        maxTwiceSpin));
            }
            headSeen_[1] = true;
            tableSites_ = doc_.siteCount;
        }
        if (holds(*line_, label::interactions)) {
            doc_.interactionCount = 0;
            headSeen_[2] = true;
            if (!row("the interactions")) return false;
            while (holds(*line_, label::betweenSite)) {
                if (++doc_.interactionCount > maxInteractions)
                    return fail(formatC("more than %d interactions", maxInteractions));
                Interaction& path = doc_.interactions[slot(doc_.interactionCount)];
                int j = 0;
                if (!wholeAfter(label::betweenSite, path.siteA) ||
                    !wholeAfter(label::andSite, path.siteB) || !wholeAfter(label::isJ, j))
                    return false;
                if (j < 1 || j > maxJValues)
                    return fail(formatC("J%d; J values are numbered 1 to %d", j, maxJValues));
                path.parameterIndex = fixedParameterCount + j;
                interactionLines_[slot(doc_.interactionCount)] = line_->line;
                if (!row("the interactions")) return false;
            }
        }
        for (int unit = 0; unit < energyUnitCount; ++unit)
            if (holds(*line_, str(label::energyUnit) + label::unitNames[unit]))
                doc_.energyUnit = static_cast<EnergyUnit>(unit);
        if (holds(*line_, label::chiField)) {
            if (!numberAfter(label::chiField, doc_.field)) return false;
            if (doc_.field < 0 || doc_.field > maxFieldTesla)
                return fail(formatC("the field %g T lies outside 0 to %g T", doc_.field,
                                    maxFieldTesla));
        }
        if (holds(*line_, label::relativeWeighting)) doc_.weighting = Weighting::Relative;
        if (holds(*line_, label::magnetWeight)) {
            if (!numberAfter(label::magnetWeight, doc_.magnetWeight)) return false;
            if (doc_.magnetWeight < 0 || doc_.magnetWeight > maxMagnetWeight)
                return fail(formatC("the weight %g lies outside 0 to %g", doc_.magnetWeight,
                                    maxMagnetWeight));
        }
        return true;
    }

    // A section's first line: taken when its number is above calculationCount, else skipped
    // up to its closing line.
    bool readSectionHeading() {
        int n = 0;
        if (!wholeAfter(label::section, n)) return false;
        if (n < 1) return fail(formatC("calculation # %d; calculations are numbered from 1", n));
        if (n <= doc_.calculationCount) {
            while (advance() && !holds(*line_, label::asterisks)) {
            }
            return line_ != nullptr || endsIn(formatC("calculation # %d", n));
        }
        if (n > maxCalculations)
            return fail(
                formatC("calculation # %d; the document holds at most %d", n, maxCalculations));
        doc_.calculationCount = n;
        Calculation& calc = doc_.calculations[slot(n)];
        return numberAfter(label::deviation, calc.deviation) &&
               numberAfter(label::tolerance, calc.tolerance) && readReportSection(n);
    }

    // Reads the rest of section n, up to its closing line of asterisks, into calculation n.
    // Every part of the section must be there.
    bool readReportSection(int n) {
        Calculation& calc = doc_.calculations[slot(n)];
        const std::string where = formatC("calculation # %d", n);
        for (FitParameter* parameter : fourParameters(calc)) parameter->uncertainty = std::nan("");
        for (FitParameter& j : calc.j) j.uncertainty = std::nan("");
        calc.warnings.clear();
        calc.alternatives.clear();
        calc.correlatedCount = 0;
        calc.end = FitEnd::Converged;
        enum SectionPart { initial, initialJ, fitted, fittedJ, pairs, table, partCount };
        std::array<bool, partCount> seen{};
        bool magnetSeen = false;
        calc.chiDeviation = calc.magnetDeviation = 0.0;
        for (;;) {
            if (!row(where)) return false;
            if (holds(*line_, label::asterisks)) break;
            if (holds(*line_, label::initialParameters)) {
                const auto parameters = fourParameters(calc);
                for (std::size_t p = 0; p < parameters.size(); ++p) {
                    if (!row(where) || !numberAfter(label::starting[p], parameters[p]->start) ||
                        !numberAfter(label::step, parameters[p]->step))
                        return false;
                }
                seen[initial] = true;
            }
            if (holds(*line_, label::fittedParameters)) {
                if (!row(where)) return false;
                const auto parameters = fourParameters(calc);
                for (std::size_t p = 0; p < parameters.size(); ++p)
                    if (!numberAfter(label::fitted[p], parameters[p]->fitted)) return false;
                seen[fitted] = true;
            }
            if (holds(*line_, label::initialJValues)) {
                if (!wholeAfter(label::initialJValues, doc_.jCount)) return false;
                if (!countFits(doc_.jCount, maxJValues))
                    return fail(formatC("%d J values; the document holds 0 to %d", doc_.jCount,
                                        maxJValues));
                if (!row(where) || !row(where)) return false;
                for (int k = 1; k <= doc_.jCount; ++k) {
                    FitParameter& j = calc.j[slot(k)];
                    if (!row(where) || !number("starting value", word(line_->text, 2), j.start) ||
                        !number("step", word(line_->text, 3), j.step))
                        return false;
                }
                seen[initialJ] = true;
            }
            if (holds(*line_, label::fittedJValues)) {
                int count = 0;
                if (!wholeAfter(label::fittedJValues, count)) return false;
                if (count != doc_.jCount)
                    return fail(
                        formatC("%d fitted J values, but %d initial ones", count, doc_.jCount));
                if (!row(where) || !row(where)) return false;
                for (int k = 1; k <= doc_.jCount; ++k)
                    if (!row(where) ||
                        !number("fitted value", word(line_->text, 2), calc.j[slot(k)].fitted))
                        return false;
                seen[fittedJ] = true;
            }
            if (!readRunResults(calc, where)) return false;
            if (!readMagnetisation(n, calc, where, magnetSeen)) return false;
            if (holds(*line_, label::totalPairs)) {
                if (!wholeAfter(label::totalPairs, doc_.pairCount) ||
                    !wholeAfter(label::fittingFrom, calc.firstPair) ||
                    !wholeAfter(label::toPair, calc.lastPair))
                    return false;
                if (!countFits(doc_.pairCount, maxPairs))
                    return fail(formatC("%d data pairs; the document holds 0 to %d", doc_.pairCount,
                                        maxPairs));
                seen[pairs] = true;
            }
            if (holds(*line_, label::temperature)) {
                if (!seen[pairs]) return fail("a table of pairs before its number of pairs");
                doc_.dataKind =
                    holds(*line_, label::chiTExperimental) ? DataKind::ChiT : DataKind::Chi;
                if (!row(where)) return false;
                for (int i = 1; i <= doc_.pairCount; ++i) {
                    DataPair& pair = doc_.pairs[slot(i)];
                    if (!row(formatC("the pairs of calculation # %d, after %d of %d pairs", n,
                                     i - 1, doc_.pairCount)) ||
                        !number("temperature", word(line_->text, 2), pair.temperature) ||
                        !number("observed value", word(line_->text, 3), pair.observed) ||
                        !number("fitted value", word(line_->text, 4), calc.fittedValues[slot(i)]))
                        return false;
                }
                seen[table] = true;
            }
        }
        // Every calculation has the same J values and pairs, as the writer prints them.
        if ((sectionJ_ >= 0 && sectionJ_ != doc_.jCount) ||
            (sectionPairs_ >= 0 && sectionPairs_ != doc_.pairCount))
            return fail(formatC("calculation # %d has %d J values and %d pairs, calculations "
                                "before it %d and %d",
                                n, doc_.jCount, doc_.pairCount, sectionJ_, sectionPairs_));
        if (sectionMagnet_ >= 0 && sectionMagnet_ != doc_.magnetCount)
            return fail(formatC("calculation # %d has %d magnetization points, calculations "
                                "before it %d",
                                n, doc_.magnetCount, sectionMagnet_));
        if (doc_.magnetCount > 0 && !magnetSeen)
            return fail(formatC("calculation # %d has no table of the magnetization", n));
        sectionJ_ = doc_.jCount;
        sectionPairs_ = doc_.pairCount;
        sectionMagnet_ = doc_.magnetCount;
        constexpr const char* partNames[partCount] = {"initial parameters", "initial J values",
                                                      "fitted parameters",  "fitted J values",
                                                      "number of pairs",    "table of pairs"};
        for (int p = 0; p < partCount; ++p)
            if (!seen[static_cast<std::size_t>(p)])
                return fail(formatC("calculation # %d has no %s", n, partNames[p]));
        return true;
    }

    // The magnetization set of section n, when line_ holds its count or its table.
    bool readMagnetisation(int n, Calculation& calc, const std::string& where, bool& seen) {
        if (holds(*line_, label::magnetPoints)) {
            if (!wholeAfter(label::magnetPoints, doc_.magnetCount)) return false;
            if (!countFits(doc_.magnetCount, maxMagnetPoints))
                return fail(formatC("%d magnetization points; the document holds 0 to %d",
                                    doc_.magnetCount, maxMagnetPoints));
            if (!numberAfter(label::setDeviations, calc.chiDeviation) ||
                !numberAfter(label::magnetPart, calc.magnetDeviation))
                return false;
            counted_ = true;
        }
        if (!holds(*line_, label::magnetTable)) return true;
        if (!counted_) return fail("a table of the magnetization before its number of points");
        if (!row(where)) return false;
        for (int i = 1; i <= doc_.magnetCount; ++i) {
            MagnetPoint& point = doc_.magnetPoints[slot(i)];
            if (!row(formatC("the magnetization of calculation # %d, after %d of %d points", n,
                             i - 1, doc_.magnetCount)) ||
                !number("temperature", word(line_->text, 2), point.temperature) ||
                !number("field", word(line_->text, 3), point.field) ||
                !number("observed magnetization", word(line_->text, 4), point.observed) ||
                !number("fitted magnetization", word(line_->text, 5), calc.fittedMagnet[slot(i)]))
                return false;
            if (!(point.temperature > 0) || !(point.field > 0) || point.field > maxFieldTesla)
                return fail(formatC("magnetization point %d lies outside T > 0, 0 < H <= %g T", i,
                                    maxFieldTesla));
        }
        seen = true;
        return true;
    }

    // The engine parameter number of a name the report prints ("g" .. "J10"); 0 for none of the
    // problem's.
    int parameterNamed(std::string_view name) const {
        for (int p = 1; p <= fixedParameterCount + doc_.jCount; ++p)
            if (parameterName(p) == name) return p;
        return 0;
    }
    FitParameter* parameter(Calculation& calc, int p) {
        if (p <= 0) return nullptr;
        return p <= fixedParameterCount ? fourParameters(calc)[slot(p)]
                                        : &calc.j[slot(p - fixedParameterCount)];
    }

    // What a run knew beyond the values, when line_ holds one of its labels; true when it holds
    // none. Uncertainties and correlations are tables; warnings, other minima and how the fit
    // ended lines of their own.
    bool readRunResults(Calculation& calc, const std::string& where) {
        if (holds(*line_, label::uncertainties)) {
            if (!row(where) || !row(where)) return false;
            for (int k = 0; k < fixedParameterCount + doc_.jCount; ++k) {
                if (!row(where)) return false;
                FitParameter* f = parameter(calc, parameterNamed(word(line_->text, 1)));
                if (f == nullptr) return fail("an uncertainty of no parameter of the problem");
                const std::string_view u = word(line_->text, 3);
                if (u == label::fixedWord)
                    f->uncertainty = 0;
                else if (u == label::undeterminedWord)
                    f->uncertainty = HUGE_VAL;
                else if (u == label::unknownWord)
                    f->uncertainty = std::nan("");
                else if (!number("uncertainty", u, f->uncertainty))
                    return false;
            }
        } else if (holds(*line_, label::correlations)) {
            const std::string head = line_->text;
            int count = 0;
            while (!word(head, 5 + count).empty()) ++count;
            if (count > maxParameters) return fail("more correlated parameters than the problem's");
            for (int a = 0; a < count; ++a) {
                const int p = parameterNamed(word(head, 5 + a));
                if (p == 0) return fail("a correlation of no parameter of the problem");
                calc.correlated[static_cast<std::size_t>(a)] = p;
                if (!row(where)) return false;
                for (int b = 0; b < count; ++b) {
                    double r = std::nan("");
                    const std::string_view token = word(line_->text, 2 + b);
                    if (token != label::unknownWord && !number("correlation", token, r))
                        return false;
                    calc.correlation[static_cast<std::size_t>(a)][static_cast<std::size_t>(b)] = r;
                }
            }
            calc.correlatedCount = count;
        } else if (holds(*line_, label::warning)) {
            std::string_view text = line_->text;
            text.remove_prefix(text.find(label::warning) + label::warning.size());
            calc.warnings.emplace_back(text.substr(0, text.find('\n')));
        } else if (holds(*line_, label::otherMinimum) || holds(*line_, label::equivalentMinimum)) {
            Calculation::OtherMinimum other;
            other.equivalent = holds(*line_, label::equivalentMinimum);
            if (!numberAfter(other.equivalent ? label::equivalentMinimum : label::otherMinimum,
                             other.deviation))
                return false;
            do {
                if (!row(where)) return false;
                std::string_view rest = line_->text;
                while (!rest.empty()) {
                    const std::size_t comma = rest.find(',');
                    const std::string_view pair = rest.substr(0, comma);
                    const int p = parameterNamed(word(pair, 1));
                    if (p != 0 && !number("value of a minimum", word(pair, 2),
                                          other.values[slot(p)]))
                        return false;
                    rest = comma == std::string_view::npos ? "" : rest.substr(comma + 1);
                }
            } while (line_->text.find_last_not_of(" \n") != std::string::npos &&
                     line_->text[line_->text.find_last_not_of(" \n")] == ',');
            calc.alternatives.push_back(other);
        } else if (holds(*line_, label::fitEnd)) {
            std::string_view text = line_->text;
            text.remove_prefix(text.find(label::fitEnd) + label::fitEnd.size());
            for (int e = 0; e < 4; ++e)
                if (text.starts_with(label::fitEnds[e])) calc.end = static_cast<FitEnd>(e);
        }
        return true;
    }

    // Every path joins two sites of the problem with one of its J values, and every
    // calculation's fitted range names pairs the document holds.
    bool checkNumbers() {
        line_ = nullptr;
        for (int n = 1; n <= doc_.interactionCount; ++n) {
            const Interaction& path = doc_.interactions[slot(n)];
            const int j = path.parameterIndex - fixedParameterCount;
            if (path.siteA < 1 || path.siteA > doc_.siteCount || path.siteB < 1 ||
                path.siteB > doc_.siteCount || j > doc_.jCount) {
                problem_ = formatC("line %d: the interaction between site #%d and site #%d by "
                                   "J%d lies outside sites 1 to %d and J1 to J%d",
                                   interactionLines_[slot(n)], path.siteA, path.siteB, j,
                                   doc_.siteCount, doc_.jCount);
                return false;
            }
        }
        const int pairs = std::max(doc_.pairCount, 1);
        for (int n = 1; n <= doc_.calculationCount; ++n) {
            const Calculation& calc = doc_.calculations[slot(n)];
            if (calc.firstPair < 1 || calc.firstPair > calc.lastPair || calc.lastPair > pairs) {
                problem_ = formatC("calculation # %d fits pairs %d to %d, outside pairs 1 to %d", n,
                                   calc.firstPair, calc.lastPair, pairs);
                return false;
            }
        }
        return true;
    }

    const std::vector<LinePiece>& lines_;
    FitDocument& doc_;
    std::size_t next_ = 0;
    const LinePiece* line_ = nullptr;
    int opened_ = 0; // the line of a section's opening asterisks not yet followed by its heading
    bool sectionSeen_ = false;
    std::array<bool, 3> headSeen_{};        // number of sites, table of spins, interactions
    int tableSites_ = 0;                    // the sites of the table of spins
    bool counted_ = false;                  // a number of magnetization points was read
    int sectionJ_ = -1, sectionPairs_ = -1; // the J and pair counts of the sections taken
    int sectionMagnet_ = -1;                // and their magnetization points
    std::array<int, maxInteractions> interactionLines_{};
    std::string problem_;
};

} // namespace

// [SECTION] Public functions

std::string reportDate(std::time_t when) {
    std::tm local{};
    localtime_r(&when, &local);
    return formatTimeC("%m/%d/%Y %I:%M:%S %p", local);
}

std::string reportText(const FitDocument& doc, const std::string& date) {
    std::string out;
    appendHead(out, doc, date);
    for (int n = 1; n <= doc.calculationCount; ++n) appendSection(out, doc, n);
    return out;
}

bool readEngineOutput(const std::string& contents, FitDocument& doc, std::string& problem,
                      int calculation) {
    if (calculation == 0) calculation = doc.calculationCount;
    if (doc.calculationCount < 1 || doc.calculationCount > maxCalculations || calculation < 1 ||
        calculation > doc.calculationCount) {
        problem = "the document has no calculation to take them";
        return false;
    }
    const std::vector<LinePiece> lines = cutIntoPieces(contents, engineLineLength);
    return OutputReader(lines, doc, calculation).read(problem);
}

ReportWrite writeReport(const std::string& outputPath, const std::string& reportPath,
                        int calculation, FitEnd end) {
    std::string contents, reason;
    if (!readWholeFile(outputPath, contents, reason, maxReportFileBytes))
        return {fileExists(outputPath) ? ReportWrite::UnusableOutput : ReportWrite::NoOutput,
                reason, "", 0};
    auto updated = std::make_unique<FitDocument>(fitDocument);
    std::string problem;
    if (!readEngineOutput(contents, *updated, problem, calculation))
        return {ReportWrite::UnusableOutput, problem, "", 0};
    updated->calculations[slot(calculation == 0 ? updated->calculationCount : calculation)].end =
        end;
    ReportWrite written{ReportWrite::Written, "", "", 0};
    struct stat status {};
    if (::stat(reportPath.c_str(), &status) == 0) {
        if ((status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0 ||
            ::access(reportPath.c_str(), W_OK) != 0)
            return {ReportWrite::NotWritten, "it is read-only", "", 0};
        std::string earlier;
        if (readWholeFile(reportPath, earlier, reason, maxReportFileBytes)) {
            auto previous = std::make_unique<FitDocument>();
            previous->calculationCount = 0;
            const bool readable = readReportText(earlier, *previous, problem);
            if (!readable || previous->calculationCount > updated->calculationCount) {
                written.backup = reportPath + "~";
                written.backupCalculations = readable ? previous->calculationCount : 0;
                if (!writeWholeFile(written.backup, earlier, reason))
                    return {ReportWrite::NotWritten,
                            formatC("the earlier report cannot be kept as %s: %s",
                                    written.backup.c_str(), reason.c_str()),
                            "", 0};
            }
        }
    }
    if (!writeWholeFile(reportPath, reportText(*updated, reportDate(std::time(nullptr))), reason))
        return {ReportWrite::NotWritten, reason, "", 0};
    fitDocument = *updated;
    removeFile(outputPath);
    return written;
}

bool readReportText(const std::string& contents, FitDocument& doc, std::string& problem) {
    const std::vector<LinePiece> lines = cutIntoPieces(contents, reportLineLength);
    ReportReader reader(lines, doc);
    if (reader.readReport()) return true;
    problem = reader.problem();
    return false;
}

bool readReportFile(const std::string& reportPath, FitDocument& doc) {
    std::string contents, reason;
    if (!readWholeFile(reportPath, contents, reason, maxReportFileBytes)) {
        showError(formatC("Cannot read the report %s: %s.", reportPath.c_str(), reason.c_str()));
        return false;
    }
    std::string problem;
    if (!readReportText(contents, doc, problem)) {
        showError(formatC("Cannot read the report %s, %s.", reportPath.c_str(), problem.c_str()));
        return false;
    }
    return true;
}

} // namespace corvane
