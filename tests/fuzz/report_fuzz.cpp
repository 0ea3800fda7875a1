// Fuzz target: any text read as a report either is rejected or leaves a document within its
// limits, whose report can be written again.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "fit/report.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvane;
    static const auto fresh = std::make_unique<FitDocument>();
    auto doc = std::make_unique<FitDocument>(*fresh);
    doc->calculationCount = 0;
    std::string problem;
    if (!readReportText(std::string(reinterpret_cast<const char*>(data), size), *doc, problem))
        return 0;
    if (doc->siteCount < 0 || doc->siteCount > maxSites || doc->interactionCount < 0 ||
        doc->interactionCount > maxInteractions || doc->jCount < 0 || doc->jCount > maxJValues ||
        doc->pairCount < 0 || doc->pairCount > maxPairs || doc->calculationCount < 0 ||
        doc->calculationCount > maxCalculations ||
        doc->title.size() > static_cast<std::size_t>(maxTitleLength))
        std::abort();
    for (int n = 1; n <= doc->calculationCount; ++n) {
        const Calculation& calc = doc->calculations[slot(n)];
        if (calc.firstPair < 1 || calc.lastPair > std::max(doc->pairCount, 1)) std::abort();
    }
    (void)reportText(*doc, "01/01/2026 00:00:00 AM");
    return 0;
}
