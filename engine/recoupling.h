// Angular momentum coupling for the spin-coupled bases: reduced matrix elements of the site
// spins between coupled states, from Wigner 6j symbols (GSL).
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <unordered_map>

#include <gsl/gsl_errno.h>
#include <gsl/gsl_sf_coupling.h>

#include "guards.h"

namespace corefit {

inline bool triangle(int a, int b, int c) {
    return c >= std::abs(a - b) && c <= a + b && (a + b + c) % 2 == 0;
}

inline double sign(int twicePhase) { return (twicePhase / 2) % 2 == 0 ? 1.0 : -1.0; }

// Reduced matrix elements (Edmonds' convention) of rank-1 operators on a coupled pair, memoised;
// every argument is 2j, the bra's unprimed, the ket's primed:
// first(j1, j1', j2, J, J'): <j1 j2 J || T(1) || j1' j2 J'> / <j1||T||j1'>
// second(j1, j2, J, J'): <j1 j2 J || U(2) || j1 j2 J'> / <j2||U||j2>
// second(j1, j2, j2', J, J'): <j1 j2 J || U(2) || j1 j2' J'> / <j2||U||j2'>
// scalar(J, j1, j2, j1', j2'): <j1 j2 J | T(1).U(2) | j1' j2' J> / (<j1||T||j1'> <j2||U||j2'>)
class Recoupling {
public:
    Recoupling() { gslErrorsAsCodes(); }

    double second(int j1, int j2, int J, int Jp) {
        const std::uint64_t key = pack(0, j1, j2, J, Jp, 0);
        auto found = memo_.find(key);
        if (found != memo_.end()) return found->second;
        double value = 0;
        if (triangle(j1, j2, J) && triangle(j1, j2, Jp) && triangle(J, Jp, 2))
            value = sign(j1 + j2 + J + 2) * std::sqrt((J + 1.0) * (Jp + 1.0)) *
                    sixJ(j2, J, j1, Jp, j2, 2);
        memo_.emplace(key, value);
        return value;
    }
    double second(int j1, int j2, int j2p, int J, int Jp) {
        const std::uint64_t key = pack(2, j1, j2, j2p, J, Jp);
        auto found = memo_.find(key);
        if (found != memo_.end()) return found->second;
        double value = 0;
        if (triangle(j1, j2, J) && triangle(j1, j2p, Jp) && triangle(J, Jp, 2) &&
            triangle(j2, j2p, 2))
            value = sign(j1 + j2p + J + 2) * std::sqrt((J + 1.0) * (Jp + 1.0)) *
                    sixJ(j2, J, j1, Jp, j2p, 2);
        memo_.emplace(key, value);
        return value;
    }
    double scalar(int J, int j1, int j2, int j1p, int j2p) {
        const std::uint64_t key = pack(3, J, j1, j2, j1p, j2p);
        auto found = memo_.find(key);
        if (found != memo_.end()) return found->second;
        double value = 0;
        if (triangle(j1, j2, J) && triangle(j1p, j2p, J) && triangle(j1, j1p, 2) &&
            triangle(j2, j2p, 2))
            value = sign(j1p + j2 + J) * sixJ(J, j2, j1, 2, j1p, j2p);
        memo_.emplace(key, value);
        return value;
    }
    double first(int j1, int j1p, int j2, int J, int Jp) {
        const std::uint64_t key = pack(1, j1, j1p, j2, J, Jp);
        auto found = memo_.find(key);
        if (found != memo_.end()) return found->second;
        double value = 0;
        if (triangle(j1, j2, J) && triangle(j1p, j2, Jp) && triangle(J, Jp, 2) &&
            triangle(j1, j1p, 2))
            value = sign(j1 + j2 + Jp + 2) * std::sqrt((J + 1.0) * (Jp + 1.0)) *
                    sixJ(j1, J, j2, Jp, j1p, 2);
        memo_.emplace(key, value);
        return value;
    }

private:
    // The 6j symbol of arguments given as 2j; a GSL failure (an overflow) is thrown, not ignored.
    static double sixJ(int a, int b, int c, int d, int e, int f) {
        gsl_sf_result result;
        const int status = gsl_sf_coupling_6j_e(a, b, c, d, e, f, &result);
        if (status != GSL_SUCCESS || !std::isfinite(result.val)) {
            char text[160];
            std::snprintf(text, sizeof text,
                          "GSL cannot compute the 6j symbol {%d/2 %d/2 %d/2; "
                          "%d/2 %d/2 %d/2}: %s",
                          a, b, c, d, e, f, gsl_strerror(status));
            throw std::runtime_error(text);
        }
        return result.val;
    }
    static std::uint64_t pack(int kind, int a, int b, int c, int d, int e) {
        auto u = [](int v) { return static_cast<std::uint64_t>(v) & 0xfff; };
        return (static_cast<std::uint64_t>(kind) << 60) | (u(a) << 48) | (u(b) << 36) |
               (u(c) << 24) | (u(d) << 12) | u(e);
    }
    std::unordered_map<std::uint64_t, double> memo_;
};

// <s||s||s> of a site spin.
inline double reducedSpin(int twiceS) {
    const double s = twiceS / 2.0;
    return std::sqrt(s * (s + 1) * (2 * s + 1));
}

} // namespace corefit
