// The molar susceptibility of the cluster with mean field, impurity and TIP, and the fit model
// over the data points.
#pragma once

#include <string>
#include <vector>

#include "fit.h"
#include "magnetisation.h"
#include "problem.h"
#include "spectrum.h"

namespace corefit {

// <M^2> over the levels at temperature t (kelvin), and its derivative with respect to each J
// whose slopes the levels carry (empty vectors elsewhere).
struct ThermalMoment {
    double value = 0;
    std::vector<double> slope; // d<M^2>/dJ_k per kelvin of J_k; 0 where no slope was computed
};
ThermalMoment thermalMoment(const Levels& levels, double t);

// FTLM: <M^2> at temperature t with each random vector left out in turn (R estimates from R - 1
// vectors each); empty for levels that are all exact.
std::vector<double> thermalMomentJackknife(const Levels& levels, double t);
// The standard error of a quantity from its leave-one-out estimates x_k: the jackknife
// sqrt((R - 1)/R sum (x_k - mean)^2); 0 for fewer than two.
double jackknifeError(const std::vector<double>& estimates);
// FTLM: the standard error of <M^2> at temperature t, the jackknife over the random vectors; 0
// for levels that are all exact.
double thermalMomentError(const Levels& levels, double t);

// How much larger than its jackknife the sampling error of an FTLM value is taken to be. Against
// exact spectra, the jackknife of <M^2> ran low by up to this factor below T ~ |J| on an 18-site
// ring (docs/corefit.md). That of fitted parameters did not: they average over temperatures.
inline constexpr double samplingErrorFactor = 1.25;

// The susceptibility terms at one temperature, from <M^2> and the parameters in kelvin:
// chi = C0 g^2 <M^2> / (T - 2 zJ <M^2>) + C / T + Xtip. Returns false when the mean-field
// denominator is not positive or g is not positive.
struct Susceptibility {
    double chi = 0;
    double dChiDg = 0, dChiDC = 0, dChiDzJ = 0, dChiDtip = 0; // zJ per kelvin
    double dChiDMoment = 0;                                   // d chi / d<M^2>
};
bool susceptibility(double t, double moment, double g, double c, double zjKelvin, double tip,
                    Susceptibility& out);

// A fitted point: its place among the calculated values (the chi or chiT points, then the
// magnetisation points), its observed value, and the factor of its residual in the deviation,
// r = (calculated - observed) * scale.
struct FittedPoint {
    std::size_t value = 0;
    double observed = 0, scale = 1;
};
// The fitted points of both sets, the chi or chiT set first. Without a magnetisation set the
// scale is 1, or 1 / observed with relative weighting (D as the sum of squared residuals, or of
// relative ones). With one, each set counts as its mean squared deviation relative to its own
// size: 1 / (s_c sqrt(n_c)) (relative weighting: 1 / (observed sqrt(n_c))) for the chi or chiT
// set and sqrt(W / n_m) / s_m for the magnetisation set, s the root mean square of a set's
// observed values and n its fitted points.
std::vector<FittedPoint> fittedPoints(const Problem& problem);
// Each set's part of the deviation at the calculated values: (1/n_c) sum (r/s_c)^2 and
// W (1/n_m) sum (r/s_m)^2 (all of it in the chi part without a magnetisation set).
struct SetDeviations {
    double chi = 0, magnetisation = 0;
};
SetDeviations setDeviations(const Problem& problem, const std::vector<double>& calculated);
// The deviation of calculated values that are all 0: the sum of the squared scaled observed
// values, the scale of D.
double observedScale(const Problem& problem);
// Where a calculated value lies, for messages: "T = 6.98", or "T = 2, H = 7 T" for a
// magnetisation point.
std::string pointPlace(const Problem& problem, std::size_t value);

// Residuals of the fitted quantity (chi or chiT, and the magnetisation) over the fitted points,
// scaled as fittedPoints says. Parameters are in the file's units: g, C, zJ, Xtip, J1..Jn.
class SusceptibilityModel final : public LeastSquaresModel {
public:
    SusceptibilityModel(const Problem& problem, Spectrum& spectrum);
    int residualCount() const override { return problem_.fittedPoints(); }
    bool evaluate(const std::vector<double>& p, Eigen::VectorXd& residuals,
                  Eigen::MatrixXd* jacobian, const std::vector<int>& freeIndices) override;
    // The calculated values at every data point, also outside the fitted ranges: chi or chiT
    // (at the field of the data, if any), then the magnetisation points in N muB. At the
    // parameters of the last evaluation, the values it computed.
    bool predict(const std::vector<double>& p, std::vector<double>& values);
    std::vector<FittedPoint> fitted() const { return fittedPoints(problem_); }
    // Why the model or the squared deviation is not finite at p: one line that names the file
    // and line that cause it (a data point, or a start value of the input file), or "".
    std::string domainFault(const std::vector<double>& p);
    // FTLM: the standard error of the calculated value at every data point at p (all 0 for an
    // exact spectrum): the jackknife over the random vectors, times samplingErrorFactor.
    std::vector<double> standardErrors(const std::vector<double>& p);
    // FTLM: the covariance of the free parameters (freeIndices, file units) that the sampling of
    // the random vectors adds at p, given the Jacobian of the residuals there (as evaluate
    // gives it): the jackknife of the shift -(J^T J)^+ J^T (f_k - f) that leaving out random
    // vector k makes. All 0 for an exact spectrum.
    Eigen::MatrixXd samplingCovariance(const std::vector<double>& p,
                                       const std::vector<int>& freeIndices,
                                       const Eigen::MatrixXd& jacobian);

private:
    // The calculated value at every data point at p with each random vector left out in turn
    // (empty where there are none, or where the mean field reaches its pole).
    std::vector<std::vector<double>> jackknifeValues(const std::vector<double>& p);
    bool compute(const std::vector<double>& p, const std::vector<int>* freeIndices,
                 std::vector<double>& values, Eigen::MatrixXd* derivatives);
    // The temperature and field (tesla, 0 for the zero-field limit) of calculated value i.
    double temperatureOf(std::size_t i) const;
    double fieldOf(std::size_t i) const;
    // The factor from the molar magnetisation (N muB) to calculated value i: chi or chiT at the
    // field of the data, 1 for a magnetisation point.
    double factorOf(std::size_t i) const;
    const Problem& problem_;
    Spectrum& spectrum_;
    double toKelvin_;
    std::vector<double> lastParameters_, lastValues_; // of the last successful computation
};

// Adds a covariance of the free parameters (in the order of result.freeIndices) to the one the
// uncertainties and correlations of the fit stand for: the uncertainties and correlations
// become those of the sum. Undetermined parameters stay undetermined; without a covariance of
// the fit (no correlations) nothing changes.
void includeCovariance(FitResult& result, const Eigen::MatrixXd& extra);

} // namespace corefit
