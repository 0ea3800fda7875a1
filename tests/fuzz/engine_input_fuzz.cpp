// Fuzz target: any two texts read as the engine's input file and its data file are either refused
// with one line naming the file, or give a problem within the engine's limits, whose size the
// engine can estimate. The bytes are split at the first "\n===\n": input.txt before, chit.txt
// after.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "problem_io.h"
#include "spectrum.h"

namespace {

bool finite(double value) { return std::isfinite(value); }

bool withinLimits(const corefit::Problem& problem) {
    using namespace corefit;
    const int sites = problem.siteCount(), jCount = problem.jCount();
    if (sites < 1 || sites > maxSites || jCount < 0 || jCount > maxJValues) return false;
    for (int twiceSpin : problem.twiceSpin)
        if (twiceSpin < 1 || twiceSpin > maxTwiceSpin) return false;
    if (!(problem.tolerance > 0) || !finite(problem.tolerance)) return false;
    for (const Parameter& parameter : problem.parameters)
        if (!finite(parameter.start) || !finite(parameter.step)) return false;
    for (const Bond& bond : problem.bonds)
        if (bond.a < 0 || bond.a >= sites || bond.b < 0 || bond.b >= sites || bond.a == bond.b ||
            bond.j < 0 || bond.j >= jCount)
            return false;
    // No pairs only with a magnetisation set; pairs and points within their limits and ranges.
    const int points = static_cast<int>(problem.points.size());
    const int magnet = static_cast<int>(problem.magnetisation.size());
    if (points == 0 ? magnet < 1
                    : points > maxPoints || problem.first < 1 || problem.first > problem.last ||
                          problem.last > points)
        return false;
    if (magnet > maxMagnetisationPoints ||
        (magnet > 0 && (problem.magnetisationFirst < 1 ||
                        problem.magnetisationFirst > problem.magnetisationLast ||
                        problem.magnetisationLast > magnet)))
        return false;
    for (const MagnetisationPoint& point : problem.magnetisation)
        if (!(point.temperature > 0) || !(point.field > 0) || point.field > maxField ||
            !finite(point.observed))
            return false;
    for (const Point& point : problem.points)
        if (!(point.temperature > 0) || !finite(point.temperature) || !finite(point.observed))
            return false;
    return true;
}

// The estimate of every method: counts positive and finite, never wrapped.
bool estimable(const corefit::Problem& problem) {
    using namespace corefit;
    const SpinSystem system{problem.twiceSpin, problem.bonds, problem.jCount()};
    for (Method method : {Method::SBlocks, Method::MBlocks, Method::Full}) {
        const Plan plan = planSpectrum(system, method, 2);
        if (!(plan.dimension >= 1) || !finite(plan.dimension) || plan.blockSizes.empty() ||
            !(plan.largestBlock >= 1) || plan.largestBlock > plan.dimension ||
            !finite(plan.bytes) || !finite(plan.secondsPerSlopes))
            return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::size_t cut = text.find("\n===\n");
    const std::string input = text.substr(0, cut);
    const std::string chi = cut == std::string::npos ? std::string() : text.substr(cut + 5);
    corefit::Problem problem;
    std::string error;
    if (!corefit::readProblemText(input, chi, "input.txt", "chit.txt", problem, error)) {
        const bool named = error.rfind("input.txt", 0) == 0 || error.rfind("chit.txt", 0) == 0;
        if (!named || error.find('\n') != std::string::npos) std::abort();
        return 0;
    }
    if (!withinLimits(problem) || !estimable(problem)) std::abort();
    return 0;
}
