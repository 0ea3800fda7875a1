// Fuzz target: any text read as the engine's output either is rejected or fills the newest
// calculation within the document's limits. The document is given the problem the output
// claims to be of (its counts and pairs, read leniently), so that the checks of the reader
// beyond "another problem" are reached.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

#include "fit/line_pieces.h"
#include "fit/report.h"
#include "fuzz_checks.h"
#include "text/text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvane;
    const std::string text(reinterpret_cast<const char*>(data), size);
    static const auto fresh = std::make_unique<FitDocument>();
    auto doc = std::make_unique<FitDocument>(*fresh);
    doc->calculationCount = 1;
    doc->interactionCount = 0;
    doc->sites[0].spin = 1;
    const std::vector<LinePiece> lines = cutIntoPieces(text, engineLineLength);
    const auto at = [&](std::size_t line, int n) {
        return line <= lines.size() ? word(lines[line - 1].text, n) : std::string_view{};
    };
    doc->jCount = std::clamp(readLeadingInteger(at(4, 1)), 0, maxJValues);
    doc->pairCount = std::clamp(readLeadingInteger(at(6, 1)), 1, maxPairs);
    for (int i = 1; i <= doc->pairCount; ++i)
        doc->pairs[slot(i)] = {readLeadingReal(at(6 + static_cast<std::size_t>(i), 1)),
                               readLeadingReal(at(6 + static_cast<std::size_t>(i), 3))};
    std::string problem;
    if (!readEngineOutput(text, *doc, problem)) return 0;
    fuzz::checkDocument(*doc);
    return 0;
}
