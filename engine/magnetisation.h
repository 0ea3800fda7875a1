// The magnetisation of the cluster in a field: its levels split by the Zeeman term, the mean field
// solved self-consistently, and the impurity and TIP terms.
//
// The Zeeman term -g mu_B B M commutes with the isotropic exchange Hamiltonian, so the levels in
// a field are E - h M, h = g mu_B B / k_B in kelvin, over the M of each level's states (see
// Levels). The sums run relative to the lowest E - h M, with closed forms per multiplet, so that
// large h / T (B = 7 T at T = 2 K, S up to 100) neither overflow nor lose the small ones.
#pragma once

#include <vector>

#include "spectrum.h"

namespace corefit {

// <M> of the cluster at reduced field h (kelvin) and temperature t (kelvin), in the Boltzmann
// weights of E - h M; its variance <M^2> - <M>^2 (= t d<M>/dh; at h = 0 it is <M^2>); and, with
// slopes, d<M>/dJ_k at fixed h for each J whose slopes the levels carry (0 for the others).
struct ThermalMagnetisation {
    double value = 0, variance = 0;
    std::vector<double> slope;
};
ThermalMagnetisation thermalMagnetisation(const Levels& levels, double h, double t,
                                          bool slopes = false);

// FTLM: <M> at h and t with each random vector left out in turn (R estimates from R - 1 vectors
// each); empty for levels that are all exact.
std::vector<double> thermalMagnetisationJackknife(const Levels& levels, double h, double t);

// The molar magnetisation in N muB (Bohr magnetons per formula unit) at a field in tesla and a
// temperature t, with g, C (cm3 K mol-1), zJ (kelvin) and Xtip (cm3 mol-1):
//   M = g <M>(h_eff) + (C / C0) tanh(mu_B B / k_B T) + Xtip B 1e4 / (N mu_B),
// h_eff = g mu_B B / k_B + 2 zJ <M>(h_eff), solved by Newton on s = <M> on the branch that joins
// the zero-field solution (the least root for zJ > 0). Its low-field limit, divided by B, is
// chi = C0 g^2 <M^2> / (T - 2 zJ <M^2>) + C / T + Xtip.
struct Magnetisation {
    double total = 0;                         // N muB
    double dg = 0, dC = 0, dzJ = 0, dTip = 0; // d total / d parameter, zJ per kelvin
    // d total / d<M> at fixed h_eff, through the mean field: g / (1 - 2 zJ d<M>/dh). Times the
    // change of <M> with J at fixed field, it gives d total / dJ.
    double dMoment = 0;
    double field = 0;             // h_eff, kelvin
    ThermalMagnetisation cluster; // at h_eff, with slopes when they were asked for
};
enum class FieldFault {
    None,
    Pole,    // zJ > 0 puts the pole of the mean field above t: T - 2 zJ <M^2> <= 0 at zero field
    Unstable // no stable solution of the mean field (g <= 0, or d<M>/dh past 1 / 2zJ)
};
FieldFault magnetisation(const Levels& levels, double t, double tesla, double g, double c,
                         double zjKelvin, double tip, bool slopes, Magnetisation& out);

// The factor from the molar magnetisation in N muB at a field in tesla to chi in cm3 mol-1:
// N mu_B / (B 1e4).
inline double chiPerMagnetisation(double tesla) { return molarBohr / (tesla * 1e4); }

} // namespace corefit
