// A reference that shares nothing with the engine: the exchange Hamiltonian of a small cluster
// and its total Sz in the whole product basis, from Kronecker products of spin matrices.
#pragma once

#include <array>
#include <cmath>
#include <vector>

#include <Eigen/Dense>

#include "problem.h"

namespace corefit::reference {

struct ProductSpace {
    Eigen::MatrixXd h;  // H = -2 sum J S_a.S_b, J in kelvin
    Eigen::MatrixXd sz; // Sz of all sites
};

inline ProductSpace productSpace(const std::vector<int>& twiceSpin, const std::vector<Bond>& bonds,
                                 const std::vector<double>& jKelvin) {
    using Matrix = Eigen::MatrixXd;
    auto kron = [](const Matrix& a, const Matrix& b) {
        Matrix out(a.rows() * b.rows(), a.cols() * b.cols());
        for (Eigen::Index i = 0; i < a.rows(); ++i)
            for (Eigen::Index j = 0; j < a.cols(); ++j)
                out.block(i * b.rows(), j * b.cols(), b.rows(), b.cols()) = a(i, j) * b;
        return out;
    };
    // Site operators Sx, iSy (real), Sz embedded in the whole space.
    const std::size_t n = twiceSpin.size();
    std::vector<std::array<Matrix, 3>> ops(n);
    for (std::size_t site = 0; site < n; ++site) {
        const double s = twiceSpin[site] / 2.0;
        const Eigen::Index d = twiceSpin[site] + 1;
        Matrix plus = Matrix::Zero(d, d), z = Matrix::Zero(d, d);
        for (Eigen::Index k = 0; k < d; ++k) {
            const double m = s - static_cast<double>(k);
            z(k, k) = m;
            if (k > 0) plus(k - 1, k) = std::sqrt(s * (s + 1) - m * (m + 1));
        }
        const std::array<Matrix, 3> local{(plus + plus.transpose()) / 2,
                                          (plus - plus.transpose()) / 2, z};
        for (std::size_t c = 0; c < 3; ++c) {
            Matrix full = Matrix::Identity(1, 1);
            for (std::size_t other = 0; other < n; ++other)
                full = kron(full, other == site ? local[c]
                                                : Matrix::Identity(twiceSpin[other] + 1,
                                                                   twiceSpin[other] + 1));
            ops[site][c] = full;
        }
    }
    const Eigen::Index dim = ops[0][0].rows();
    ProductSpace space{Matrix::Zero(dim, dim), Matrix::Zero(dim, dim)};
    for (const Bond& bond : bonds) {
        const auto& a = ops[static_cast<std::size_t>(bond.a)];
        const auto& b = ops[static_cast<std::size_t>(bond.b)];
        // (iSy_a)(iSy_b) = -Sy_a Sy_b
        space.h += -2 * jKelvin[static_cast<std::size_t>(bond.j)] *
                   (a[0] * b[0] - a[1] * b[1] + a[2] * b[2]);
    }
    for (const auto& site : ops) space.sz += site[2];
    return space;
}

} // namespace corefit::reference
