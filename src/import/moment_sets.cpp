#include "import/moment_sets.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string_view>

#include "text/text.h"

namespace corvane {

namespace {

// Grams per milligram.
constexpr double gramsPerMg = 1e-3;
// Levels named at most in a message; the rest are counted.
constexpr std::size_t namedLevels = 8;

// Moment per gram times grams per mole: emu mol-1.
double molarMoment(const MomentRow& row, const Sample& sample) {
    return row.moment * sample.molarMass / (sample.mass * gramsPerMg);
}

bool within(double a, double b, double absolute, double relative) {
    return std::fabs(a - b) <= std::max(absolute, relative * std::max(std::fabs(a), std::fabs(b)));
}

using Key = double MomentRow::*;

// The rows grouped by the reading key: sorted by it, each group is the lowest reading not yet
// taken and every reading that is the same set point as it. Each group as its rows' indices in
// the file's order.
template <typename Same>
std::vector<std::vector<std::size_t>> groupsOf(const std::vector<MomentRow>& rows, Key key,
                                               Same same) {
    std::vector<std::size_t> order(rows.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return rows[a].*key < rows[b].*key; });
    std::vector<std::vector<std::size_t>> groups;
    for (std::size_t k = 0; k < order.size();) {
        const double first = rows[order[k]].*key;
        std::vector<std::size_t> group;
        while (k < order.size() && same(first, rows[order[k]].*key)) group.push_back(order[k++]);
        std::sort(group.begin(), group.end());
        groups.push_back(std::move(group));
    }
    return groups;
}

double meanOf(const std::vector<MomentRow>& rows, Key key) {
    double sum = 0;
    for (const MomentRow& row : rows) sum += row.*key;
    return rows.empty() ? 0.0 : sum / static_cast<double>(rows.size());
}

std::vector<MomentRow> rowsAt(const std::vector<MomentRow>& all,
                              const std::vector<std::size_t>& indices) {
    std::vector<MomentRow> rows;
    rows.reserve(indices.size());
    for (std::size_t k : indices) rows.push_back(all[k]);
    return rows;
}

std::vector<Level> levelsOf(const std::vector<MomentRow>& rows,
                            const std::vector<std::vector<std::size_t>>& groups, Key key) {
    std::vector<Level> levels;
    for (const auto& group : groups)
        levels.push_back({meanOf(rowsAt(rows, group), key), static_cast<int>(group.size())});
    return levels;
}

// "200 Oe (151 rows), 1000 Oe (3 rows) and 5 more".
// Fields with four significant digits, temperatures with three: set points as a user names them.
std::string levelList(const std::vector<Level>& levels, const char* unit) {
    const int digits = std::string_view(unit) == "K" ? 3 : 4;
    std::string text;
    for (std::size_t k = 0; k < levels.size() && k < namedLevels; ++k) {
        if (k > 0) text += k + 1 == std::min(levels.size(), namedLevels + 1) ? " and " : ", ";
        text += formatC("%s %s (%d %s)", formatC("%.*g", digits, levels[k].value).c_str(), unit,
                        levels[k].rows, levels[k].rows == 1 ? "row" : "rows");
    }
    if (levels.size() > namedLevels) text += formatC(" and %zu more", levels.size() - namedLevels);
    return text;
}

// The first branch of rows (in the file's order) on which the field rises: it begins where a
// run of readings that never falls begins, ends before the first reading that falls, and must
// rise by more than one set point. Then only its rows with H > 0.
std::vector<MomentRow> firstRisingBranch(const std::vector<MomentRow>& rows) {
    std::size_t start = 0, end = rows.size();
    const auto risen = [&](std::size_t from, std::size_t to) {
        return to > from + 1 && rows[to - 1].field > rows[from].field &&
               !sameField(rows[to - 1].field, rows[from].field);
    };
    for (std::size_t k = 1; k < rows.size(); ++k) {
        if (rows[k].field >= rows[k - 1].field || sameField(rows[k].field, rows[k - 1].field))
            continue;
        if (risen(start, k)) {
            end = k;
            break;
        }
        start = k;
    }
    std::vector<MomentRow> branch;
    if (!risen(start, end)) return branch;
    for (std::size_t k = start; k < end; ++k)
        if (rows[k].field > 0) branch.push_back(rows[k]);
    return branch;
}

std::vector<std::vector<std::size_t>> temperatureGroups(const std::vector<MomentRow>& rows) {
    return groupsOf(rows, &MomentRow::temperature, sameTemperature);
}

// The rows at each temperature whose first rising branch holds two rows or more, lowest
// temperature first.
std::vector<std::vector<MomentRow>> loopSets(const std::vector<MomentRow>& all) {
    std::vector<std::vector<MomentRow>> sets;
    for (const auto& group : temperatureGroups(all)) {
        std::vector<MomentRow> rows = rowsAt(all, group);
        if (firstRisingBranch(rows).size() >= 2) sets.push_back(std::move(rows));
    }
    return sets;
}

} // namespace

std::string sampleProblem(const Sample& sample) {
    const struct {
        double value;
        const char *what, *unit;
    } values[] = {{sample.mass, "sample mass", "mg"}, {sample.molarMass, "molar mass", "g mol-1"}};
    for (const auto& v : values)
        if (!(v.value > 0) || !std::isfinite(v.value))
            return formatC("The %s %s %s is not above 0.", v.what, formatC("%g", v.value).c_str(),
                           v.unit);
    if (!std::isfinite(sample.diamagnetic))
        return "The diamagnetic correction is not a finite number.";
    return "";
}

double estimatedDiamagnetic(double molarMass) { return diamagneticPerMolarMass * molarMass; }

double molarSusceptibility(const MomentRow& row, const Sample& sample) {
    return molarMoment(row, sample) / row.field - sample.diamagnetic;
}

double magnetization(const MomentRow& row, const Sample& sample) {
    return (molarMoment(row, sample) - sample.diamagnetic * row.field) / molarBohrMagneton;
}

bool sameField(double a, double b) { return within(a, b, 1.0, 0.01); }
bool sameTemperature(double a, double b) { return within(a, b, 0.1, 0.02); }

std::vector<Level> fieldLevels(const std::vector<MomentRow>& rows) {
    std::vector<Level> levels =
        levelsOf(rows, groupsOf(rows, &MomentRow::field, sameField), &MomentRow::field);
    std::stable_sort(levels.begin(), levels.end(), [](const Level& a, const Level& b) {
        return a.rows != b.rows ? a.rows > b.rows : std::fabs(a.value) < std::fabs(b.value);
    });
    return levels;
}

std::vector<Level> temperatureLevels(const std::vector<MomentRow>& rows) {
    return levelsOf(rows, temperatureGroups(rows), &MomentRow::temperature);
}

bool chiSet(const MomentFile& file, std::optional<double> field, MomentSet& set,
            std::string& error) {
    std::vector<MomentRow> rows;
    if (field) {
        for (const MomentRow& row : file.rows)
            if (sameField(row.field, *field)) rows.push_back(row);
        if (rows.empty()) {
            error = formatC("%s: no row was measured at %s Oe; the fields measured are %s.",
                            file.path.c_str(), formatC("%g", *field).c_str(),
                            levelList(fieldLevels(file.rows), "Oe").c_str());
            return false;
        }
    } else { // the field of the most rows; the lower one among equals
        for (const auto& group : groupsOf(file.rows, &MomentRow::field, sameField)) {
            std::vector<MomentRow> candidate = rowsAt(file.rows, group);
            if (rows.empty() || candidate.size() > rows.size() ||
                (candidate.size() == rows.size() &&
                 std::fabs(meanOf(candidate, &MomentRow::field)) <
                     std::fabs(meanOf(rows, &MomentRow::field))))
                rows = std::move(candidate);
        }
    }
    const double mean = meanOf(rows, &MomentRow::field);
    if (rows.empty() || sameField(mean, 0.0)) {
        error = formatC("%s: the rows at %s Oe have no field to divide the moment by; choose a "
                        "field of %s.",
                        file.path.c_str(), formatC("%.4g", mean).c_str(),
                        levelList(fieldLevels(file.rows), "Oe").c_str());
        return false;
    }
    std::stable_sort(rows.begin(), rows.end(), [](const MomentRow& a, const MomentRow& b) {
        return a.temperature < b.temperature;
    });
    set = {mean, std::move(rows)};
    return true;
}

std::vector<Level> loopTemperatures(const MomentFile& file) {
    std::vector<Level> levels;
    for (const std::vector<MomentRow>& rows : loopSets(file.rows))
        levels.push_back({meanOf(rows, &MomentRow::temperature), static_cast<int>(rows.size())});
    return levels;
}

bool magnetSet(const MomentFile& file, std::optional<double> temperature, Branch branch,
               MomentSet& set, std::string& error) {
    std::vector<MomentRow> rows;
    if (temperature) {
        for (const MomentRow& row : file.rows)
            if (sameTemperature(row.temperature, *temperature)) rows.push_back(row);
        if (rows.empty()) {
            error = formatC("%s: no row was measured at %s K; the temperatures measured are %s.",
                            file.path.c_str(), formatC("%g", *temperature).c_str(),
                            levelList(temperatureLevels(file.rows), "K").c_str());
            return false;
        }
    } else {
        const std::vector<std::vector<MomentRow>> loops = loopSets(file.rows);
        if (loops.empty()) {
            error = formatC("%s: no temperature has a field loop (a field that rises through "
                            "two or more values above 0 Oe); the fields measured are %s.",
                            file.path.c_str(), levelList(fieldLevels(file.rows), "Oe").c_str());
            return false;
        }
        rows = loops.front();
    }
    std::vector<MomentRow> taken;
    if (branch == Branch::FirstRising) {
        taken = firstRisingBranch(rows);
    } else {
        for (const MomentRow& row : rows)
            if (row.field > 0) taken.push_back(row);
    }
    if (taken.empty()) {
        error = formatC("%s: the rows at %s K have no %s.", file.path.c_str(),
                        formatC("%.4g", meanOf(rows, &MomentRow::temperature)).c_str(),
                        branch == Branch::FirstRising ? "field that rises above 0 Oe"
                                                      : "field above 0 Oe");
        return false;
    }
    set = {meanOf(taken, &MomentRow::temperature), std::move(taken)};
    return true;
}

std::string measuredText(double value) { return formatC("%.6g", value); }

} // namespace corvane
