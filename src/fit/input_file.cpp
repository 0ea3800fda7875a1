#include "fit/input_file.h"

#include <algorithm>
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

using Piece = LinePiece;

// Token n (from 1) of the statement that starts at `from` in the upper-case text: the text is
// cut at its newline and split at runs of blanks (tabs are not separators). A missing token
// is empty, which reads as 0.
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

// The number written directly after a keyword (J_VALUE10, SPIN_ON_SITE3): read from the next
// character and, unless it is a blank, the one after it.
int numberAfterKeyword(std::string_view upper, std::size_t keywordEnd) {
    std::string_view digits = upper.substr(std::min(keywordEnd, upper.size()), 2);
    if (digits.size() == 2 && digits[1] == ' ') digits.remove_suffix(1);
    return readLeadingInteger(digits);
}

// [SECTION] Statements

struct RealSetting {
    const char* name; // with its leading blank: " G_START=" is found only after a blank
    double& (*field)(Calculation&);
};

#define CORVANE_FIELD(member) [](Calculation& calc) -> double& { return calc.member; }
const RealSetting realSettings[] = {
    {" PRECISION=", CORVANE_FIELD(tolerance)}, {" G_START=", CORVANE_FIELD(g.start)},
    {" G_STEP=", CORVANE_FIELD(g.step)},       {" C_START=", CORVANE_FIELD(c.start)},
    {" C_STEP=", CORVANE_FIELD(c.step)},       {" ZJ_START=", CORVANE_FIELD(zJ.start)},
    {" ZJ_STEP=", CORVANE_FIELD(zJ.step)},     {" XTIP_START=", CORVANE_FIELD(tip.start)},
    {" XTIP_STEP=", CORVANE_FIELD(tip.step)},
};
#undef CORVANE_FIELD

// Applies every setting of a KEYWD line, in the fixed order of the settings.
void applySettings(std::string_view upper, FitDocument& doc) {
    constexpr auto npos = std::string_view::npos;
    if (upper.find(" DATA_FILE=") != npos) {
        doc.dataKind = upper.find("XTT") != npos ? DataKind::ChiT : DataKind::Chi;
    }
    if (upper.find(" ENERGY_UNIT=") != npos) {
        doc.energyUnit = EnergyUnit::Cm1;
        if (upper.find("=CM-1") != npos) doc.energyUnit = EnergyUnit::Cm1;
        if (upper.find("=MEV") != npos) doc.energyUnit = EnergyUnit::MeV;
        if (upper.find("=K") != npos) doc.energyUnit = EnergyUnit::Kelvin;
    }
    Calculation& calc = doc.calculations[slot(1)];
    for (const RealSetting& setting : realSettings) {
        const std::string_view name = setting.name;
        const std::size_t at = upper.find(name);
        if (at == npos) continue;
        std::string_view value = upper.substr(at + name.size());
        value = value.substr(0, value.find_first_of(" \n"));
        setting.field(calc) = readLeadingReal(value);
    }
}

// Reads one file into one document; stops at the first failure, after its message.
class InputReader {
public:
    InputReader(const std::string& path, std::vector<Piece> pieces, FitDocument& doc)
        : path_(path), pieces_(std::move(pieces)), doc_(doc) {}

    bool read() {
        doc_.calculationCount = 1;
        readTitleAndSettings();
        if (!readJValues() || !readSites() || !readInteractions() || !readPairs()) return false;
        Calculation& calc = doc_.calculations[slot(1)];
        calc.firstPair = 1;
        calc.lastPair = doc_.pairCount;
        return true;
    }

private:
    // Calls handle(piece, keyword position) for every statement of one kind. A statement is a
    // line that is not skipped and holds the keyword; the lines that directly follow it are
    // tested for the keyword only, so a run of such lines is read whole even where one of
    // them holds a "!". Stops when handle returns false.
    template <typename Handle> bool forEachStatement(std::string_view keyword, Handle handle) {
        bool inRun = false;
        for (const Piece& piece : pieces_) {
            const std::size_t at = piece.upper.find(keyword);
            inRun = at != std::string::npos && (inRun || !isSkipped(piece));
            if (inRun && !handle(piece, at)) return false;
        }
        return true;
    }

    bool fail(const std::string& message) {
        showError(message, mbOk);
        return false;
    }

    bool failNumberedFromOne(const Piece& piece, const char* what, int number) {
        return fail(formatC("%s, line %d: %s are numbered from 1, but this line gives %d.",
                            path_.c_str(), piece.line, what, number));
    }

    void readTitleAndSettings() {
        constexpr std::size_t titleColumn = 6; // "TITLE" and one separator are dropped
        for (const Piece& piece : pieces_) {
            if (isSkipped(piece)) continue;
            if (piece.upper.find("TITLE") != std::string::npos) {
                std::string_view title = piece.text;
                title = title.substr(std::min(titleColumn, title.size()));
                title = title.substr(0, title.find('\n'));
                doc_.title = title.substr(0, maxTitleLength);
            }
            if (piece.upper.find("KEYWD") != std::string::npos) applySettings(piece.upper, doc_);
        }
    }

    bool readJValues() {
        doc_.jCount = 0;
        constexpr std::string_view keyword = "J_VALUE";
        return forEachStatement(keyword, [&](const Piece& piece, std::size_t at) {
            const int n = numberAfterKeyword(piece.upper, at + keyword.size());
            doc_.jCount = n;
            if (n > maxJValues) return fail("Maximum J values are 10 !");
            if (n < 1) return failNumberedFromOne(piece, "J values", n);
            FitParameter& j = doc_.calculations[slot(1)].j[slot(n)];
            j.start = readLeadingReal(token(piece.upper, at, 2));
            j.step = readLeadingReal(token(piece.upper, at, 3));
            return true;
        });
    }

    bool readSites() {
        doc_.siteCount = 0;
        constexpr std::string_view keyword = "SPIN_ON_SITE";
        return forEachStatement(keyword, [&](const Piece& piece, std::size_t at) {
            const int n = numberAfterKeyword(piece.upper, at + keyword.size());
            doc_.siteCount = n;
            if (n > maxSites) return fail("Maximum spin sites are 20 !");
            if (n < 1) return failNumberedFromOne(piece, "spin sites", n);
            doc_.sites[slot(n)].spin = readLeadingInteger(token(piece.upper, at, 2));
            return true;
        });
    }

    bool readInteractions() {
        doc_.interactionCount = 0;
        return forEachStatement("INTERACTION", [&](const Piece& piece, std::size_t at) {
            const int n = ++doc_.interactionCount;
            if (n > maxInteractions) return fail("Maximum interractions are 100 !");
            Interaction& path = doc_.interactions[slot(n)];
            path.siteA = readLeadingInteger(token(piece.upper, at, 3));
            path.siteB = readLeadingInteger(token(piece.upper, at, 5));
            std::string_view label = token(piece.upper, at, 8); // "J2": the letter is dropped
            if (!label.empty()) label.remove_prefix(1);
            path.parameterIndex = readLeadingInteger(label) + fixedParameterCount;
            return true;
        });
    }

    bool readPairs() {
        doc_.pairCount = 0;
        return forEachStatement("T_CHI", [&](const Piece& piece, std::size_t at) {
            const int n = ++doc_.pairCount;
            if (n > maxPairs) return fail("Maximum Chi-T pairs are 1000 !");
            DataPair& pair = doc_.pairs[slot(n)];
            pair.temperature = readLeadingReal(token(piece.upper, at, 2));
            pair.observed = readLeadingReal(token(piece.upper, at, 3));
            return true;
        });
    }

    const std::string& path_;
    const std::vector<Piece> pieces_;
    FitDocument& doc_;
};

} // namespace

bool readInputFile(const std::string& inputPath, const std::string& engineInputPath,
                   const std::string& chiPath, const std::string& chitPath) {
    std::string contents;
    std::string reason;
    if (!readWholeFile(inputPath, contents, reason)) {
        showError(formatC("Cannot open %s: %s", inputPath.c_str(), reason.c_str()));
        return false;
    }
    // Read into a copy, so that no half-read problem or count above its limit is ever seen.
    auto scratch = std::make_unique<FitDocument>(fitDocument);
    if (!InputReader(inputPath, cutIntoPieces(contents, inputLineLength), *scratch).read()) return false;
    fitDocument = *scratch;

    if (!writeEngineInput(engineInputPath)) return false;
    return writeEngineData(fitDocument.dataKind == DataKind::Chi ? chiPath : chitPath);
}

} // namespace corvane
