#include "fit/input_file.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <string_view>
#include <vector>

#include "fit/exchange_files.h"
#include "fit/fit_document.h"
#include "fit/line_pieces.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "text/text.h"

namespace corvane {

namespace {

// [SECTION] Lines and tokens

using Line = LinePiece;

// Token n (from 1) of the statement that starts at `from` in the upper-case text: the text is
// cut at its newline and split at runs of blanks (tabs have become blanks before). A missing
// token is empty.
std::string_view token(std::string_view upper, std::size_t from, int n) {
    std::string_view rest = upper.substr(from);
    rest = rest.substr(0, rest.find('\n'));
    for (int i = 1;; ++i) {
        const std::size_t begin = rest.find_first_not_of(' ');
        if (begin == std::string_view::npos) return {};
        rest.remove_prefix(begin);
        const std::size_t end = rest.find(' ');
        if (i == n) return rest.substr(0, end);
        if (end == std::string_view::npos) return {};
        rest.remove_prefix(end);
    }
}

// The text written directly after a keyword up to the next blank or the line's end: the
// number of J_VALUE10 or SPIN_ON_SITE3, however many digits it has.
std::string_view numberAfterKeyword(std::string_view upper, std::size_t keywordEnd) {
    std::string_view rest = upper.substr(std::min(keywordEnd, upper.size()));
    return rest.substr(0, rest.find_first_of(" \n"));
}

bool isDigits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool isControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

// The first maxBytes bytes of text, or fewer where the cut would fall inside a UTF-8 character.
std::string_view utf8Prefix(std::string_view text, std::size_t maxBytes) {
    if (text.size() <= maxBytes) return text;
    std::size_t length = maxBytes;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
    return text.substr(0, length);
}

// Text of the file as a message shows it: control characters written as \xNN, so that what a
// file holds never drives the terminal or the message box, and a long text cut short.
std::string shown(std::string_view text) {
    constexpr std::size_t longest = 60;
    std::string out;
    const std::string_view kept = utf8Prefix(text, longest);
    for (const char c : kept)
        out += isControl(static_cast<unsigned char>(c))
                   ? formatC("\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(c)))
                   : std::string(1, c);
    if (kept.size() < text.size()) out += "...";
    return out;
}

// A title line is a title and nothing else: no statement is looked for in it.
bool isTitleLine(const Line& line) {
    return !isSkipped(line) && line.upper.find("TITLE") != std::string::npos;
}

// [SECTION] Statements

struct RealSetting {
    const char* name; // as written before its "="
    double& (*field)(Calculation&);
};

#define CORVANE_FIELD(member) [](Calculation& calc) -> double& { return calc.member; }
const RealSetting realSettings[] = {
    {"PRECISION", CORVANE_FIELD(tolerance)}, {"G_START", CORVANE_FIELD(g.start)},
    {"G_STEP", CORVANE_FIELD(g.step)},       {"C_START", CORVANE_FIELD(c.start)},
    {"C_STEP", CORVANE_FIELD(c.step)},       {"ZJ_START", CORVANE_FIELD(zJ.start)},
    {"ZJ_STEP", CORVANE_FIELD(zJ.step)},     {"XTIP_START", CORVANE_FIELD(tip.start)},
    {"XTIP_STEP", CORVANE_FIELD(tip.step)},
};
#undef CORVANE_FIELD

// Every setting name of a KEYWD line, for the message on a word that is none of them.
std::string settingNames() {
    std::string names = "DATA_FILE=, ENERGY_UNIT=";
    for (const RealSetting& setting : realSettings) names += std::string(", ") + setting.name + "=";
    return names + ", FIELD=, WEIGHT=, M_WEIGHT=";
}

// The settings of a KEYWD line that holds the keyword at keywordAt: every word of the line but
// the keyword itself. Blanks around "=" are taken out first, so that "ENERGY_UNIT = K" is the
// one word ENERGY_UNIT=K.
std::vector<std::string> settingWords(std::string_view upper, std::size_t keywordAt,
                                      std::size_t keywordLength) {
    std::string text(upper.substr(0, keywordAt));
    text += ' ';
    text += upper.substr(keywordAt + keywordLength);
    text.erase(std::min(text.find('\n'), text.size()));
    std::string joined;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '=') {
            joined += text[i];
            continue;
        }
        while (!joined.empty() && joined.back() == ' ') joined.pop_back();
        joined += '=';
        while (i + 1 < text.size() && text[i + 1] == ' ') ++i;
    }
    std::vector<std::string> words;
    for (std::size_t begin = 0;
         (begin = joined.find_first_not_of(' ', begin)) != std::string::npos;) {
        const std::size_t end = std::min(joined.find(' ', begin), joined.size());
        words.push_back(joined.substr(begin, end - begin));
        begin = end;
    }
    return words;
}

// Reads one file into one document and checks the problem it states; stops at the first
// failure, after its message, which names the file and the line.
class InputReader {
public:
    InputReader(const std::string& path, std::vector<Line> lines, FitDocument& doc)
        : path_(path), lines_(std::move(lines)), doc_(doc) {}

    bool read() {
        doc_.calculationCount = 1;
        // The magnetisation set and its settings belong to this file alone.
        doc_.field = 0.0;
        doc_.weighting = Weighting::Uniform;
        doc_.magnetWeight = 1.0;
        doc_.magnetCount = 0;
        if (!readTitleAndSettings() || !readJValues() || !readSites() || !readInteractions() ||
            !readPairs() || !readMagnetPoints())
            return false;
        Calculation& calc = doc_.calculations[slot(1)];
        calc.firstPair = 1;
        calc.lastPair = doc_.pairCount;
        return checkProblem();
    }

private:
    // Calls handle(line, keyword position) for every statement of one kind: a line that holds
    // the keyword and is neither skipped (empty, or a comment) nor a title line. Stops when
    // handle returns false.
    template <typename Handle> bool forEachStatement(std::string_view keyword, Handle handle) {
        for (const Line& line : lines_) {
            if (isSkipped(line) || isTitleLine(line)) continue;
            const std::size_t at = line.upper.find(keyword);
            if (at != std::string::npos && !handle(line, at)) return false;
        }
        return true;
    }

    bool fail(const std::string& message) {
        showError(message, mbOk);
        return false;
    }

    bool failAt(int line, const std::string& what) {
        return fail(formatC("%s, line %d: %s", path_.c_str(), line, what.c_str()));
    }

    // A real value that must be present, a finite number and within what the report prints.
    bool real(const Line& line, std::string_view text, const char* what, double& value) {
        const std::string quoted = shown(text);
        if (text.empty()) return failAt(line.line, formatC("%s is missing.", what));
        if (!parseReal(text, value))
            return failAt(line.line, formatC("%s \"%s\" is not a number.", what, quoted.c_str()));
        if (std::fabs(value) > maxValueMagnitude)
            return failAt(line.line, formatC("%s %s is too large; values up to %.0f are "
                                             "accepted.",
                                             what, quoted.c_str(), maxValueMagnitude));
        return true;
    }

    bool integer(const Line& line, std::string_view text, const char* what, int& value) {
        const std::string quoted = shown(text);
        if (text.empty()) return failAt(line.line, formatC("%s is missing.", what));
        if (!parseInteger(text, value))
            return failAt(line.line, formatC("%s \"%s\" is not a whole number in range.", what,
                                             quoted.c_str()));
        return true;
    }

    bool readTitleAndSettings() {
        constexpr std::size_t titleColumn = 6; // "TITLE" and one separator are dropped
        constexpr std::string_view keyword = "KEYWD";
        for (const Line& line : lines_) {
            if (isSkipped(line)) continue;
            if (isTitleLine(line)) {
                std::string_view title = line.text;
                title = title.substr(std::min(titleColumn, title.size()));
                title = title.substr(0, title.find('\n'));
                for (const char c : title)
                    if (isControl(static_cast<unsigned char>(c)))
                        return failAt(
                            line.line,
                            formatC("The title holds the control character 0x%02X; a "
                                    "title is plain text.",
                                    static_cast<unsigned>(static_cast<unsigned char>(c))));
                doc_.title = utf8Prefix(title, static_cast<std::size_t>(maxTitleLength));
            } else if (const std::size_t at = line.upper.find(keyword);
                       at != std::string::npos && !applySettings(line, at, keyword.size())) {
                return false;
            }
        }
        return true;
    }

    // Applies the settings of a KEYWD line in the order they are written; a setting given again
    // replaces what was given before. Every word must be a known setting with a value.
    bool applySettings(const Line& line, std::size_t at, std::size_t keywordLength) {
        for (const std::string& word : settingWords(line.upper, at, keywordLength)) {
            const std::size_t equals = word.find('=');
            const std::string name = word.substr(0, equals);
            const std::string_view value = equals == std::string::npos
                                               ? std::string_view{}
                                               : std::string_view(word).substr(equals + 1);
            const std::string label = name + "=";
            const RealSetting* number = nullptr;
            for (const RealSetting& setting : realSettings)
                if (name == setting.name) number = &setting;
            const bool known = number != nullptr || name == "DATA_FILE" || name == "ENERGY_UNIT" ||
                               name == "FIELD" || name == "WEIGHT" || name == "M_WEIGHT";
            if (equals == std::string::npos || !known)
                return failAt(line.line,
                              formatC("\"%s\" is not a setting; a KEYWD line holds settings "
                                      "written NAME=VALUE, with the names %s.",
                                      shown(word).c_str(), settingNames().c_str()));
            if (value.empty())
                return failAt(line.line, formatC("The value of %s is missing.", label.c_str()));
            if (name == "DATA_FILE") {
                doc_.dataKind =
                    value.find("XTT") != std::string_view::npos ? DataKind::ChiT : DataKind::Chi;
            } else if (name == "ENERGY_UNIT") {
                if (!applyUnit(line, value)) return false;
            } else if (name == "FIELD" || name == "WEIGHT" || name == "M_WEIGHT") {
                if (!applyMagnetSetting(line, name, value)) return false;
            } else if (!applyReal(line, *number, value)) {
                return false;
            }
        }
        return true;
    }

    bool applyUnit(const Line& line, std::string_view value) {
        for (int unit = 0; unit < energyUnitCount; ++unit)
            if (value == upperCopy(energyUnitNames[static_cast<std::size_t>(unit)])) {
                doc_.energyUnit = static_cast<EnergyUnit>(unit);
                return true;
            }
        return failAt(line.line, formatC("ENERGY_UNIT=%s is not a unit; the energy unit is CM-1, "
                                         "MEV or K.",
                                         shown(value).c_str()));
    }

    // FIELD= (tesla, 0 for the zero-field limit), WEIGHT=UNIFORM|RELATIVE and M_WEIGHT= (0 or
    // more): settings of the problem, not of a calculation.
    bool applyMagnetSetting(const Line& line, const std::string& name, std::string_view value) {
        const std::string written = shown(value);
        if (name == "WEIGHT") {
            if (value == "UNIFORM" || value == "RELATIVE") {
                doc_.weighting = value == "RELATIVE" ? Weighting::Relative : Weighting::Uniform;
                return true;
            }
            return failAt(line.line, formatC("WEIGHT=%s is not a weighting; the residuals of the "
                                             "chi data count UNIFORM (as they are) or RELATIVE "
                                             "(to the observed values).",
                                             written.c_str()));
        }
        double number = 0;
        if (!real(line, value, ("The value of " + name + "=").c_str(), number)) return false;
        if (name == "FIELD") {
            if (number < 0 || number > maxFieldTesla)
                return failAt(line.line,
                              formatC("FIELD=%s: the field of the chi data is given in tesla, "
                                      "from 0 (the zero-field limit) to %g T.",
                                      written.c_str(), maxFieldTesla));
            doc_.field = number;
        } else {
            if (number < 0 || number > maxMagnetWeight)
                return failAt(line.line, formatC("M_WEIGHT=%s: the weight of the magnetization "
                                                 "data is from 0 to %g.",
                                                 written.c_str(), maxMagnetWeight));
            doc_.magnetWeight = number;
        }
        return true;
    }

    bool applyReal(const Line& line, const RealSetting& setting, std::string_view value) {
        const std::string label = std::string(setting.name) + "=";
        double& field = setting.field(doc_.calculations[slot(1)]);
        if (!real(line, value, ("The value of " + label).c_str(), field)) return false;
        const std::string written = shown(value);
        if (label == "PRECISION=" && field < 0)
            return failAt(line.line, formatC("PRECISION=%s: the convergence tolerance cannot be "
                                             "negative.",
                                             written.c_str()));
        if (label == "G_START=") {
            if (!(field > 0))
                return failAt(line.line, formatC("G_START=%s: the starting value of g must be "
                                                 "above 0.",
                                                 written.c_str()));
            gStartGiven_ = true;
        }
        return true;
    }

    // The number after J_VALUE or SPIN_ON_SITE: a whole number from 1 to limit. Above the
    // limit, the limit's own message.
    bool statementNumber(const Line& line, std::string_view digits, const char* keyword, int limit,
                         const std::string& limitMessage, int& count, int& n) {
        const std::string quoted = shown(digits);
        if (!parseInteger(digits, n)) {
            if (isDigits(digits)) return failAt(line.line, limitMessage); // beyond any int
            return failAt(line.line, formatC("%s must be followed directly by its number, as "
                                             "in %s1; this line has \"%s\".",
                                             keyword, keyword, quoted.c_str()));
        }
        if (n > limit) return failAt(line.line, limitMessage);
        if (n < 1) return failAt(line.line, formatC("%s%d: numbers start at 1.", keyword, n));
        count = n;
        return true;
    }

    bool readJValues() {
        doc_.jCount = 0;
        constexpr std::string_view keyword = "J_VALUE";
        return forEachStatement(
                   keyword,
                   [&](const Line& line, std::size_t at) {
                       int n = 0;
                       if (!statementNumber(
                               line, numberAfterKeyword(line.upper, at + keyword.size()), "J_VALUE",
                               maxJValues, formatC("Maximum J values are %d !", maxJValues), doc_.jCount, n))
                           return false;
                       FitParameter& j = doc_.calculations[slot(1)].j[slot(n)];
                       jLines_[slot(n)] = line.line;
                       return real(line, token(line.upper, at, 2), "The starting value", j.start) &&
                              real(line, token(line.upper, at, 3), "The step", j.step);
                   }) &&
               checkOrder(jLines_, doc_.jCount, "J_VALUE", "J values");
    }

    bool readSites() {
        doc_.siteCount = 0;
        constexpr std::string_view keyword = "SPIN_ON_SITE";
        return forEachStatement(
                   keyword,
                   [&](const Line& line, std::size_t at) {
                       int n = 0;
                       if (!statementNumber(line,
                                            numberAfterKeyword(line.upper, at + keyword.size()),
                                            "SPIN_ON_SITE", maxSites,
                                            formatC("Maximum spin sites are %d !", maxSites),
                                            doc_.siteCount, n))
                           return false;
                       int& spin = doc_.sites[slot(n)].spin;
                       if (!integer(line, token(line.upper, at, 2), "The spin (2S)", spin))
                           return false;
                       if (spin < 1 || spin > maxTwiceSpin)
                           return failAt(line.line,
                                         formatC("site %d has spin %d; a spin is given as 2S, "
                                                 "from 1 (S = 1/2) to %d (S = %d).",
                                                 n, spin, maxTwiceSpin, maxTwiceSpin / 2));
                       siteLines_[slot(n)] = line.line;
                       return true;
                   }) &&
               checkOrder(siteLines_, doc_.siteCount, "SPIN_ON_SITE", "sites");
    }

    // Sites and J values are counted by the last line of their kind; one given beyond that
    // would be lost.
    template <std::size_t size>
    bool checkOrder(const std::array<int, size>& lines, int count, const char* keyword,
                    const char* what) {
        for (int k = count + 1; k <= static_cast<int>(size); ++k)
            if (lines[slot(k)] != 0)
                return failAt(lines[slot(k)],
                              formatC("%s%d is given before %s%d, the last such line; give the "
                                      "%s in rising order.",
                                      keyword, k, keyword, count, what));
        return true;
    }

    bool readInteractions() {
        doc_.interactionCount = 0;
        return forEachStatement("INTERACTION", [&](const Line& line, std::size_t at) {
            const int n = ++doc_.interactionCount;
            if (n > maxInteractions) return failAt(line.line, formatC("Maximum interractions are %d !", maxInteractions));
            Interaction& path = doc_.interactions[slot(n)];
            interactionLines_[slot(n)] = line.line;
            std::string_view label = token(line.upper, at, 8); // "J2": the letter is dropped
            if (!label.empty()) label.remove_prefix(1);
            int j = 0;
            if (!integer(line, token(line.upper, at, 3), "The first site", path.siteA) ||
                !integer(line, token(line.upper, at, 5), "The second site", path.siteB) ||
                !integer(line, label, "The J number (after the letter J)", j))
                return false;
            if (j < 1 || j > maxJValues)
                return failAt(line.line,
                              formatC("J%d: J values are numbered from 1 to %d.", j, maxJValues));
            path.parameterIndex = j + fixedParameterCount;
            return true;
        });
    }

    bool readPairs() {
        doc_.pairCount = 0;
        return forEachStatement("T_CHI", [&](const Line& line, std::size_t at) {
            const int n = ++doc_.pairCount;
            if (n > maxPairs) return failAt(line.line, formatC("Maximum Chi-T pairs are %d !", maxPairs));
            DataPair& pair = doc_.pairs[slot(n)];
            if (!real(line, token(line.upper, at, 2), "The temperature", pair.temperature) ||
                !real(line, token(line.upper, at, 3), "The observed value", pair.observed))
                return false;
            if (pair.temperature <= 0) return failAt(line.line, "temperatures must be above 0 K.");
            return true;
        });
    }

    bool readMagnetPoints() {
        doc_.magnetCount = 0;
        return forEachStatement("T_H_M", [&](const Line& line, std::size_t at) {
            const int n = ++doc_.magnetCount;
            if (n > maxMagnetPoints)
                return failAt(line.line, formatC("Maximum magnetization points are %d !",
                                                 maxMagnetPoints));
            MagnetPoint& point = doc_.magnetPoints[slot(n)];
            if (!real(line, token(line.upper, at, 2), "The temperature", point.temperature) ||
                !real(line, token(line.upper, at, 3), "The field", point.field) ||
                !real(line, token(line.upper, at, 4), "The magnetization", point.observed))
                return false;
            if (point.temperature <= 0) return failAt(line.line, "temperatures must be above 0 K.");
            if (!(point.field > 0) || point.field > maxFieldTesla)
                return failAt(line.line,
                              formatC("the field %s is outside 0 to %g T; T_H_M lines give the "
                                      "temperature in K, the field in T and the magnetization "
                                      "in N muB.",
                                      shown(token(line.text, at, 3)).c_str(), maxFieldTesla));
            return true;
        });
    }

    // The problem as a whole: every site and J value stated, every path between two different
    // sites of the problem with a J value of the problem, and something to fit.
    bool checkProblem() {
        const std::string file = path_;
        if (doc_.siteCount == 0)
            return fail(file + ": no spin site is given (SPIN_ON_SITE1 2S, ...).");
        if (doc_.pairCount == 0)
            return fail(file + ": no data pair is given (T_CHI T value, ...).");
        for (int s = 1; s <= doc_.siteCount; ++s)
            if (siteLines_[slot(s)] == 0)
                return fail(formatC("%s: site %d has no spin; there is no SPIN_ON_SITE%d line, "
                                    "but site %d is given.",
                                    file.c_str(), s, s, doc_.siteCount));
        for (int k = 1; k <= doc_.jCount; ++k)
            if (jLines_[slot(k)] == 0)
                return fail(formatC("%s: J%d has no starting value; there is no J_VALUE%d line, "
                                    "but J%d is given.",
                                    file.c_str(), k, k, doc_.jCount));
        for (int n = 1; n <= doc_.interactionCount; ++n) {
            const Interaction& path = doc_.interactions[slot(n)];
            const int line = interactionLines_[slot(n)];
            for (const int site : {path.siteA, path.siteB})
                if (site < 1 || site > doc_.siteCount)
                    return failAt(line, formatC("site %d is not one of the sites 1 to %d.", site,
                                                doc_.siteCount));
            if (path.siteA == path.siteB)
                return failAt(line, formatC("site %d is coupled with itself.", path.siteA));
            const int j = path.parameterIndex - fixedParameterCount;
            if (j > doc_.jCount)
                return failAt(line, doc_.jCount == 0
                                        ? formatC("J%d is used, but no J value is given.", j)
                                        : formatC("J%d is used, but only J1 to J%d are given.", j,
                                                  doc_.jCount));
        }
        // The engine cannot start g from 0, and a g from a file read before is not this one's.
        if (!gStartGiven_)
            return fail(file + ": no G_START= is given; g needs a starting value above 0 "
                               "(KEYWD G_START=2.0).");
        return true;
    }

    const std::string& path_;
    const std::vector<Line> lines_;
    FitDocument& doc_;
    bool gStartGiven_ = false; // a G_START= setting in this file, above 0
    // The line that gave each site, J value and interaction in this file; 0 for none.
    std::array<int, maxSites> siteLines_{};
    std::array<int, maxJValues> jLines_{};
    std::array<int, maxInteractions> interactionLines_{};
};

// The text of a file as the reader takes it: without a UTF-8 byte-order mark, and with tabs as
// blanks, so that tabs separate tokens and settings as blanks do.
std::string readableText(std::string contents) {
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    if (std::string_view(contents).substr(0, 3) == byteOrderMark) contents.erase(0, 3);
    std::replace(contents.begin(), contents.end(), '\t', ' ');
    return contents;
}

} // namespace

bool readInputText(const std::string& contents, const std::string& name, FitDocument& doc) {
    // Read into a copy, so that no half-read problem or count above its limit is ever seen.
    auto scratch = std::make_unique<FitDocument>(doc);
    InputReader reader(name, cutIntoLines(readableText(contents)), *scratch);
    if (!reader.read()) return false;
    doc = *scratch;
    return true;
}

bool readInputFile(const std::string& inputPath, const std::string& engineInputPath,
                   const std::string& chiPath, const std::string& chitPath) {
    std::string contents;
    std::string reason;
    if (!readWholeFile(inputPath, contents, reason, maxInputFileBytes)) {
        showError(formatC("Cannot read %s: %s", inputPath.c_str(), reason.c_str()));
        return false;
    }
    if (!readInputText(contents, inputPath, fitDocument)) return false;
    return writeExchangeFiles(engineInputPath,
                              fitDocument.dataKind == DataKind::Chi ? chiPath : chitPath);
}

} // namespace corvane
