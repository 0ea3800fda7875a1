// Fuzz target: any text read as a report either is rejected or leaves a document within its
// limits, whose report can be written and read again.
#include <cstdint>
#include <memory>
#include <string>

#include "fit/report.h"
#include "fuzz_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvane;
    static const auto fresh = std::make_unique<FitDocument>();
    auto doc = std::make_unique<FitDocument>(*fresh);
    doc->calculationCount = 0;
    std::string problem;
    if (!readReportText(std::string(reinterpret_cast<const char*>(data), size), *doc, problem))
        return 0;
    fuzz::checkDocument(*doc);
    auto again = std::make_unique<FitDocument>(*fresh);
    again->calculationCount = 0;
    const std::string report = reportText(*doc, "d");
    fuzz::require(readReportText(report, *again, problem));
    fuzz::require(reportText(*again, "d") == report);
    return 0;
}
