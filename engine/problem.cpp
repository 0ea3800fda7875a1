#include "problem.h"

#include <cmath>

namespace corefit {

double kelvinPer(EnergyUnit unit) {
    switch (unit) {
    case EnergyUnit::Cm1:
        return kelvinPerCm1;
    case EnergyUnit::MeV:
        return kelvinPerMeV;
    case EnergyUnit::Kelvin:
        break;
    }
    return 1.0;
}

const char* unitName(EnergyUnit unit) {
    switch (unit) {
    case EnergyUnit::Cm1:
        return "cm-1";
    case EnergyUnit::MeV:
        return "meV";
    case EnergyUnit::Kelvin:
        break;
    }
    return "K";
}

std::string parameterName(int index) {
    static const char* const fixedNames[] = {"g", "C", "zJ", "Xtip"};
    if (index < firstJIndex) return fixedNames[index];
    std::string name = std::to_string(index - firstJIndex + 1);
    name.insert(0, 1, 'J');
    return name;
}

namespace {

template <class Points> double rootMeanSquare(const Points& points, int first, int last) {
    double sum = 0;
    for (int i = first; i <= last; ++i) {
        const double value = points[static_cast<std::size_t>(i - 1)].observed;
        sum += value * value;
    }
    return last >= first ? std::sqrt(sum / (last - first + 1)) : 0.0;
}

} // namespace

double observedSize(const Problem& problem) {
    return rootMeanSquare(problem.points, problem.first, problem.last);
}

double observedMagnetisationSize(const Problem& problem) {
    return rootMeanSquare(problem.magnetisation, problem.magnetisationFirst,
                          problem.magnetisationLast);
}

} // namespace corefit
