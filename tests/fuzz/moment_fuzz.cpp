// Fuzz target: any text read as a magnetometer's file is refused with a sentence or gives rows of
// finite numbers in the file's order; the chi and magnetization sets then taken by default are
// refused with a sentence or hold rows of the file, the chi set in rising temperature and the
// magnetization set above 0 Oe.
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz_checks.h"
#include "import/moment_file.h"
#include "import/moment_sets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using corvane::fuzz::require;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    corvane::MomentFile file;
    std::string error;
    if (!corvane::readMomentText(text, "fuzz.dat", file, error)) {
        require(!error.empty() && file.rows.empty());
        return 0;
    }
    require(!file.rows.empty());
    int line = 0;
    for (const corvane::MomentRow& row : file.rows) {
        require(std::isfinite(row.temperature) && std::isfinite(row.field) &&
                std::isfinite(row.moment) && row.line > line);
        line = row.line;
    }
    corvane::MomentSet set;
    if (corvane::chiSet(file, std::nullopt, set, error)) {
        require(!set.rows.empty());
        for (std::size_t k = 1; k < set.rows.size(); ++k)
            require(set.rows[k - 1].temperature <= set.rows[k].temperature);
    } else {
        require(!error.empty());
    }
    for (const corvane::Branch branch :
         {corvane::Branch::FirstRising, corvane::Branch::AllPositive}) {
        error.clear();
        if (corvane::magnetSet(file, std::nullopt, branch, set, error)) {
            require(!set.rows.empty());
            for (const corvane::MomentRow& row : set.rows) require(row.field > 0);
        } else {
            require(!error.empty());
        }
    }
    return 0;
}
