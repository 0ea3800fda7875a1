// The molar susceptibility of the cluster with mean field, impurity and TIP, and the fit model
// over the data points.
#pragma once

#include <string>
#include <vector>

#include "fit.h"
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

// FTLM: the standard error of <M^2> at temperature t from the spread of the estimates of the
// random vectors taken one at a time; 0 for levels that are all exact.
double thermalMomentError(const Levels& levels, double t);

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

// Residuals calculated - observed of the fitted quantity (chi or chiT) over the fitted range.
// Parameters are in the file's units: g, C, zJ, Xtip, J1..Jn.
class SusceptibilityModel final : public LeastSquaresModel {
public:
    SusceptibilityModel(const Problem& problem, Spectrum& spectrum);
    int residualCount() const override { return problem_.last - problem_.first + 1; }
    bool evaluate(const std::vector<double>& p, Eigen::VectorXd& residuals,
                  Eigen::MatrixXd* jacobian, const std::vector<int>& freeIndices) override;
    // The fitted quantity at every data point, also outside the fitted range; at the parameters
    // of the last evaluation, the values it computed.
    bool predict(const std::vector<double>& p, std::vector<double>& values);
    // Why the model or the squared deviation is not finite at p: one line that names the file
    // and line that cause it (a data point, or a start value of the input file), or "".
    std::string domainFault(const std::vector<double>& p);
    // FTLM: the standard error of the fitted quantity at every data point at p (all 0 for an
    // exact spectrum).
    std::vector<double> standardErrors(const std::vector<double>& p);

private:
    bool compute(const std::vector<double>& p, const std::vector<int>* freeIndices,
                 std::vector<double>& values, Eigen::MatrixXd* derivatives);
    const Problem& problem_;
    Spectrum& spectrum_;
    double toKelvin_;
    std::vector<double> lastParameters_, lastValues_; // of the last successful computation
};

} // namespace corefit
