#include "fit/exchange_files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <stdlib.h>

#include "platform/files.h"
#include "platform/messages.h"
#include "text/text.h"

namespace corvane {

namespace {

void appendParameter(std::string& text, const FitParameter& p) {
    text += formatExact(p.start) + ", " + formatExact(p.step) + "\n";
}

bool hasCalculation(const std::string& path, int c) {
    if (c >= 1 && c <= fitDocument.calculationCount && c <= maxCalculations) return true;
    showError(formatC("Cannot write %s: there is no calculation to fit.", path.c_str()));
    return false;
}

// The engine input file of calculation c and the data exchange file, both or neither.
bool writeBoth(const std::string& engineInputPath, int c, const std::string& dataPath) {
    if (!hasCalculation(engineInputPath, c)) return false;
    const std::string input = engineInputText(fitDocument, c);
    const std::string data = engineDataText(fitDocument);
    std::string failed, reason;
    if (writeWholeFiles({{engineInputPath, input}, {dataPath, data}}, failed, reason)) return true;
    showError(formatC("Cannot write %s: %s", failed.c_str(), reason.c_str()));
    return false;
}

} // namespace

std::string pathIn(const std::string& directory, const char* name) {
    return directory + "/" + name;
}

std::string directoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return path.substr(0, slash);
}

std::string engineInputText(const FitDocument& doc, int c) {
    const Calculation& calc = doc.calculations[slot(c)];
    std::string text =
        formatC("0, %d, %d\n", static_cast<int>(doc.energyUnit), static_cast<int>(doc.dataKind));
    text += formatC("%d\n", doc.siteCount);
    for (int n = 1; n <= doc.siteCount; ++n) text += formatC("%d\n", doc.sites[slot(n)].spin);
    text += formatC("%d, ", doc.jCount + fixedParameterCount) + formatExact(calc.tolerance) + "\n";
    appendParameter(text, calc.g);
    appendParameter(text, calc.c);
    appendParameter(text, calc.zJ);
    appendParameter(text, calc.tip);
    for (int n = 1; n <= doc.jCount; ++n) appendParameter(text, calc.j[slot(n)]);
    for (int n = 1; n <= doc.interactionCount; ++n) {
        const Interaction& path = doc.interactions[slot(n)];
        text += formatC("%d, %d, %d\n", path.siteA, path.siteB, path.parameterIndex);
    }
    return text;
}

std::string engineDataText(const FitDocument& doc) {
    std::string text = formatC("%d, 1, %d\n", doc.pairCount, doc.pairCount);
    for (int n = 1; n <= doc.pairCount; ++n) {
        const DataPair& pair = doc.pairs[slot(n)];
        text += formatExact(pair.temperature) + "  " + formatExact(pair.observed) + "\n";
    }
    // The field, the weighting and the magnetization set follow only where the problem has them.
    if (doc.field != 0) text += "field " + formatExact(doc.field) + "\n";
    if (doc.weighting == Weighting::Relative) text += "weight relative\n";
    if (doc.magnetCount > 0)
        text += formatC("magnetisation %d, 1, %d, ", doc.magnetCount, doc.magnetCount) +
                formatExact(doc.magnetWeight) + "\n";
    for (int n = 1; n <= doc.magnetCount; ++n) {
        const MagnetPoint& point = doc.magnetPoints[slot(n)];
        text += formatExact(point.temperature) + "  " + formatExact(point.field) + "  " +
                formatExact(point.observed) + "\n";
    }
    return text;
}

std::string inWorkDir(const char* name) { return pathIn(runState.workDir, name); }

const char* dataExchangeName(const FitDocument& doc) {
    return doc.dataKind == DataKind::Chi ? chiDataName : chitDataName;
}

bool writeExchangeFiles(const std::string& engineInputPath, const std::string& dataPath) {
    return writeBoth(engineInputPath, fitDocument.calculationCount, dataPath);
}

bool writeDialogEngineInput(int calculation) {
    if (!openRunDirectory()) return false;
    return writeBoth(inWorkDir(engineInputName), calculation + 1,
                     inWorkDir(dataExchangeName(fitDocument)));
}

bool openRunDirectory() {
    std::error_code error;
    std::filesystem::path base = std::filesystem::temp_directory_path(error);
    if (error) base = "/tmp";
    std::string pattern = (base / "corvane-run-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        showError(formatC("Cannot make a folder for the fit in %s: %s.", base.c_str(),
                          std::strerror(errno)));
        return false;
    }
    runState.workDir = runState.runDirectory = pattern;
    return true;
}

void closeRunDirectory(bool keep) {
    if (keep || runState.runDirectory.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(runState.runDirectory, ignored);
    runState.runDirectory.clear();
}

bool isExchangeFile(const std::string& path, const char* name) {
    std::string contents, reason;
    if (!readWholeFile(path, contents, reason, 1 << 20)) return false;
    const std::string first = contents.substr(0, contents.find('\n'));
    int a = 0, b = 0, c = 0;
    char end = 0;
    // input.txt opens with "0, unit, kind"; chi.txt and chit.txt with "pairs, first, last".
    if (std::sscanf(first.c_str(), "%d , %d , %d %c", &a, &b, &c, &end) != 3) return false;
    return std::string_view(name) == engineInputName ? a == 0 && b >= 0 && b <= 2 && c >= 0 && c <= 1
                                                     : a >= 1 && b >= 1 && c >= b && c <= a;
}

} // namespace corvane
