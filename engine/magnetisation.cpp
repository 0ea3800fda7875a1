#include "magnetisation.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace corefit {

namespace {

// coth(y) - 1/y for y >= 0, from its series where the two cancel.
double langevin(double y) {
    if (y < 0.1) {
        const double y2 = y * y;
        return y * (1 / 3.0 +
                    y2 * (-1 / 45.0 + y2 * (2 / 945.0 + y2 * (-1 / 4725.0 + y2 * (2 / 93555.0)))));
    }
    return 1 / std::tanh(y) - 1 / y;
}

// Its derivative, 1/y^2 - 1/sinh^2(y), for y >= 0.
double langevinSlope(double y) {
    if (y < 0.1) {
        const double y2 = y * y;
        return 1 / 3.0 +
               y2 * (-1 / 15.0 +
                     y2 * (2 / 189.0 +
                           y2 * (-7 / 4725.0 + y2 * (18 / 93555.0 + y2 * (-15202 / 638512875.0)))));
    }
    const double s = std::sinh(y); // past its range 1/s^2 is 0, as it should be
    return 1 / (y * y) - 1 / (s * s);
}

// The states of a level in the field h >= 0 (x = h / t), per unit of its weight: the sum over them
// of exp(-(E - h M - lowest) / t), lowest its lowest E - h M (M = S of a multiplet, |M| of the
// others), their mean M and the variance of M among them. They depend on the level's 2S or 2|M|
// alone.
struct Shape {
    double count = 0, mean = 0, variance = 0;
};

Shape shape(bool multiplets, int twice, double x) {
    Shape out;
    if (twice == 0) {
        out.count = 1;
        return out;
    }
    if (multiplets) {
        // M = S - k, k = 0 .. 2S: sum_k e^(-k x) = (1 - e^(-(2S+1) x)) / (1 - e^(-x)), over the
        // 2S + 1 states the weight counts; mean and variance those of the Brillouin function,
        // from coth(y) - 1/y.
        const double size = twice + 1.0, y = x / 2;
        out.count = x == 0 ? 1.0 : std::expm1(-size * x) / std::expm1(-x) / size;
        out.mean = (size * langevin(size * y) - langevin(y)) / 2;
        out.variance = (size * size * langevinSlope(size * y) - langevinSlope(y)) / 4;
        return out;
    }
    // Half of the states at M, half at -M.
    const double m = twice / 2.0, c = std::cosh(m * x);
    out.count = (1 + std::exp(-2 * m * x)) / 2;
    out.mean = m * std::tanh(m * x);
    out.variance = m * m / (c * c);
    return out;
}

void checkLevels(const Levels& levels) {
    if (levels.twice.size() != levels.energy.size() || levels.weight.size() != levels.energy.size())
        throw std::logic_error("levels without the spin or M of every level");
}

// The levels in the field h >= 0 at t: the lowest E - h M of all, and the shape of every 2S or
// 2|M| that occurs.
struct Field {
    double h = 0, t = 1, lowest = 0;
    std::vector<Shape> shapes; // by 2S or 2|M|
    Field(const Levels& levels, double field, double temperature) : h(field), t(temperature) {
        checkLevels(levels);
        lowest = std::numeric_limits<double>::infinity();
        int largest = 0;
        for (std::size_t n = 0; n < levels.energy.size(); ++n) {
            lowest = std::min(lowest, levels.energy[n] - h * (levels.twice[n] / 2.0));
            largest = std::max(largest, levels.twice[n]);
        }
        shapes.resize(static_cast<std::size_t>(largest) + 1);
        std::vector<char> used(shapes.size(), 0);
        for (int twice : levels.twice) used[static_cast<std::size_t>(twice)] = 1;
        for (std::size_t twice = 0; twice < shapes.size(); ++twice)
            if (used[twice])
                shapes[twice] = shape(levels.multiplets, static_cast<int>(twice), h / t);
    }
    // Level n's share of the partition sum relative to the lowest E - h M.
    double weight(const Levels& levels, std::size_t n) const {
        const int twice = levels.twice[n];
        return levels.weight[n] * shapes[static_cast<std::size_t>(twice)].count *
               std::exp(-(levels.energy[n] - h * (twice / 2.0) - lowest) / t);
    }
};

} // namespace

ThermalMagnetisation thermalMagnetisation(const Levels& levels, double h, double t, bool slopes) {
    checkLevels(levels);
    ThermalMagnetisation out;
    out.slope.assign(levels.slope.size(), 0.0);
    if (levels.energy.empty()) return out;
    // <M> is odd in h, its variance even.
    const double sign = h < 0 ? -1.0 : 1.0;
    const Field field(levels, std::abs(h), t);
    // The levels' weights summed by 2S or 2|M|, whose states share their mean and variance; and
    // for the slopes, their weights times dE/dJ.
    const std::size_t shapes = field.shapes.size(), jCount = slopes ? levels.slope.size() : 0;
    std::vector<double> z(shapes, 0.0);
    std::vector<std::vector<double>> zSlope(jCount);
    for (std::size_t k = 0; k < jCount; ++k)
        if (!levels.slope[k].empty()) zSlope[k].assign(shapes, 0.0);
    for (std::size_t n = 0; n < levels.energy.size(); ++n) {
        const double zn = field.weight(levels, n);
        const auto twice = static_cast<std::size_t>(levels.twice[n]);
        z[twice] += zn;
        for (std::size_t k = 0; k < jCount; ++k)
            if (!zSlope[k].empty()) zSlope[k][twice] += zn * levels.slope[k][n];
    }
    double total = 0, mean = 0;
    for (std::size_t i = 0; i < shapes; ++i) total += z[i], mean += z[i] * field.shapes[i].mean;
    mean /= total;
    // The variance about the mean, so that one far below <M>^2 near saturation keeps its digits.
    double variance = 0;
    for (std::size_t i = 0; i < shapes; ++i) {
        const double d = field.shapes[i].mean - mean;
        variance += z[i] * (field.shapes[i].variance + d * d);
    }
    out.value = sign * mean;
    out.variance = variance / total;
    // d/dJ of sum m_n z_n / sum z_n, z_n ~ e^(-E_n / t): -(1/t) <(m - <M>) E'>
    for (std::size_t k = 0; k < jCount; ++k) {
        if (zSlope[k].empty()) continue;
        double sum = 0;
        for (std::size_t i = 0; i < shapes; ++i)
            sum += (field.shapes[i].mean - mean) * zSlope[k][i];
        out.slope[k] = -sign * sum / (total * t);
    }
    return out;
}

std::vector<double> thermalMagnetisationJackknife(const Levels& levels, double h, double t) {
    if (levels.samples < 2 || levels.sample.size() != levels.energy.size()) return {};
    const double sign = h < 0 ? -1.0 : 1.0;
    const Field field(levels, std::abs(h), t);
    const auto samples = static_cast<std::size_t>(levels.samples);
    // As thermalMomentJackknife: the exact levels count in every estimate; without random
    // vector r the others stand for 1/(R - 1) of the rest each.
    double z = 0, m = 0;
    std::vector<double> zr(samples, 0.0), mr(samples, 0.0);
    for (std::size_t n = 0; n < levels.energy.size(); ++n) {
        const double zn = field.weight(levels, n);
        const double mn = zn * field.shapes[static_cast<std::size_t>(levels.twice[n])].mean;
        const int r = levels.sample[n];
        (r < 0 ? z : zr[static_cast<std::size_t>(r)]) += zn;
        (r < 0 ? m : mr[static_cast<std::size_t>(r)]) += mn;
    }
    double zSum = 0, mSum = 0;
    for (std::size_t k = 0; k < samples; ++k) zSum += zr[k], mSum += mr[k];
    const double scale = static_cast<double>(samples) / static_cast<double>(samples - 1);
    std::vector<double> estimates(samples);
    for (std::size_t k = 0; k < samples; ++k)
        estimates[k] = sign * (m + scale * (mSum - mr[k])) / (z + scale * (zSum - zr[k]));
    return estimates;
}

FieldFault magnetisation(const Levels& levels, double t, double tesla, double g, double c,
                         double zjKelvin, double tip, bool slopes, Magnetisation& out) {
    out = Magnetisation();
    if (!(g > 0)) return FieldFault::Unstable;
    // The domain of the zero-field model: above the pole of the mean field.
    if (zjKelvin > 0 && !(t - 2 * zjKelvin * thermalMagnetisation(levels, 0, t).variance > 0))
        return FieldFault::Pole;
    const double h0 = g * bohrPerBoltzmann * tesla;
    double s = 0;
    if (zjKelvin != 0) {
        // F(s) = s - <M>(h0 + 2 zJ s) = 0. <M> grows with h, so F(<M>(h0)) <= 0 for zJ > 0,
        // with F(largest M) >= 0 above it; for zJ < 0, F(0) <= 0 <= F(<M>(h0)), and F grows.
        // Newton from <M>(h0), kept inside the bracket by bisection: for zJ > 0 it climbs from
        // below to the least root, the one that joins the zero-field solution s = 0.
        const double free = thermalMagnetisation(levels, h0, t).value;
        int largest = 0;
        for (int twice : levels.twice) largest = std::max(largest, twice);
        double low = zjKelvin > 0 ? free : 0.0, high = zjKelvin > 0 ? largest / 2.0 : free;
        s = free;
        bool converged = false;
        for (int iteration = 0; iteration < 200 && !converged; ++iteration) {
            const ThermalMagnetisation at = thermalMagnetisation(levels, h0 + 2 * zjKelvin * s, t);
            const double f = s - at.value, slope = 1 - 2 * zjKelvin * at.variance / t;
            if (f == 0) break;
            (f < 0 ? low : high) = s;
            double next = slope > 0 ? s - f / slope : low - 1;
            if (!(next > low && next < high)) next = low + (high - low) / 2;
            converged = std::abs(next - s) <= 1e-14 * std::abs(s) || !(high > low);
            s = next;
        }
        if (!converged && !(s - thermalMagnetisation(levels, h0 + 2 * zjKelvin * s, t).value == 0))
            return FieldFault::Unstable;
    }
    out.field = h0 + 2 * zjKelvin * s;
    out.cluster = thermalMagnetisation(levels, out.field, t, slopes);
    const double mean = out.cluster.value, mh = out.cluster.variance / t;
    const double stiffness = 1 - 2 * zjKelvin * mh;
    if (!(stiffness > 0)) return FieldFault::Unstable;
    // s = <M>(h0 + 2 zJ s): ds (1 - 2 zJ m_h) = m_h dh0 + 2 s m_h dzJ + m_J dJ.
    out.dMoment = g / stiffness;
    const double ratio = bohrPerBoltzmann * tesla / t;
    out.dg = mean + out.dMoment * mh * h0 / g;
    out.dzJ = out.dMoment * 2 * mean * mh;
    out.dC = std::tanh(ratio) / curieConstant; // C / C0 free S = 1/2 with g = 2
    out.dTip = tesla * 1e4 / molarBohr;
    out.total = g * mean + c * out.dC + tip * out.dTip;
    return FieldFault::None;
}

} // namespace corefit
