#include "fit/input_writer.h"

#include <cmath>

#include "platform/files.h"
#include "text/text.h"

namespace corvane {

namespace {

constexpr const char* unitKeywords[energyUnitCount] = {"CM-1", "MEV", "K"};

// Below this magnitude no value can be written exactly in maxWrittenValueLength characters.
constexpr double smallestWritable = 1e-45;

} // namespace

std::string writableValueProblem(double value) {
    if (!std::isfinite(value)) return "not a finite number";
    if (std::fabs(value) > maxValueMagnitude)
        return formatC("%g is too large; values up to %.0f are accepted", value, maxValueMagnitude);
    if ((value != 0 && std::fabs(value) < smallestWritable) ||
        formatExact(value).size() > maxWrittenValueLength)
        return formatC("%g has too many decimals to be written exactly in %zu characters", value,
                       maxWrittenValueLength);
    return "";
}

namespace {

class ProblemList {
public:
    explicit ProblemList(std::vector<std::string>& problems) : problems_(problems) {}
    void add(std::string text) { problems_.push_back(std::move(text)); }
    void value(const std::string& what, double value) {
        if (const std::string why = writableValueProblem(value); !why.empty())
            add(what + ": " + why + ".");
    }
    void parameter(const std::string& name, const FitParameter& p) {
        value(name + " start", p.start);
        value(name + " step", p.step);
    }

private:
    std::vector<std::string>& problems_;
};

} // namespace

std::vector<std::string> titleProblems(const std::string& title) {
    std::vector<std::string> found;
    if (title.size() > static_cast<std::size_t>(maxTitleLength))
        found.push_back(formatC("The title is %zu bytes long; at most %d are kept.", title.size(),
                                maxTitleLength));
    if (title.find('!') != std::string::npos)
        found.push_back("The title holds a \"!\", which makes its line a comment.");
    for (const char c : title)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            found.push_back("The title holds a tab, line break or other control character.");
            break;
        }
    return found;
}

namespace {

// False when a count is outside its array: nothing beyond the counts can be checked then.
bool checkCounts(const FitDocument& doc, ProblemList& problems) {
    struct Count {
        int value, limit;
        const char *what, *none;
    };
    const Count counts[] = {
        {doc.siteCount, maxSites, "spin sites", "No spin site is given."},
        {doc.jCount, maxJValues, "J values", nullptr},
        {doc.interactionCount, maxInteractions, "exchange paths", nullptr},
        {doc.pairCount, maxPairs, "data pairs", "No data pair is given."},
        {doc.magnetCount, maxMagnetPoints, "magnetization points", nullptr},
    };
    bool inside = true;
    for (const Count& count : counts) {
        if (count.value > count.limit || count.value < 0) {
            problems.add(formatC("There are %d %s; at most %d are allowed.", count.value,
                                 count.what, count.limit));
            inside = false;
        } else if (count.value == 0 && count.none != nullptr) {
            problems.add(count.none);
        }
    }
    return inside;
}

} // namespace

std::vector<std::string> inputFileProblems(const FitDocument& doc, int calculation) {
    std::vector<std::string> found;
    ProblemList problems(found);
    for (std::string& problem : titleProblems(doc.title)) problems.add(std::move(problem));
    if (!checkCounts(doc, problems)) return found;
    if (calculation < 1 || calculation > maxCalculations) {
        problems.add(formatC("There is no calculation %d.", calculation));
        return found;
    }

    const Calculation& calc = doc.calculations[slot(calculation)];
    problems.value("Precision", calc.tolerance);
    if (calc.tolerance < 0) problems.add(formatC("Precision: %g is negative.", calc.tolerance));
    problems.parameter("g", calc.g);
    if (!(calc.g.start > 0)) problems.add(formatC("g start: %g is not above 0.", calc.g.start));
    problems.parameter("C", calc.c);
    problems.parameter("zJ", calc.zJ);
    problems.parameter("Xtip", calc.tip);
    for (int k = 1; k <= doc.jCount; ++k) problems.parameter(formatC("J%d", k), calc.j[slot(k)]);

    for (int s = 1; s <= doc.siteCount; ++s) {
        const int spin = doc.sites[slot(s)].spin;
        if (spin < 1 || spin > maxTwiceSpin)
            problems.add(formatC("Site %d has spin %d; a spin is given as 2S, from 1 (S = 1/2) "
                                 "to %d (S = %d).",
                                 s, spin, maxTwiceSpin, maxTwiceSpin / 2));
    }
    for (int n = 1; n <= doc.interactionCount; ++n) {
        const Interaction& path = doc.interactions[slot(n)];
        for (const int site : {path.siteA, path.siteB})
            if (site < 1 || site > doc.siteCount)
                problems.add(formatC("Path %d: site %d is not one of the sites 1 to %d.", n, site,
                                     doc.siteCount));
        if (path.siteA == path.siteB)
            problems.add(formatC("Path %d couples site %d with itself.", n, path.siteA));
        const int j = path.parameterIndex - fixedParameterCount;
        if (j < 1 || j > doc.jCount)
            problems.add(
                doc.jCount == 0
                    ? formatC("Path %d uses J%d, but no J value is given.", n, j)
                    : formatC("Path %d uses J%d, but only J1 to J%d are given.", n, j, doc.jCount));
    }
    for (int n = 1; n <= doc.pairCount; ++n) {
        const DataPair& pair = doc.pairs[slot(n)];
        problems.value(formatC("Pair %d, T", n), pair.temperature);
        problems.value(formatC("Pair %d, observed value", n), pair.observed);
        if (pair.temperature <= 0)
            problems.add(
                formatC("Pair %d: the temperature %g K is not above 0 K.", n, pair.temperature));
    }
    problems.value("Field", doc.field);
    if (doc.field < 0 || doc.field > maxFieldTesla)
        problems.add(formatC("Field: %g T is outside 0 to %g T.", doc.field, maxFieldTesla));
    problems.value("Magnetization weight", doc.magnetWeight);
    if (doc.magnetWeight < 0 || doc.magnetWeight > maxMagnetWeight)
        problems.add(formatC("Magnetization weight: %g is outside 0 to %g.", doc.magnetWeight,
                             maxMagnetWeight));
    for (int n = 1; n <= doc.magnetCount; ++n) {
        const MagnetPoint& point = doc.magnetPoints[slot(n)];
        problems.value(formatC("Magnetization point %d, T", n), point.temperature);
        problems.value(formatC("Magnetization point %d, H", n), point.field);
        problems.value(formatC("Magnetization point %d, M", n), point.observed);
        if (point.temperature <= 0)
            problems.add(formatC("Magnetization point %d: the temperature %g K is not above 0 K.",
                                 n, point.temperature));
        if (!(point.field > 0) || point.field > maxFieldTesla)
            problems.add(formatC("Magnetization point %d: the field %g T is outside 0 to %g T.",
                                 n, point.field, maxFieldTesla));
    }
    return found;
}

std::string inputFileText(const FitDocument& doc, int calculation) {
    const Calculation& calc = doc.calculations[slot(calculation)];
    const bool chiT = doc.dataKind == DataKind::ChiT;
    const char* unit = energyUnitNames[static_cast<std::size_t>(doc.energyUnit)];
    std::string text;
    text += "! Corvane fitting input file: a spin cluster, the starting values of its fit and the "
            "measured data.\n";
    text += formatC("! Observed values are %s; J and zJ are in %s, in H = -2 sum J Sa.Sb.\n",
                    chiT ? "chiT in cm3 K mol-1" : "chi in cm3 mol-1", unit);
    text += "! Spins are given as 2S (1 is S = 1/2). A step of 0 keeps a parameter fixed.\n";
    text += "TITLE " + doc.title + "\n";
    text += formatC("KEYWD DATA_FILE=%s ENERGY_UNIT=%s\n", chiT ? "XTT" : "XT",
                    unitKeywords[static_cast<std::size_t>(doc.energyUnit)]);
    text += "KEYWD PRECISION=" + formatExact(calc.tolerance) + "\n";
    // The settings of the field and the magnetization set, only where they are not the defaults.
    if (doc.field != 0) text += "KEYWD FIELD=" + formatExact(doc.field) + "\n";
    if (doc.weighting == Weighting::Relative) text += "KEYWD WEIGHT=RELATIVE\n";
    if (doc.magnetWeight != 1.0) text += "KEYWD M_WEIGHT=" + formatExact(doc.magnetWeight) + "\n";
    const auto parameter = [&text](const char* name, const FitParameter& p) {
        text += formatC("KEYWD %s_START=%s %s_STEP=%s\n", name, formatExact(p.start).c_str(), name,
                        formatExact(p.step).c_str());
    };
    parameter("G", calc.g);
    parameter("C", calc.c);
    parameter("ZJ", calc.zJ);
    parameter("XTIP", calc.tip);
    for (int k = 1; k <= doc.jCount; ++k) {
        const FitParameter& j = calc.j[slot(k)];
        text += formatC("J_VALUE%d %s %s\n", k, formatExact(j.start).c_str(),
                        formatExact(j.step).c_str());
    }
    for (int s = 1; s <= doc.siteCount; ++s)
        text += formatC("SPIN_ON_SITE%d %d\n", s, doc.sites[slot(s)].spin);
    for (int n = 1; n <= doc.interactionCount; ++n) {
        const Interaction& path = doc.interactions[slot(n)];
        text += formatC("INTERACTION sites %d and %d coupled by J%d\n", path.siteA, path.siteB,
                        path.parameterIndex - fixedParameterCount);
    }
    for (int n = 1; n <= doc.pairCount; ++n) {
        const DataPair& pair = doc.pairs[slot(n)];
        text += "T_CHI " + formatExact(pair.temperature) + " " + formatExact(pair.observed) + "\n";
    }
    if (doc.magnetCount > 0)
        text += "! Magnetization: T in K, field in T, M in N muB (Bohr magnetons per formula "
                "unit).\n";
    for (int n = 1; n <= doc.magnetCount; ++n) {
        const MagnetPoint& point = doc.magnetPoints[slot(n)];
        text += "T_H_M " + formatExact(point.temperature) + " " + formatExact(point.field) + " " +
                formatExact(point.observed) + "\n";
    }
    return text;
}

bool writeInputFile(const std::string& path, const FitDocument& doc, std::string& error,
                    int calculation) {
    const std::vector<std::string> problems = inputFileProblems(doc, calculation);
    if (!problems.empty()) {
        error = problems.front();
        return false;
    }
    return writeWholeFile(path, inputFileText(doc, calculation), error);
}

} // namespace corvane
