#include "fit/report.h"

#include <memory>
#include <string_view>
#include <vector>

#include "fit/engine_run.h"
#include "fit/line_pieces.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "text/text.h"

namespace corvane {

namespace {

// [SECTION] Layout

const std::string asterisks(78, '*');
constexpr std::string_view deviationLabel = "with fiting squared diviation = ";
constexpr std::string_view toleranceLabel = " (Convergence Tolerance = ";
constexpr std::string_view sectionLabel = "Fitting Results - Calculation # ";

constexpr const char* unitLines[energyUnitCount] = {
    "\n  Energy Unit: cm-1\n", "\n  Energy Unit: meV\n", "\n  Energy Unit: K\n"};
constexpr const char* pairHeadings[dataKindCount] = {
    "  #    Tempreture (K)      ChiT (Experimental)      ChiT (Fitted)\n",
    "  #    Tempreture (K)      Chi (Experimental)       Chi (Fitted)\n"};

void appendHead(std::string& out, const FitDocument& doc, const std::string& date) {
    out += "\n     ***** Magnetic Susceptibility Fitting By Corvane v.1.0*****\n\n";
    out += formatC("  Date: %s\n\n", date.c_str());
    out += formatC("  TITLE - %s\n\n", doc.title.c_str());
    out += formatC("  Spin Sites: %d\n", doc.siteCount);
    out += "  Spins On Sites:\n";
    out += "  Site #     Spin\n";
    out += "  ---------------\n";
    for (int s = 1; s <= doc.siteCount; ++s)
        out += formatC("    %d         %d\n", s, doc.sites[slot(s)].spin);
    out += "\n  Interactions:\n";
    for (int n = 1; n <= doc.interactionCount; ++n) {
        const Interaction& path = doc.interactions[slot(n)];
        out += formatC("  Between site #%d and site #%d is J%d\n", path.siteA, path.siteB,
                       path.parameterIndex - fixedParameterCount);
    }
    const int unit = static_cast<int>(doc.energyUnit);
    if (unit >= 0 && unit < energyUnitCount) out += unitLines[unit];
}

void appendSection(std::string& out, const FitDocument& doc, int n) {
    const Calculation& calc = doc.calculations[slot(n)];
    out += "\n\n" + asterisks + "\n";
    out += formatC("  Fitting Results - Calculation # %d with fiting squared diviation = %f "
                   "(Convergence Tolerance = %f)\n",
                   n, calc.deviation, calc.tolerance);
    out += "\n";
    out += "  Initial Parameters:\n";
    out += formatC("  g    - starting = %f     step= %f\n", calc.g.start, calc.g.step);
    out += formatC("  C    - starting = %f     step= %f\n", calc.c.start, calc.c.step);
    out += formatC("  zJ   - starting = %f     step= %f\n", calc.zJ.start, calc.zJ.step);
    out += formatC("  Xtip - starting = %f     step= %f\n\n", calc.tip.start, calc.tip.step);
    out += formatC("  Initial J Values: %d\n", doc.jCount);
    out += "    #    Starting Value   Step\n";
    out += "  ------------------------------------------\n";
    for (int k = 1; k <= doc.jCount; ++k) {
        const FitParameter& j = calc.j[slot(k)];
        out += formatC("    %d   %f        %f\n", k, j.start, j.step);
    }
    out += "\n  Fitted Parameters:\n";
    out += formatC("  g = %f     C = %f     zJ = %f     Xtip = %f\n\n", calc.g.fitted,
                   calc.c.fitted, calc.zJ.fitted, calc.tip.fitted);
    out += formatC("  Fitted J Values: %d\n", doc.jCount);
    out += "     #      Value\n";
    out += "  -----------------\n";
    for (int k = 1; k <= doc.jCount; ++k)
        out += formatC("     %d      %f\n", k, calc.j[slot(k)].fitted);
    out += "\n  Fitted Susceptibility:\n\n";
    out += formatC("  Total data pairs: %d.   Fitting from pair #%d to pair #%d\n\n",
                   doc.pairCount, calc.firstPair, calc.lastPair);
    out += pairHeadings[doc.dataKind == DataKind::Chi ? 1 : 0];
    out += "  " + std::string(62, '_') + "\n";
    for (int i = 1; i <= doc.pairCount; ++i) {
        const DataPair& pair = doc.pairs[slot(i)];
        out += formatC("  %d   %f                  %f                       %f\n", i,
                       pair.temperature, pair.observed, calc.fittedValues[slot(i)]);
    }
    out += "\n" + asterisks + "\n";
}

// The number directly after label in text (blanks before it skipped); 0 when text does not
// hold the label or no number follows it.
double realAfter(std::string_view text, std::string_view label) {
    const std::size_t at = text.find(label);
    return at == std::string_view::npos ? 0.0 : readLeadingReal(text.substr(at + label.size()));
}
int integerAfter(std::string_view text, std::string_view label) {
    const std::size_t at = text.find(label);
    return at == std::string_view::npos ? 0
                                        : readLeadingInteger(text.substr(at + label.size()));
}
bool holds(const LinePiece& piece, std::string_view label) {
    return piece.text.find(label) != std::string::npos;
}

// A count from a file must lie in 0..limit for the document to hold what follows it.
bool countFits(int count, int limit) { return count >= 0 && count <= limit; }

// [SECTION] Engine output

bool readOutputPieces(const std::vector<LinePiece>& lines, FitDocument& doc,
                      std::string& problem) {
    constexpr int headLines = 6;
    if (lines.size() < headLines) {
        problem = formatC("it ends after line %zu, before the number of pairs (line 6)",
                          lines.size());
        return false;
    }
    const auto real = [&](int line, int n) { return readLeadingReal(word(lines[slot(line)].text, n)); };
    const auto integer = [&](int line, int n) {
        return readLeadingInteger(word(lines[slot(line)].text, n));
    };
    const int jCount = integer(4, 1);
    if (!countFits(jCount, maxJValues)) {
        problem = formatC("line 4: %d J values; the document holds 0 to %d", jCount, maxJValues);
        return false;
    }
    const int pairCount = integer(6, 1), first = integer(6, 2), last = integer(6, 3);
    if (pairCount < 1 || pairCount > maxPairs) {
        problem = formatC("line 6: %d pairs; the document holds 1 to %d", pairCount, maxPairs);
        return false;
    }
    if (first < 1 || first > last || last > pairCount) {
        problem = formatC("line 6: the fitted range, pairs %d to %d, lies outside pairs 1 to %d",
                          first, last, pairCount);
        return false;
    }
    if (lines.size() < static_cast<std::size_t>(headLines + pairCount)) {
        problem = formatC("it ends after %zu of its %d pair lines", lines.size() - headLines,
                          pairCount);
        return false;
    }

    Calculation& calc = doc.calculations[slot(doc.calculationCount)];
    calc.deviation = real(1, 1);
    calc.g.fitted = real(1, 2);
    calc.c.fitted = real(1, 3);
    calc.zJ.fitted = real(2, 1);
    calc.tip.fitted = real(2, 2);
    doc.jCount = jCount;
    for (int k = 1; k <= jCount; ++k) calc.j[slot(k)].fitted = real(4, k + 1);
    doc.pairCount = pairCount;
    calc.firstPair = first;
    calc.lastPair = last;
    for (int i = 1; i <= pairCount; ++i) {
        DataPair& pair = doc.pairs[slot(i)];
        pair.temperature = real(headLines + i, 1);
        calc.fittedValues[slot(i)] = real(headLines + i, 2);
        pair.observed = real(headLines + i, 3);
    }
    return true;
}

// [SECTION] Report reader

// Reads the report's lines in order, label by label. Every action that reads further lines
// leaves the last one it read in line_, and the later labels are tested against that line.
class ReportReader {
public:
    ReportReader(const std::vector<LinePiece>& lines, FitDocument& doc)
        : lines_(lines), doc_(doc) {}

    bool readReport() {
        while (advance()) {
            if (isSkipped(*line_)) continue;
            if (!readHeadLabels()) return false;
            if (line_ == nullptr) break;
            if (holds(*line_, sectionLabel)) {
                const int n = integerAfter(line_->text, sectionLabel);
                if (n > doc_.calculationCount) {
                    if (n > maxCalculations)
                        return fail(formatC("calculation # %d; the document holds at most %d",
                                            n, maxCalculations));
                    doc_.calculationCount = n;
                    Calculation& calc = doc_.calculations[slot(n)];
                    calc.deviation = realAfter(line_->text, deviationLabel);
                    calc.tolerance = realAfter(line_->text, toleranceLabel);
                    if (!readReportSection()) return false;
                }
            }
        }
        return checkFittedRanges();
    }

    const std::string& problem() const { return problem_; }

private:
    // Reads the next line into line_; false (and line_ null) at the end of the file.
    bool advance() {
        line_ = next_ < lines_.size() ? &lines_[next_++] : nullptr;
        return line_ != nullptr;
    }
    // Reads n lines; false when the file ends first.
    bool skip(int n) {
        for (int i = 0; i < n; ++i)
            if (!advance()) return false;
        return true;
    }

    bool fail(const std::string& what) {
        problem_ = formatC("line %d: %s", line_ != nullptr ? line_->line : 0, what.c_str());
        return false;
    }

    // The labels of the problem, tested in order on line_; false when a count is too large.
    bool readHeadLabels() {
        if (line_->upper.find("TITLE") != std::string::npos) {
            constexpr std::size_t titleColumn = 10; // after "  TITLE - "
            std::string_view title = line_->text;
            title = title.substr(std::min(titleColumn, title.size()));
            title = title.substr(0, title.find('\n'));
            doc_.title = title.substr(0, maxTitleLength);
        }
        if (holds(*line_, "  Spin Sites: ")) {
            doc_.siteCount = integerAfter(line_->text, "  Spin Sites: ");
            if (!countFits(doc_.siteCount, maxSites))
                return fail(formatC("%d spin sites; the document holds 0 to %d", doc_.siteCount,
                                    maxSites));
        }
        if (holds(*line_, "Site #     Spin")) {
            if (!skip(1)) return true;
            for (int s = 1; s <= doc_.siteCount; ++s) {
                if (!advance()) return true;
                doc_.sites[slot(s)].spin = readLeadingInteger(word(line_->text, 2));
            }
        }
        if (holds(*line_, "  Interactions:")) {
            doc_.interactionCount = 0;
            if (!advance()) return true;
            while (holds(*line_, "Between site #")) {
                if (++doc_.interactionCount > maxInteractions)
                    return fail(formatC("more than %d interactions", maxInteractions));
                Interaction& path = doc_.interactions[slot(doc_.interactionCount)];
                path.siteA = integerAfter(line_->text, "Between site #");
                path.siteB = integerAfter(line_->text, "and site #");
                path.parameterIndex = fixedParameterCount + integerAfter(line_->text, "is J");
                if (!advance()) return true;
            }
        }
        if (holds(*line_, "Energy Unit: cm-1")) doc_.energyUnit = EnergyUnit::Cm1;
        if (holds(*line_, "Energy Unit: meV")) doc_.energyUnit = EnergyUnit::MeV;
        if (holds(*line_, "Energy Unit: K")) doc_.energyUnit = EnergyUnit::Kelvin;
        return true;
    }

    // Reads the rest of a section, up to its closing line of asterisks, into calculation
    // calculationCount.
    bool readReportSection() {
        Calculation& calc = doc_.calculations[slot(doc_.calculationCount)];
        while (advance() && !holds(*line_, asterisks)) {
            if (holds(*line_, "Initial Parameters:")) {
                const std::pair<FitParameter*, std::string_view> rows[] = {
                    {&calc.g, "g    - starting = "},
                    {&calc.c, "C    - starting = "},
                    {&calc.zJ, "zJ   - starting = "},
                    {&calc.tip, "Xtip - starting = "}};
                for (const auto& [parameter, label] : rows) {
                    if (!advance()) return true;
                    parameter->start = realAfter(line_->text, label);
                    parameter->step = realAfter(line_->text, "step= ");
                }
            }
            if (holds(*line_, "Fitted Parameters:")) {
                if (!advance()) return true;
                calc.g.fitted = realAfter(line_->text, "g = ");
                calc.c.fitted = realAfter(line_->text, "C = ");
                calc.zJ.fitted = realAfter(line_->text, "zJ = ");
                calc.tip.fitted = realAfter(line_->text, "Xtip = ");
            }
            if (holds(*line_, "Initial J Values:")) {
                doc_.jCount = integerAfter(line_->text, "Initial J Values: ");
                if (!countFits(doc_.jCount, maxJValues))
                    return fail(formatC("%d J values; the document holds 0 to %d", doc_.jCount,
                                        maxJValues));
                if (!skip(2)) return true;
                for (int k = 1; k <= doc_.jCount; ++k) {
                    if (!advance()) return true;
                    calc.j[slot(k)].start = readLeadingReal(word(line_->text, 2));
                    calc.j[slot(k)].step = readLeadingReal(word(line_->text, 3));
                }
            }
            if (holds(*line_, "Fitted J Values:")) {
                if (!skip(2)) return true;
                for (int k = 1; k <= doc_.jCount; ++k) {
                    if (!advance()) return true;
                    calc.j[slot(k)].fitted = readLeadingReal(word(line_->text, 2));
                }
            }
            if (holds(*line_, "Total data pairs: ")) {
                doc_.pairCount = integerAfter(line_->text, "Total data pairs: ");
                if (!countFits(doc_.pairCount, maxPairs))
                    return fail(formatC("%d data pairs; the document holds 0 to %d",
                                        doc_.pairCount, maxPairs));
                calc.firstPair = integerAfter(line_->text, "Fitting from pair #");
                calc.lastPair = integerAfter(line_->text, " to pair #");
            }
            if (holds(*line_, "Tempreture (K)")) {
                doc_.dataKind =
                    holds(*line_, "ChiT (Experimental)") ? DataKind::ChiT : DataKind::Chi;
                if (!skip(1)) return true;
                for (int i = 1; i <= doc_.pairCount; ++i) {
                    if (!advance()) return true;
                    DataPair& pair = doc_.pairs[slot(i)];
                    pair.temperature = readLeadingReal(word(line_->text, 2));
                    pair.observed = readLeadingReal(word(line_->text, 3));
                    calc.fittedValues[slot(i)] = readLeadingReal(word(line_->text, 4));
                }
            }
        }
        return true;
    }

    // Every calculation's fitted range must name pairs the document holds.
    bool checkFittedRanges() {
        const int pairs = std::max(doc_.pairCount, 1);
        for (int n = 1; n <= doc_.calculationCount; ++n) {
            const Calculation& calc = doc_.calculations[slot(n)];
            if (calc.firstPair < 1 || calc.firstPair > calc.lastPair || calc.lastPair > pairs) {
                problem_ = formatC("calculation # %d fits pairs %d to %d, outside pairs 1 to %d",
                                   n, calc.firstPair, calc.lastPair, pairs);
                return false;
            }
        }
        return true;
    }

    const std::vector<LinePiece>& lines_;
    FitDocument& doc_;
    std::size_t next_ = 0;
    const LinePiece* line_ = nullptr;
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

bool readEngineOutput(const std::string& contents, FitDocument& doc, std::string& problem) {
    if (doc.calculationCount < 1 || doc.calculationCount > maxCalculations) {
        problem = "the document has no calculation to take them";
        return false;
    }
    return readOutputPieces(cutIntoPieces(contents, engineLineLength), doc, problem);
}

bool writeReport(const std::string& outputPath, const std::string& reportPath) {
    const std::string unchanged = formatC(" %s was not changed.", reportPath.c_str());
    const EngineRun& run = lastEngineRun;
    std::string contents, reason;
    if (!readWholeFile(outputPath, contents, reason)) {
        const bool engineRan = run.started || !run.startFailure.empty();
        const std::string why = engineRan && !fileExists(outputPath)
                                    ? engineFailureText(run)
                                    : formatC("%s: %s", outputPath.c_str(), reason.c_str());
        showError("The fit gave no results: " + why + "." + unchanged);
        return false;
    }

    auto updated = std::make_unique<FitDocument>(fitDocument);
    std::string problem;
    if (!readEngineOutput(contents, *updated, problem)) {
        std::string text = formatC("The fit results in %s cannot be used: %s",
                                   outputPath.c_str(), problem.c_str());
        if (run.started && !(run.exited && run.exitCode == 0))
            text += " (" + engineFailureText(run) + ")";
        showError(text + "." + unchanged);
        return false;
    }
    if (!writeWholeFile(reportPath, reportText(*updated, reportDate(std::time(nullptr))),
                        reason)) {
        showError(formatC("Cannot write the report %s: %s. The fit results stay in %s.",
                          reportPath.c_str(), reason.c_str(), outputPath.c_str()));
        return false;
    }
    fitDocument = *updated;
    removeFile(outputPath);
    return true;
}

bool readReportText(const std::string& contents, FitDocument& doc, std::string& problem) {
    const std::vector<LinePiece> lines = cutIntoPieces(contents, inputLineLength);
    ReportReader reader(lines, doc);
    if (reader.readReport()) return true;
    problem = reader.problem();
    return false;
}

bool readReportFile(const std::string& reportPath, FitDocument& doc) {
    std::string contents, reason;
    if (!readWholeFile(reportPath, contents, reason)) {
        showError(formatC("Cannot open the report %s: %s", reportPath.c_str(), reason.c_str()));
        return false;
    }
    std::string problem;
    if (!readReportText(contents, doc, problem)) {
        showError(formatC("Cannot read the report %s, %s.", reportPath.c_str(), problem.c_str()));
        return false;
    }
    return true;
}

bool readReport(const std::string& reportPath) {
    auto updated = std::make_unique<FitDocument>(fitDocument);
    if (!readReportFile(reportPath, *updated)) return false;
    fitDocument = *updated;
    return true;
}

} // namespace corvane
