#include "model.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

#include "problem_io.h"

namespace corefit {

ThermalMoment thermalMoment(const Levels& levels, double t) {
    ThermalMoment out;
    out.slope.assign(levels.slope.size(), 0.0);
    if (levels.energy.empty()) return out;
    const double lowest = *std::min_element(levels.energy.begin(), levels.energy.end());
    double z = 0, m = 0;
    std::vector<double> zSlope(levels.slope.size(), 0.0), mSlope(levels.slope.size(), 0.0);
    for (std::size_t n = 0; n < levels.energy.size(); ++n) {
        const double boltzmann = std::exp(-(levels.energy[n] - lowest) / t);
        const double zn = levels.weight[n] * boltzmann, mn = levels.moment[n] * boltzmann;
        z += zn;
        m += mn;
        for (std::size_t k = 0; k < levels.slope.size(); ++k) {
            if (levels.slope[k].empty()) continue;
            zSlope[k] += zn * levels.slope[k][n];
            mSlope[k] += mn * levels.slope[k][n];
        }
    }
    out.value = m / z;
    // d/dJ of sum m e^(-E/T) / sum w e^(-E/T) = -(1/T) (<m E'> - <M^2> <w E'>)
    for (std::size_t k = 0; k < levels.slope.size(); ++k)
        if (!levels.slope[k].empty()) out.slope[k] = -(mSlope[k] - out.value * zSlope[k]) / (z * t);
    return out;
}

std::vector<double> thermalMomentJackknife(const Levels& levels, double t) {
    if (levels.samples < 2 || levels.sample.size() != levels.energy.size()) return {};
    const double lowest = *std::min_element(levels.energy.begin(), levels.energy.end());
    const auto samples = static_cast<std::size_t>(levels.samples);
    // The exact levels count in every estimate; those of random vector r stand for 1/R of the
    // rest each, so without r the others stand for 1/(R - 1).
    double z = 0, m = 0;
    std::vector<double> zr(samples, 0.0), mr(samples, 0.0);
    for (std::size_t n = 0; n < levels.energy.size(); ++n) {
        const double boltzmann = std::exp(-(levels.energy[n] - lowest) / t);
        const int r = levels.sample[n];
        (r < 0 ? z : zr[static_cast<std::size_t>(r)]) += levels.weight[n] * boltzmann;
        (r < 0 ? m : mr[static_cast<std::size_t>(r)]) += levels.moment[n] * boltzmann;
    }
    double zSum = 0, mSum = 0;
    for (std::size_t k = 0; k < samples; ++k) zSum += zr[k], mSum += mr[k];
    const double scale = static_cast<double>(samples) / static_cast<double>(samples - 1);
    std::vector<double> estimates(samples);
    for (std::size_t k = 0; k < samples; ++k)
        estimates[k] = (m + scale * (mSum - mr[k])) / (z + scale * (zSum - zr[k]));
    return estimates;
}

double jackknifeError(const std::vector<double>& estimates) {
    const auto r = static_cast<double>(estimates.size());
    if (estimates.size() < 2) return 0;
    double mean = 0;
    for (double x : estimates) mean += x / r;
    double square = 0;
    for (double x : estimates) square += (x - mean) * (x - mean);
    return std::sqrt(square * (r - 1) / r);
}

double thermalMomentError(const Levels& levels, double t) {
    return jackknifeError(thermalMomentJackknife(levels, t));
}

bool susceptibility(double t, double moment, double g, double c, double zjKelvin, double tip,
                    Susceptibility& out) {
    const double denominator = t - 2 * zjKelvin * moment;
    if (!(g > 0) || !(denominator > 0)) return false;
    const double cluster = curieConstant * g * g * moment / denominator; // chi' with mean field
    out.chi = cluster + c / t + tip;
    out.dChiDg = 2 * cluster / g;
    out.dChiDC = 1 / t;
    out.dChiDzJ = cluster * 2 * moment / denominator;
    out.dChiDtip = 1;
    out.dChiDMoment = curieConstant * g * g * t / (denominator * denominator);
    return true;
}

SusceptibilityModel::SusceptibilityModel(const Problem& problem, Spectrum& spectrum)
    : problem_(problem), spectrum_(spectrum), toKelvin_(kelvinPer(problem.unit)) {}

bool SusceptibilityModel::compute(const std::vector<double>& p, const std::vector<int>* freeIndices,
                                  std::vector<double>& values, Eigen::MatrixXd* derivatives) {
    const auto jCount = static_cast<std::size_t>(problem_.jCount());
    std::vector<double> jKelvin(jCount);
    for (std::size_t k = 0; k < jCount; ++k) jKelvin[k] = p[firstJIndex + k] * toKelvin_;
    std::vector<bool> slopeFor(jCount, false);
    if (derivatives)
        for (int index : *freeIndices)
            if (index >= firstJIndex)
                slopeFor[static_cast<std::size_t>(index - firstJIndex)] = true;
    std::vector<ThermalMoment> moments;
    const Levels& levels = spectrum_.levels(jKelvin, spectrum_.exactSlopes() ? slopeFor
                                                                             : std::vector<bool>{});
    for (const Point& point : problem_.points)
        moments.push_back(thermalMoment(levels, point.temperature));
    if (!spectrum_.exactSlopes()) {
        // FTLM: forward differences over the same random vectors, which keep <M^2> smooth in J.
        for (auto& moment : moments) moment.slope.assign(jCount, 0.0);
        for (std::size_t k = 0; k < jCount; ++k) {
            if (!slopeFor[k]) continue;
            std::vector<double> moved = jKelvin;
            const double h = 1e-5 * std::max(std::abs(jKelvin[k]), 1.0);
            moved[k] += h;
            const Levels& shifted = spectrum_.levels(moved, {});
            for (std::size_t i = 0; i < problem_.points.size(); ++i)
                moments[i].slope[k] =
                    (thermalMoment(shifted, problem_.points[i].temperature).value -
                     moments[i].value) / h;
        }
    }

    const bool chiT = problem_.kind == DataKind::ChiT;
    const double zjKelvin = p[zjIndex] * toKelvin_;
    values.resize(problem_.points.size());
    for (std::size_t i = 0; i < problem_.points.size(); ++i) {
        const double t = problem_.points[i].temperature;
        const ThermalMoment& moment = moments[i];
        Susceptibility s;
        if (!susceptibility(t, moment.value, p[gIndex], p[cIndex], zjKelvin, p[tipIndex], s))
            return false;
        const double factor = chiT ? t : 1.0;
        values[i] = s.chi * factor;
        if (!derivatives) continue;
        const auto row = static_cast<Eigen::Index>(i);
        for (std::size_t column = 0; column < freeIndices->size(); ++column) {
            const int index = (*freeIndices)[column];
            double d = 0;
            switch (index) {
            case gIndex:
                d = s.dChiDg;
                break;
            case cIndex:
                d = s.dChiDC;
                break;
            case zjIndex:
                d = s.dChiDzJ * toKelvin_;
                break;
            case tipIndex:
                d = s.dChiDtip;
                break;
            default:
                d = s.dChiDMoment * moment.slope[static_cast<std::size_t>(index - firstJIndex)] *
                    toKelvin_;
            }
            (*derivatives)(row, static_cast<Eigen::Index>(column)) = d * factor;
        }
    }
    if (!std::all_of(values.begin(), values.end(), [](double v) { return std::isfinite(v); }))
        return false;
    lastParameters_ = p;
    lastValues_ = values;
    return true;
}

bool SusceptibilityModel::evaluate(const std::vector<double>& p, Eigen::VectorXd& residuals,
                                   Eigen::MatrixXd* jacobian, const std::vector<int>& freeIndices) {
    std::vector<double> values;
    Eigen::MatrixXd all;
    if (jacobian)
        all.resize(static_cast<Eigen::Index>(problem_.points.size()),
                   static_cast<Eigen::Index>(freeIndices.size()));
    if (!compute(p, &freeIndices, values, jacobian ? &all : nullptr)) return false;
    const auto first = static_cast<Eigen::Index>(problem_.first - 1);
    const auto count = static_cast<Eigen::Index>(residualCount());
    residuals.resize(count);
    for (Eigen::Index i = 0; i < count; ++i)
        residuals[i] = values[static_cast<std::size_t>(first + i)] -
                       problem_.points[static_cast<std::size_t>(first + i)].observed;
    if (jacobian) *jacobian = all.middleRows(first, count);
    return true;
}

bool SusceptibilityModel::predict(const std::vector<double>& p, std::vector<double>& values) {
    if (!lastParameters_.empty() && p == lastParameters_) {
        values = lastValues_;
        return true;
    }
    return compute(p, nullptr, values, nullptr);
}

namespace {

std::string shortReal(double value) {
    char buffer[32];
    const auto result =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 6);
    return std::string(buffer, result.ptr);
}

} // namespace

std::vector<std::vector<double>>
SusceptibilityModel::jackknifeValues(const std::vector<double>& p) {
    const auto jCount = static_cast<std::size_t>(problem_.jCount());
    std::vector<double> jKelvin(jCount);
    for (std::size_t k = 0; k < jCount; ++k) jKelvin[k] = p[firstJIndex + k] * toKelvin_;
    const Levels& levels = spectrum_.levels(jKelvin, {});
    std::vector<std::vector<double>> values;
    for (const Point& point : problem_.points) {
        const double t = point.temperature;
        std::vector<double> estimates = thermalMomentJackknife(levels, t);
        for (double& estimate : estimates) {
            Susceptibility s;
            if (!susceptibility(t, estimate, p[gIndex], p[cIndex], p[zjIndex] * toKelvin_,
                                p[tipIndex], s)) {
                estimates.clear();
                break;
            }
            estimate = s.chi * (problem_.kind == DataKind::ChiT ? t : 1);
        }
        values.push_back(std::move(estimates));
    }
    return values;
}

std::vector<double> SusceptibilityModel::standardErrors(const std::vector<double>& p) {
    std::vector<double> errors;
    for (const std::vector<double>& estimates : jackknifeValues(p))
        errors.push_back(samplingErrorFactor * jackknifeError(estimates));
    return errors;
}

Eigen::MatrixXd SusceptibilityModel::samplingCovariance(const std::vector<double>& p,
                                                        const std::vector<int>& freeIndices,
                                                        const Eigen::MatrixXd& jacobian) {
    const auto free = static_cast<Eigen::Index>(freeIndices.size());
    Eigen::MatrixXd covariance = Eigen::MatrixXd::Zero(free, free);
    const auto first = static_cast<std::size_t>(problem_.first - 1);
    const Eigen::Index count = residualCount();
    if (free == 0 || jacobian.rows() != count || jacobian.cols() != free) return covariance;
    const std::vector<std::vector<double>> values = jackknifeValues(p);
    const std::size_t samples = values[first].size();
    if (samples < 2) return covariance;
    // (J^T J)^+ J^T from a singular value decomposition of J with unit columns, directions of
    // singular value 0 left out (as the fit does).
    const Eigen::VectorXd norms = jacobian.colwise().norm().transpose();
    Eigen::MatrixXd unit = jacobian;
    for (Eigen::Index k = 0; k < free; ++k)
        unit.col(k) =
            norms(k) > 0 ? Eigen::VectorXd(unit.col(k) / norms(k)) : Eigen::VectorXd::Zero(count);
    const Eigen::JacobiSVD<Eigen::MatrixXd> svd(unit, Eigen::ComputeThinU | Eigen::ComputeThinV);
    const Eigen::VectorXd& sigma = svd.singularValues();
    const double limit = sigma(0) * static_cast<double>(std::max(count, free)) *
                         std::numeric_limits<double>::epsilon();
    Eigen::VectorXd inverse = Eigen::VectorXd::Zero(sigma.size());
    for (Eigen::Index k = 0; k < sigma.size(); ++k)
        if (sigma(k) > limit) inverse(k) = 1 / sigma(k);
    Eigen::MatrixXd solve = svd.matrixV() * inverse.asDiagonal() * svd.matrixU().transpose();
    for (Eigen::Index k = 0; k < free; ++k) solve.row(k) *= norms(k) > 0 ? 1 / norms(k) : 0.0;
    // The parameters' shift with each random vector left out, to first order; their spread.
    Eigen::MatrixXd shifts(free, static_cast<Eigen::Index>(samples));
    for (std::size_t k = 0; k < samples; ++k) {
        Eigen::VectorXd moved(count);
        for (Eigen::Index i = 0; i < count; ++i) {
            const std::vector<double>& estimates = values[first + static_cast<std::size_t>(i)];
            if (estimates.size() != samples) return covariance; // a pole of the mean field
            moved(i) = estimates[k];
        }
        shifts.col(static_cast<Eigen::Index>(k)) = -solve * moved;
    }
    const Eigen::VectorXd mean = shifts.rowwise().mean();
    shifts.colwise() -= mean;
    const double r = static_cast<double>(samples);
    covariance = shifts * shifts.transpose() * ((r - 1) / r);
    return covariance;
}

std::string SusceptibilityModel::domainFault(const std::vector<double>& p) {
    const std::string input = fileName(problem_.inputPath), data = fileName(problem_.dataPath);
    if (!(p[gIndex] > 0)) return input + ": g is " + shortReal(p[gIndex]) + "; it must be above 0";
    const auto jCount = static_cast<std::size_t>(problem_.jCount());
    std::vector<double> jKelvin(jCount);
    for (std::size_t k = 0; k < jCount; ++k) jKelvin[k] = p[firstJIndex + k] * toKelvin_;
    const Levels& levels = spectrum_.levels(jKelvin, {});
    const bool chiT = problem_.kind == DataKind::ChiT;
    const std::string quantity = chiT ? "chiT" : "chi";
    double sum = 0;
    for (std::size_t i = 0; i < problem_.points.size(); ++i) {
        const Point& point = problem_.points[i];
        // Point k (from 1) is on line k + 1 of the data file, after the header.
        const std::string where = data + " line " + std::to_string(i + 2) + ": point " +
                                  std::to_string(i + 1) + " (T = " + shortReal(point.temperature) +
                                  ", " + quantity + " " + shortReal(point.observed) + ")";
        const double moment = thermalMoment(levels, point.temperature).value;
        Susceptibility s;
        if (!susceptibility(point.temperature, moment, p[gIndex], p[cIndex], p[zjIndex] * toKelvin_,
                            p[tipIndex], s))
            return input + ": zJ = " + shortReal(p[zjIndex]) +
                   " puts the pole of the mean field above the temperature of " + where +
                   "; T - 2 zJ <M^2> must stay above 0";
        const double value = s.chi * (chiT ? point.temperature : 1.0);
        if (!std::isfinite(value))
            return where + ": the model gives no finite " + quantity + " there";
        const int number = static_cast<int>(i) + 1;
        if (number < problem_.first || number > problem_.last) continue;
        const double square = (value - point.observed) * (value - point.observed);
        sum += square;
        if (!std::isfinite(square) || !std::isfinite(sum))
            return where + ": its squared deviation from the calculated " + quantity + " " +
                   shortReal(value) + " exceeds the range of double precision";
    }
    return {};
}

void includeCovariance(FitResult& result, const Eigen::MatrixXd& extra) {
    const auto free = static_cast<Eigen::Index>(result.freeIndices.size());
    if (result.correlation.rows() != free || extra.rows() != free || extra.cols() != free) return;
    auto sigma = [&](Eigen::Index k) -> double& {
        return result.uncertainties[static_cast<std::size_t>(
            result.freeIndices[static_cast<std::size_t>(k)])];
    };
    Eigen::MatrixXd total = extra;
    for (Eigen::Index a = 0; a < free; ++a)
        for (Eigen::Index b = 0; b < free; ++b)
            total(a, b) += result.correlation(a, b) * sigma(a) * sigma(b);
    for (Eigen::Index a = 0; a < free; ++a)
        if (!std::isnan(sigma(a))) sigma(a) = std::sqrt(total(a, a));
    for (Eigen::Index a = 0; a < free; ++a)
        for (Eigen::Index b = 0; b < free; ++b)
            if (!std::isnan(result.correlation(a, b)))
                result.correlation(a, b) = a == b ? 1.0 : total(a, b) / (sigma(a) * sigma(b));
}

} // namespace corefit
