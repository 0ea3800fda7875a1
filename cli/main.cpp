// corvane-fit: the fitting work of Corvane without a window.
//
//   corvane-fit prepare FILE.qpi   reads a fitting input file and writes the engine's exchange
//                                  files beside it, ready for the fitting engine
//
// Messages go to the standard error stream; a failure gives a non-zero exit code.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "fit/exchange_files.h"
#include "fit/fit_document.h"

namespace {

using namespace corvane;

const char* plural(int n, const char* one, const char* many) { return n == 1 ? one : many; }

// What the file held, in one line, so that a user sees at once whether it was understood.
void printSummary(const std::string& inputPath) {
    const FitDocument& doc = fitDocument;
    std::printf("Read %s: \"%s\"\n", inputPath.c_str(), doc.title.c_str());
    std::printf("  %d %s, %d %s, %d %s, %d %s pairs, energies in %s\n", doc.siteCount,
                plural(doc.siteCount, "site", "sites"), doc.interactionCount,
                plural(doc.interactionCount, "interaction", "interactions"), doc.jCount,
                plural(doc.jCount, "J value", "J values"), doc.pairCount,
                dataKindNames[static_cast<std::size_t>(doc.dataKind)],
                energyUnitNames[static_cast<std::size_t>(doc.energyUnit)]);
}

int prepareCommand(const std::string& inputPath) {
    if (!prepareRun(inputPath)) return 1;
    printSummary(inputPath);
    const char* dataName = fitDocument.dataKind == DataKind::Chi ? chiDataName : chitDataName;
    std::printf("Wrote %s/%s\n", exchangeDirectory.c_str(), engineInputName);
    std::printf("Wrote %s/%s\n", exchangeDirectory.c_str(), dataName);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Corvane: fit the magnetic susceptibility of exchange-coupled spin clusters."};
    app.set_version_flag("--version", std::string("corvane-fit ") + CORVANE_VERSION);
    app.require_subcommand(1);

    std::string inputPath;
    CLI::App* prepare = app.add_subcommand(
        "prepare", "Read a fitting input file and write the engine's exchange files beside it.");
    prepare->add_option("FILE", inputPath, "fitting input file (.qpi)")->required();

    CLI11_PARSE(app, argc, argv);

    resetFitDocument();
    if (prepare->parsed()) return prepareCommand(inputPath);
    return 0;
}
