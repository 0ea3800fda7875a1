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

std::vector<FittedPoint> fittedPoints(const Problem& problem) {
    std::vector<FittedPoint> fitted;
    const bool joint = problem.hasMagnetisation(),
               relative = problem.weighting == Weighting::Relative;
    const double chiCount = problem.fittedChi();
    const double chiScale =
        joint && chiCount > 0 ? 1 / ((relative ? 1.0 : observedSize(problem)) * std::sqrt(chiCount))
                              : 1.0;
    for (int i = problem.first; i <= problem.last; ++i) {
        const auto k = static_cast<std::size_t>(i - 1);
        const double observed = problem.points[k].observed;
        fitted.push_back({k, observed, relative ? chiScale / observed : chiScale});
    }
    if (joint) {
        const double scale =
            std::sqrt(problem.magnetisationWeight / problem.fittedMagnetisation()) /
            observedMagnetisationSize(problem);
        for (int i = problem.magnetisationFirst; i <= problem.magnetisationLast; ++i) {
            const auto k = static_cast<std::size_t>(i - 1);
            fitted.push_back({problem.points.size() + k, problem.magnetisation[k].observed, scale});
        }
    }
    return fitted;
}

SetDeviations setDeviations(const Problem& problem, const std::vector<double>& calculated) {
    SetDeviations out;
    for (const FittedPoint& point : fittedPoints(problem)) {
        if (point.value >= calculated.size()) break;
        const double r = (calculated[point.value] - point.observed) * point.scale;
        (point.value < problem.points.size() ? out.chi : out.magnetisation) += r * r;
    }
    return out;
}

double observedScale(const Problem& problem) {
    double sum = 0;
    for (const FittedPoint& point : fittedPoints(problem))
        sum += std::pow(point.observed * point.scale, 2);
    return sum;
}

std::string pointPlace(const Problem& problem, std::size_t value) {
    if (value < problem.points.size())
        return formatText("T = %.6g", problem.points[value].temperature);
    const MagnetisationPoint& point = problem.magnetisation[value - problem.points.size()];
    return formatText("T = %.6g, H = %.6g T", point.temperature, point.field);
}

SusceptibilityModel::SusceptibilityModel(const Problem& problem, Spectrum& spectrum)
    : problem_(problem), spectrum_(spectrum), toKelvin_(kelvinPer(problem.unit)) {}

double SusceptibilityModel::temperatureOf(std::size_t i) const {
    return i < problem_.points.size()
               ? problem_.points[i].temperature
               : problem_.magnetisation[i - problem_.points.size()].temperature;
}

double SusceptibilityModel::fieldOf(std::size_t i) const {
    return i < problem_.points.size() ? problem_.field
                                      : problem_.magnetisation[i - problem_.points.size()].field;
}

double SusceptibilityModel::factorOf(std::size_t i) const {
    if (i >= problem_.points.size()) return 1;
    return chiPerMagnetisation(problem_.field) *
           (problem_.kind == DataKind::ChiT ? problem_.points[i].temperature : 1.0);
}

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
    const std::size_t count = problem_.points.size() + problem_.magnetisation.size();
    const double zjKelvin = p[zjIndex] * toKelvin_;
    // Zero-field chi points through <M^2>; points in a field through the magnetisation.
    auto inField = [&](std::size_t i) { return fieldOf(i) > 0; };
    std::vector<ThermalMoment> moments(count);
    std::vector<Magnetisation> fields(count);
    {
        const bool exact = spectrum_.exactSlopes();
        const Levels& levels = spectrum_.levels(jKelvin, exact ? slopeFor : std::vector<bool>{});
        for (std::size_t i = 0; i < count; ++i) {
            const double t = temperatureOf(i);
            if (!inField(i))
                moments[i] = thermalMoment(levels, t);
            else if (magnetisation(levels, t, fieldOf(i), p[gIndex], p[cIndex], zjKelvin,
                                   p[tipIndex], derivatives && exact,
                                   fields[i]) != FieldFault::None)
                return false;
        }
    }
    if (!spectrum_.exactSlopes()) {
        // FTLM: forward differences over the same random vectors, which keep <M^2> and <M>
        // smooth in J; <M> at the same field, to be carried through the mean field.
        for (std::size_t i = 0; i < count; ++i)
            (inField(i) ? fields[i].cluster.slope : moments[i].slope).assign(jCount, 0.0);
        for (std::size_t k = 0; k < jCount; ++k) {
            if (!slopeFor[k]) continue;
            std::vector<double> moved = jKelvin;
            const double h = 1e-5 * std::max(std::abs(jKelvin[k]), 1.0);
            moved[k] += h;
            const Levels& shifted = spectrum_.levels(moved, {});
            for (std::size_t i = 0; i < count; ++i) {
                const double t = temperatureOf(i);
                if (inField(i))
                    fields[i].cluster.slope[k] =
                        (thermalMagnetisation(shifted, fields[i].field, t).value -
                         fields[i].cluster.value) /
                        h;
                else
                    moments[i].slope[k] = (thermalMoment(shifted, t).value - moments[i].value) / h;
            }
        }
    }

    const bool chiT = problem_.kind == DataKind::ChiT;
    values.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        const double t = temperatureOf(i);
        double factor = 1, dg = 0, dC = 0, dzJ = 0, dTip = 0, dMoment = 0;
        const std::vector<double>* slope = nullptr;
        if (!inField(i)) {
            Susceptibility s;
            if (!susceptibility(t, moments[i].value, p[gIndex], p[cIndex], zjKelvin, p[tipIndex],
                                s))
                return false;
            factor = chiT ? t : 1.0;
            values[i] = s.chi * factor;
            dg = s.dChiDg, dC = s.dChiDC, dzJ = s.dChiDzJ, dTip = s.dChiDtip;
            dMoment = s.dChiDMoment;
            slope = &moments[i].slope;
        } else {
            const Magnetisation& m = fields[i];
            factor = factorOf(i);
            values[i] = m.total * factor;
            dg = m.dg, dC = m.dC, dzJ = m.dzJ, dTip = m.dTip, dMoment = m.dMoment;
            slope = &m.cluster.slope;
        }
        if (!derivatives) continue;
        const auto row = static_cast<Eigen::Index>(i);
        for (std::size_t column = 0; column < freeIndices->size(); ++column) {
            const int index = (*freeIndices)[column];
            double d = 0;
            switch (index) {
            case gIndex:
                d = dg;
                break;
            case cIndex:
                d = dC;
                break;
            case zjIndex:
                d = dzJ * toKelvin_;
                break;
            case tipIndex:
                d = dTip;
                break;
            default:
                d = dMoment * (*slope)[static_cast<std::size_t>(index - firstJIndex)] * toKelvin_;
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
        all.resize(
            static_cast<Eigen::Index>(problem_.points.size() + problem_.magnetisation.size()),
            static_cast<Eigen::Index>(freeIndices.size()));
    if (!compute(p, &freeIndices, values, jacobian ? &all : nullptr)) return false;
    const std::vector<FittedPoint> points = fittedPoints(problem_);
    const auto count = static_cast<Eigen::Index>(points.size());
    residuals.resize(count);
    if (jacobian) jacobian->resize(count, static_cast<Eigen::Index>(freeIndices.size()));
    for (Eigen::Index i = 0; i < count; ++i) {
        const FittedPoint& point = points[static_cast<std::size_t>(i)];
        residuals[i] = (values[point.value] - point.observed) * point.scale;
        if (jacobian)
            jacobian->row(i) = all.row(static_cast<Eigen::Index>(point.value)) * point.scale;
    }
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
    const double zjKelvin = p[zjIndex] * toKelvin_;
    std::vector<std::vector<double>> values;
    for (std::size_t i = 0; i < problem_.points.size() + problem_.magnetisation.size(); ++i) {
        const double t = temperatureOf(i), tesla = fieldOf(i);
        std::vector<double> estimates;
        if (tesla > 0) {
            // <M> without each vector at the field of the solution, carried through the mean
            // field to first order: the total moves by dMoment times the change of <M>.
            Magnetisation m;
            if (magnetisation(levels, t, tesla, p[gIndex], p[cIndex], zjKelvin, p[tipIndex], false,
                              m) == FieldFault::None) {
                estimates = thermalMagnetisationJackknife(levels, m.field, t);
                for (double& estimate : estimates)
                    estimate = (m.total + m.dMoment * (estimate - m.cluster.value)) * factorOf(i);
            }
            values.push_back(std::move(estimates));
            continue;
        }
        estimates = thermalMomentJackknife(levels, t);
        for (double& estimate : estimates) {
            Susceptibility s;
            if (!susceptibility(t, estimate, p[gIndex], p[cIndex], zjKelvin, p[tipIndex], s)) {
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
    const std::vector<FittedPoint> points = fittedPoints(problem_);
    const auto count = static_cast<Eigen::Index>(points.size());
    if (free == 0 || count == 0 || jacobian.rows() != count || jacobian.cols() != free)
        return covariance;
    const std::vector<std::vector<double>> values = jackknifeValues(p);
    const std::size_t samples = values[points.front().value].size();
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
            const FittedPoint& point = points[static_cast<std::size_t>(i)];
            const std::vector<double>& estimates = values[point.value];
            if (estimates.size() != samples) return covariance; // a pole of the mean field
            moved(i) = estimates[k] * point.scale;
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
    const double zjKelvin = p[zjIndex] * toKelvin_;
    std::vector<double> scale(problem_.points.size() + problem_.magnetisation.size(), 0.0);
    for (const FittedPoint& point : fitted()) scale[point.value] = point.scale;
    double sum = 0;
    for (std::size_t i = 0; i < scale.size(); ++i) {
        const bool magnet = i >= problem_.points.size();
        const std::size_t k = magnet ? i - problem_.points.size() : i;
        const double t = temperatureOf(i), tesla = fieldOf(i);
        const double observed =
            magnet ? problem_.magnetisation[k].observed : problem_.points[k].observed;
        const std::string what = magnet ? "magnetisation" : quantity;
        // Point k (from 1) is on line k + 1 of the data file, after the header; magnetisation
        // point k on line k after its own.
        const std::string where =
            magnet
                ? data + " line " +
                      std::to_string(static_cast<std::size_t>(problem_.magnetisationLine) + 1 + k) +
                      ": magnetisation point " + std::to_string(k + 1) + " (T = " + shortReal(t) +
                      ", H = " + shortReal(tesla) + " T, M " + shortReal(observed) + ")"
                : data + " line " + std::to_string(i + 2) + ": point " + std::to_string(i + 1) +
                      " (T = " + shortReal(t) + ", " + quantity + " " + shortReal(observed) + ")";
        double value = 0;
        if (tesla > 0) {
            Magnetisation m;
            switch (magnetisation(levels, t, tesla, p[gIndex], p[cIndex], zjKelvin, p[tipIndex],
                                  false, m)) {
            case FieldFault::Pole:
                return input + ": zJ = " + shortReal(p[zjIndex]) +
                       " puts the pole of the mean field above the temperature of " + where +
                       "; T - 2 zJ <M^2> must stay above 0";
            case FieldFault::Unstable:
                return input + ": zJ = " + shortReal(p[zjIndex]) +
                       " leaves the mean field without a stable solution at " + where;
            case FieldFault::None:
                break;
            }
            value = m.total * factorOf(i);
        } else {
            Susceptibility s;
            if (!susceptibility(t, thermalMoment(levels, t).value, p[gIndex], p[cIndex], zjKelvin,
                                p[tipIndex], s))
                return input + ": zJ = " + shortReal(p[zjIndex]) +
                       " puts the pole of the mean field above the temperature of " + where +
                       "; T - 2 zJ <M^2> must stay above 0";
            value = s.chi * (chiT ? t : 1.0);
        }
        if (!std::isfinite(value)) return where + ": the model gives no finite " + what + " there";
        if (scale[i] == 0) continue; // outside the fitted range
        const double residual = (value - observed) * scale[i], square = residual * residual;
        sum += square;
        if (!std::isfinite(square) || !std::isfinite(sum))
            return where + ": its squared deviation from the calculated " + what + " " +
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
