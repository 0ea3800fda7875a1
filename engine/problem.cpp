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

} // namespace corefit
