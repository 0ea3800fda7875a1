#include "fit/exchange_files.h"

#include "fit/input_file.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "text/text.h"

namespace corvane {

std::string workDir = ".";

namespace {

std::string pathIn(const std::string& directory, const char* name) {
    return directory + "/" + name;
}

void appendParameter(std::string& text, const FitParameter& p) {
    text += formatC("%f, %f\n", p.start, p.step);
}

bool writeExchangeFile(const std::string& path, const std::string& text) {
    std::string reason;
    if (writeWholeFile(path, text, reason)) return true;
    showError(formatC("Cannot write %s: %s", path.c_str(), reason.c_str()));
    return false;
}

bool writeCalculationInput(const std::string& path, int c) {
    if (c < 1 || c > fitDocument.calculationCount || c > maxCalculations) {
        showError(formatC("Cannot write %s: there is no calculation to fit.", path.c_str()));
        return false;
    }
    return writeExchangeFile(path, engineInputText(fitDocument, c));
}

} // namespace

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
    text += formatC("%d, %f\n", doc.jCount + fixedParameterCount, calc.tolerance);
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
        text += formatC("%f  %f\n", pair.temperature, pair.observed);
    }
    return text;
}

bool writeEngineInput(const std::string& engineInputPath) {
    return writeCalculationInput(engineInputPath, fitDocument.calculationCount);
}

bool writeEngineData(const std::string& path) {
    return writeExchangeFile(path, engineDataText(fitDocument));
}

std::string inWorkDir(const char* name) { return pathIn(workDir, name); }

const char* dataExchangeName(const FitDocument& doc) {
    return doc.dataKind == DataKind::Chi ? chiDataName : chitDataName;
}

bool writeDialogEngineInput() {
    return writeCalculationInput(inWorkDir(engineInputName),
                                 fitDocument.currentCalculation + 1) &&
           writeEngineData(inWorkDir(dataExchangeName(fitDocument)));
}

bool prepareRun(const std::string& inputPath) {
    const std::string directory = directoryOf(inputPath);
    const std::string engineInputPath = pathIn(directory, engineInputName);
    const std::string chiPath = pathIn(directory, chiDataName);
    const std::string chitPath = pathIn(directory, chitDataName);
    for (const std::string* path : {&engineInputPath, &chiPath, &chitPath}) {
        if (fileExists(*path)) removeFile(*path);
    }
    return readInputFile(inputPath, engineInputPath, chiPath, chitPath);
}

} // namespace corvane
