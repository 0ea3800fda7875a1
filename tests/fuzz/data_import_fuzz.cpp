// Fuzz target: any text imported as measured data, in any value column, is refused with a
// sentence or gives data lines that each have a temperature field, within the line limit, with
// every line counted once as data or as skipped.
#include <cstdint>
#include <string>
#include <string_view>

#include "data_import.h"
#include "fuzz_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    // The first byte picks the value column (1 to 8), the rest is the file.
    const int column = 1 + data[0] % 8;
    const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
    newqpi::ImportedData imported;
    std::string error;
    if (!newqpi::importData(text, column, imported, error)) {
        corvane::fuzz::require(!error.empty());
        return 0;
    }
    corvane::fuzz::require(!imported.pairs.empty() &&
                           imported.pairs.size() <= newqpi::maxImportedLines);
    corvane::fuzz::require(imported.skippedLines >= 0 && imported.columns >= 1);
    for (const newqpi::PairText& pair : imported.pairs)
        corvane::fuzz::require(!pair.temperature.empty());
    return 0;
}
