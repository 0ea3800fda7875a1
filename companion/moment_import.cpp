#include "moment_import.h"

#include <cmath>

#include "text/text.h"

namespace newqpi {

using corvane::formatC;
using corvane::measuredText;

namespace {

std::string headerText(const corvane::HeaderValue& value) {
    return value.given ? formatC("%.10g", value.value) : std::string();
}

// A value the user typed; what names it in a problem.
bool typedNumber(const std::string& text, const char* what, double& value,
                 std::vector<std::string>& problems) {
    if (text.empty()) {
        problems.push_back(formatC("Give the %s.", what));
        return false;
    }
    if (!corvane::parseReal(text, value)) {
        problems.push_back(
            formatC("The %s \"%s\" is not a number.", what, corvane::printableText(text).c_str()));
        return false;
    }
    return true;
}

std::string fileName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

const char* plural(std::size_t n, const char* one, const char* many) { return n == 1 ? one : many; }

} // namespace

MomentChoice suggestedChoice(const corvane::MomentFile& file) {
    MomentChoice choice;
    choice.mass = headerText(file.mass);
    choice.molarMass = headerText(file.molarMass);
    // A chi set where the field most rows have was held over more than one temperature.
    const std::vector<corvane::Level> fields = corvane::fieldLevels(file.rows);
    corvane::MomentSet set;
    std::string ignored;
    if (!fields.empty() && corvane::chiSet(file, fields.front().value, set, ignored)) {
        choice.field = fields.front().value;
        choice.chiSet = corvane::temperatureLevels(set.rows).size() > 1;
    }
    const std::vector<corvane::Level> loops = corvane::loopTemperatures(file);
    if (!loops.empty()) {
        choice.magnetSet = true;
        choice.temperature = loops.front().value;
    } else if (const auto temperatures = corvane::temperatureLevels(file.rows);
               !temperatures.empty()) {
        choice.temperature = temperatures.front().value;
    }
    return choice;
}

std::vector<std::string> convertMoments(const corvane::MomentFile& file, const MomentChoice& choice,
                                        ConvertedMoments& converted) {
    std::vector<std::string> problems;
    corvane::Sample sample;
    const bool massRead = typedNumber(choice.mass, "sample mass (mg)", sample.mass, problems);
    const bool molarRead =
        typedNumber(choice.molarMass, "molar mass (g mol-1)", sample.molarMass, problems);
    if (!choice.diamagnetic.empty())
        typedNumber(choice.diamagnetic, "diamagnetic correction (cm3 mol-1)", sample.diamagnetic,
                    problems);
    if (massRead && molarRead)
        if (const std::string problem = corvane::sampleProblem(sample); !problem.empty())
            problems.push_back(problem);
    if (!choice.chiSet && !choice.magnetSet)
        problems.push_back("Choose the chi set, the magnetization set or both.");

    ConvertedMoments result;
    std::vector<std::string> taken;
    std::string error;
    corvane::MomentSet set;
    if (choice.chiSet) {
        if (!corvane::chiSet(file, choice.field, set, error)) {
            problems.push_back(error);
        } else {
            const bool chiT = choice.kind == corvane::DataKind::ChiT;
            for (const corvane::MomentRow& row : set.rows) {
                const double chi = corvane::molarSusceptibility(row, sample);
                result.pairs.push_back({measuredText(row.temperature),
                                        measuredText(chiT ? chi * row.temperature : chi)});
            }
            result.field = measuredText(set.level / 1e4);
            taken.push_back(formatC("%zu %s %s at %s Oe (%s T), %s to %s K", set.rows.size(),
                                    chiT ? "chiT" : "chi", plural(set.rows.size(), "pair", "pairs"),
                                    formatC("%.5g", set.level).c_str(), result.field.c_str(),
                                    formatC("%.3g", set.rows.front().temperature).c_str(),
                                    formatC("%.3g", set.rows.back().temperature).c_str()));
        }
    }
    if (choice.magnetSet) {
        if (!corvane::magnetSet(file, choice.temperature, choice.branch, set, error)) {
            problems.push_back(error);
        } else {
            for (const corvane::MomentRow& row : set.rows)
                result.points.push_back({measuredText(row.temperature),
                                         measuredText(row.field / 1e4),
                                         measuredText(corvane::magnetization(row, sample))});
            taken.push_back(formatC(
                "%zu magnetization %s at %s K (%s)", set.rows.size(),
                plural(set.rows.size(), "point", "points"), formatC("%.3g", set.level).c_str(),
                choice.branch == corvane::Branch::FirstRising ? "the first rising branch"
                                                              : "every point with H > 0"));
        }
    }
    if (!problems.empty()) return problems;
    for (const std::string& part : taken)
        result.summary += (result.summary.empty() ? "" : "; ") + part;
    result.summary +=
        formatC(", from %s: moment from \"%s\", chi_dia %s cm3 mol-1.", fileName(file.path).c_str(),
                file.momentColumn.c_str(), formatC("%g", sample.diamagnetic).c_str());
    converted = std::move(result);
    return problems;
}

std::string fileSummary(const corvane::MomentFile& file) {
    std::string text = formatC(
        "%s: %s, %zu %s, the moment from \"%s\"", fileName(file.path).c_str(),
        file.format == corvane::MomentFormat::Mpms3 ? "an MPMS3 data file"
                                                    : "columns of T, H and moment",
        file.rows.size(), plural(file.rows.size(), "row", "rows"), file.momentColumn.c_str());
    if (file.skippedRows > 0)
        text += formatC("; %d %s without a number skipped (the first on line %d)", file.skippedRows,
                        plural(static_cast<std::size_t>(file.skippedRows), "row", "rows"),
                        file.firstSkippedLine);
    return text + ".";
}

} // namespace newqpi
