#include "problem_form.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <set>

#include "fit/input_writer.h"
#include "text/text.h"

namespace newqpi {

using corvane::formatC;
using corvane::slot;

namespace {

// The shortest text that reads back as value, without an exponent where that stays short.
std::string numberText(double value) {
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed);
    if (result.ec != std::errc()) result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

class Checker {
public:
    explicit Checker(std::vector<std::string>& problems) : problems_(problems) {}

    void add(std::string text) { problems_.push_back(std::move(text)); }

    // A real value that must be given, be a number and be writable; what names it.
    bool real(const std::string& text, const std::string& what, double& value) {
        if (text.empty()) {
            add(what + " is missing.");
            return false;
        }
        if (!corvane::parseReal(text, value)) {
            add(what + " \"" + text + "\" is not a number.");
            return false;
        }
        if (const std::string why = corvane::writableValueProblem(value); !why.empty()) {
            add(what + ": " + why + ".");
            return false;
        }
        return true;
    }

    void parameter(const ParameterText& p, const std::string& name) {
        double value = 0;
        real(p.start, name + " start", value);
        if (p.fit && real(p.step, name + " step", value) && value == 0)
            add(name + " is fitted with a step of 0; give it a step or clear its Fit box.");
    }

    // Not more than limit of what.
    bool count(std::size_t n, int limit, const char* what) {
        if (n <= static_cast<std::size_t>(limit)) return true;
        add(formatC("There are %zu %s; at most %d are allowed.", n, what, limit));
        return false;
    }

private:
    std::vector<std::string>& problems_;
};

// The J number of a path's J text ("2" or "J2"); false when it is not a whole number.
bool jNumber(std::string_view text, int& j) {
    if (!text.empty() && (text[0] == 'J' || text[0] == 'j')) text.remove_prefix(1);
    return corvane::parseInteger(text, j);
}

void checkPaths(const ProblemForm& form, Checker& check) {
    const int sites = static_cast<int>(form.spins.size());
    const int jCount = static_cast<int>(form.jValues.size());
    std::vector<bool> used(form.jValues.size(), false);
    int n = 0;
    for (const PathText& path : form.paths) {
        ++n;
        int ends[2] = {0, 0};
        bool good = true;
        const std::string* texts[2] = {&path.siteA, &path.siteB};
        for (int e = 0; e < 2; ++e) {
            const std::string& text = *texts[e];
            if (!corvane::parseInteger(text, ends[e])) {
                check.add(text.empty()
                              ? formatC("Path %d has no %s site.", n, e == 0 ? "first" : "second")
                              : formatC("Path %d: \"%s\" is not a site number.", n, text.c_str()));
                good = false;
            } else if (ends[e] < 1 || ends[e] > sites) {
                check.add(sites == 0
                              ? formatC("Path %d names site %d, but there is no site.", n, ends[e])
                              : formatC("Path %d names site %d, but the sites are 1 to %d.", n,
                                        ends[e], sites));
                good = false;
            }
        }
        if (good && ends[0] == ends[1])
            check.add(formatC("Path %d couples site %d with itself.", n, ends[0]));
        int j = 0;
        if (!jNumber(path.j, j))
            check.add(path.j.empty() ? formatC("Path %d has no J value.", n)
                                     : formatC("Path %d: \"%s\" is not a J value (J1, J2, ...).", n,
                                               path.j.c_str()));
        else if (j < 1 || j > jCount)
            check.add(jCount == 0 ? formatC("Path %d names J%d, but no J value is given.", n, j)
                                  : formatC("Path %d names J%d, but only J1 to J%d are given.", n,
                                            j, jCount));
        else
            used[slot(j)] = true;
    }
    for (int k = 1; k <= jCount; ++k)
        if (!used[slot(k)]) check.add(formatC("J%d is not used by any path.", k));
}

void checkPairs(const ProblemForm& form, Checker& check) {
    if (form.pairs.empty()) check.add("No data pair is given.");
    check.count(form.pairs.size(), corvane::maxPairs, "data pairs");
    const std::string observed = observedName(form.dataKind);
    int n = 0;
    for (const PairText& pair : form.pairs) {
        ++n;
        const std::string at = formatC("Pair %d: the ", n);
        double value = 0;
        if (check.real(pair.temperature, at + "temperature", value) && value <= 0)
            check.add(at + "temperature " + pair.temperature + " K is not above 0 K.");
        if (pair.value.empty())
            check.add(formatC("Pair %d has no %s value.", n, observed.c_str()));
        else
            check.real(pair.value, at + observed + " value", value);
    }
}

void checkMagnetization(const ProblemForm& form, Checker& check) {
    double field = 0;
    if (check.real(form.field, "The field of the data", field) &&
        (field < 0 || field > corvane::maxFieldTesla))
        check.add(formatC("The field of the data, %s T, is not within 0 to %g T.",
                          form.field.c_str(), corvane::maxFieldTesla));
    check.count(form.magnetPoints.size(), corvane::maxMagnetPoints, "magnetization points");
    int n = 0;
    for (const MagnetText& point : form.magnetPoints) {
        const std::string at = formatC("Magnetization point %d: the ", ++n);
        double value = 0;
        if (check.real(point.temperature, at + "temperature", value) && value <= 0)
            check.add(at + "temperature " + point.temperature + " K is not above 0 K.");
        if (check.real(point.field, at + "field", value) &&
            (value <= 0 || value > corvane::maxFieldTesla))
            check.add(formatC("%sfield %s T is not above 0 and up to %g T.", at.c_str(),
                              point.field.c_str(), corvane::maxFieldTesla));
        check.real(point.value, at + "magnetization", value);
    }
}

double number(const std::string& text) {
    double value = 0;
    corvane::parseReal(text, value);
    return value;
}

corvane::FitParameter parameterOf(const ParameterText& p) {
    return {number(p.start), p.fit ? number(p.step) : 0.0, 0.0, 0.0};
}

ParameterText textOf(const corvane::FitParameter& p) {
    return {numberText(p.start), numberText(p.step), p.step != 0};
}

} // namespace

std::string spinText(int twiceSpin) {
    return twiceSpin % 2 == 0 ? std::to_string(twiceSpin / 2) : std::to_string(twiceSpin) + "/2";
}

const char* observedName(corvane::DataKind kind) {
    return corvane::dataKindNames[static_cast<std::size_t>(kind)];
}

std::vector<std::string> formProblems(const ProblemForm& form) {
    std::vector<std::string> problems = corvane::titleProblems(form.title);
    Checker check(problems);
    double precision = 0;
    if (check.real(form.precision, "Precision", precision) && precision <= 0)
        check.add("Precision must be above 0.");
    check.parameter(form.g, "g");
    if (double g = 0; corvane::parseReal(form.g.start, g) && g <= 0)
        check.add("g start must be above 0.");
    check.parameter(form.c, "C");
    check.parameter(form.zJ, "zJ");
    check.parameter(form.tip, "Xtip");

    if (form.spins.empty()) check.add("No spin site is given.");
    const bool sitesFit = check.count(form.spins.size(), corvane::maxSites, "spin sites");
    for (std::size_t s = 0; s < form.spins.size(); ++s)
        if (form.spins[s] < 1 || form.spins[s] > corvane::maxTwiceSpin)
            check.add(formatC("Site %zu has no spin.", s + 1));
    const bool jFit = check.count(form.jValues.size(), corvane::maxJValues, "J values");
    for (std::size_t k = 0; k < form.jValues.size(); ++k)
        check.parameter(form.jValues[k], formatC("J%zu", k + 1));
    const bool pathsFit =
        check.count(form.paths.size(), corvane::maxInteractions, "exchange paths");
    checkPaths(form, check);
    checkPairs(form, check);
    checkMagnetization(form, check);

    // What only the whole document shows (nothing, when the checks above are complete).
    if (problems.empty() && sitesFit && jFit && pathsFit) {
        auto doc = std::make_unique<corvane::FitDocument>();
        fillDocument(form, *doc);
        problems = corvane::inputFileProblems(*doc);
    }
    return problems;
}

void fillDocument(const ProblemForm& form, corvane::FitDocument& doc) {
    doc.title = form.title;
    doc.dataKind = form.dataKind;
    doc.energyUnit = form.energyUnit;
    doc.siteCount = static_cast<int>(std::min<std::size_t>(form.spins.size(), corvane::maxSites));
    for (int s = 1; s <= doc.siteCount; ++s) doc.sites[slot(s)].spin = form.spins[slot(s)];
    doc.jCount = static_cast<int>(std::min<std::size_t>(form.jValues.size(), corvane::maxJValues));
    doc.interactionCount =
        static_cast<int>(std::min<std::size_t>(form.paths.size(), corvane::maxInteractions));
    for (int n = 1; n <= doc.interactionCount; ++n) {
        const PathText& path = form.paths[slot(n)];
        int j = 0;
        jNumber(path.j, j);
        doc.interactions[slot(n)] = {static_cast<int>(number(path.siteA)),
                                     static_cast<int>(number(path.siteB)),
                                     j + corvane::fixedParameterCount};
    }
    doc.pairCount = static_cast<int>(std::min<std::size_t>(form.pairs.size(), corvane::maxPairs));
    for (int n = 1; n <= doc.pairCount; ++n)
        doc.pairs[slot(n)] = {number(form.pairs[slot(n)].temperature),
                              number(form.pairs[slot(n)].value)};
    doc.field = number(form.field);
    doc.weighting = form.weighting;
    doc.magnetWeight = form.magnetWeight;
    doc.magnetCount =
        static_cast<int>(std::min<std::size_t>(form.magnetPoints.size(), corvane::maxMagnetPoints));
    for (int n = 1; n <= doc.magnetCount; ++n) {
        const MagnetText& point = form.magnetPoints[slot(n)];
        doc.magnetPoints[slot(n)] = {number(point.temperature), number(point.field),
                                     number(point.value)};
    }
    doc.calculationCount = 1;
    doc.currentCalculation = -1;
    corvane::Calculation& calc = doc.calculations[slot(1)];
    calc.tolerance = number(form.precision);
    calc.g = parameterOf(form.g);
    calc.c = parameterOf(form.c);
    calc.zJ = parameterOf(form.zJ);
    calc.tip = parameterOf(form.tip);
    for (int k = 1; k <= doc.jCount; ++k) calc.j[slot(k)] = parameterOf(form.jValues[slot(k)]);
    calc.firstPair = 1;
    calc.lastPair = doc.pairCount;
}

ProblemForm formOf(const corvane::FitDocument& doc) {
    const corvane::Calculation& calc = doc.calculations[slot(1)];
    ProblemForm form;
    form.title = doc.title;
    form.dataKind = doc.dataKind;
    form.energyUnit = doc.energyUnit;
    form.precision = numberText(calc.tolerance);
    form.g = textOf(calc.g);
    form.c = textOf(calc.c);
    form.zJ = textOf(calc.zJ);
    form.tip = textOf(calc.tip);
    for (int s = 1; s <= doc.siteCount; ++s) form.spins.push_back(doc.sites[slot(s)].spin);
    for (int k = 1; k <= doc.jCount; ++k) form.jValues.push_back(textOf(calc.j[slot(k)]));
    for (int n = 1; n <= doc.interactionCount; ++n) {
        const corvane::Interaction& path = doc.interactions[slot(n)];
        form.paths.push_back({std::to_string(path.siteA), std::to_string(path.siteB),
                              formatC("J%d", path.parameterIndex - corvane::fixedParameterCount)});
    }
    for (int n = 1; n <= doc.pairCount; ++n)
        form.pairs.push_back(
            {numberText(doc.pairs[slot(n)].temperature), numberText(doc.pairs[slot(n)].observed)});
    form.field = numberText(doc.field);
    for (int n = 1; n <= doc.magnetCount; ++n) {
        const corvane::MagnetPoint& point = doc.magnetPoints[slot(n)];
        form.magnetPoints.push_back(
            {numberText(point.temperature), numberText(point.field), numberText(point.observed)});
    }
    form.weighting = doc.weighting;
    form.magnetWeight = doc.magnetWeight;
    return form;
}

bool parseSiteList(std::string_view text, int siteCount, std::vector<int>& sites,
                   std::string& error) {
    std::vector<int> read;
    const auto add = [&](int site) {
        if (site < 1 || site > siteCount) {
            error = siteCount == 0
                        ? "There is no site yet."
                        : formatC("There is no site %d; the sites are 1 to %d.", site, siteCount);
            return false;
        }
        if (std::find(read.begin(), read.end(), site) != read.end()) {
            error = formatC("Site %d is named twice.", site);
            return false;
        }
        read.push_back(site);
        return true;
    };
    std::size_t at = 0;
    while ((at = text.find_first_not_of(" ,;", at)) != std::string_view::npos) {
        const std::size_t end = std::min(text.find_first_of(" ,;", at), text.size());
        const std::string_view item = text.substr(at, end - at);
        at = end;
        const std::size_t dash = item.find('-', 1);
        int first = 0, last = 0;
        const bool range = dash != std::string_view::npos;
        if (!corvane::parseInteger(item.substr(0, range ? dash : item.size()), first) ||
            (range && !corvane::parseInteger(item.substr(dash + 1), last))) {
            error = "\"" + std::string(item) + "\" is not a site number or a range such as 1-4.";
            return false;
        }
        if (!range) last = first;
        const int direction = last >= first ? 1 : -1;
        for (int site = first;; site += direction) {
            if (!add(site)) return false;
            if (site == last) break;
        }
    }
    if (read.empty()) { // no site named: all of them
        if (siteCount == 0) return add(1);
        for (int site = 1; site <= siteCount; ++site) read.push_back(site);
    }
    sites = std::move(read);
    return true;
}

int addPaths(ProblemForm& form, PathShape shape, const std::vector<int>& sites, int j) {
    std::set<std::pair<int, int>> joined;
    for (const PathText& path : form.paths) {
        int a = 0, b = 0;
        if (corvane::parseInteger(path.siteA, a) && corvane::parseInteger(path.siteB, b))
            joined.insert(std::minmax(a, b));
    }
    int added = 0;
    const auto join = [&](int a, int b) {
        if (a == b || !joined.insert(std::minmax(a, b)).second) return;
        form.paths.push_back({std::to_string(a), std::to_string(b), formatC("J%d", j)});
        ++added;
    };
    const std::size_t n = sites.size();
    for (std::size_t i = 0; i < n; ++i) {
        if (shape == PathShape::AllPairs) {
            for (std::size_t k = i + 1; k < n; ++k) join(sites[i], sites[k]);
        } else if (i + 1 < n) {
            join(sites[i], sites[i + 1]);
        } else if (shape == PathShape::Ring && n > 2) {
            join(sites[i], sites[0]);
        }
    }
    return added;
}

} // namespace newqpi
