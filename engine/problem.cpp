#include "problem.h"

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

} // namespace corefit
