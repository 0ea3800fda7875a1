// Fuzz target: any text read as the engine's output either is rejected or fills the newest
// calculation within the document's limits.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "fit/report.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvane;
    static const auto fresh = [] {
        auto doc = std::make_unique<FitDocument>();
        doc->calculationCount = 1;
        return doc;
    }();
    auto doc = std::make_unique<FitDocument>(*fresh);
    std::string problem;
    if (!readEngineOutput(std::string(reinterpret_cast<const char*>(data), size), *doc, problem))
        return 0;
    const Calculation& calc = doc->calculations[0];
    if (doc->jCount < 0 || doc->jCount > maxJValues || doc->pairCount < 1 ||
        doc->pairCount > maxPairs || calc.firstPair < 1 || calc.firstPair > calc.lastPair ||
        calc.lastPair > doc->pairCount)
        std::abort();
    (void)reportText(*doc, "01/01/2026 00:00:00 AM");
    return 0;
}
