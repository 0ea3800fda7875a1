// The problem as the newQPI window holds it: the texts of its fields, checked as a whole with
// one sentence per problem, and turned into a fit document once no problem remains.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "data_import.h"
#include "fit/fit_document.h"

namespace newqpi {

struct ParameterText {
    std::string start, step;
    bool fit = true; // written with its step; a parameter not fitted is written with step 0
};

struct PathText {
    std::string siteA, siteB, j; // j as "2" or "J2"
};

// One magnetization point as text: T (K), H (T) and M (N muB).
struct MagnetText {
    std::string temperature, field, value;
};

struct ProblemForm {
    std::string title;
    corvane::DataKind dataKind = corvane::DataKind::ChiT;
    corvane::EnergyUnit energyUnit = corvane::EnergyUnit::Cm1;
    std::string precision = "0.00001";
    ParameterText g{"2.0", "0.01", true};
    ParameterText c{"0.001", "0.0001", true}; // an impurity tail is in almost every sample
    ParameterText zJ{"0.0", "0.01", false};
    ParameterText tip{"0.0", "0.00001", false};
    std::vector<int> spins;             // 2S of each site; 0 while none is chosen
    std::vector<ParameterText> jValues; // J1, J2, ...
    std::vector<PathText> paths;        // exchange paths
    std::vector<PairText> pairs;        // measured pairs
    std::string field = "0";            // T, at which the pairs were measured (0: zero field)
    std::vector<MagnetText> magnetPoints;
    // Kept as an opened input file gives them; the form does not change them.
    corvane::Weighting weighting = corvane::Weighting::Uniform;
    double magnetWeight = 1.0;
};

// A new J value's start and step.
inline const ParameterText newJValue{"0.0", "1.0", true};

// S as the user reads it, from 2S: 1 gives "1/2", 2 gives "1", 3 gives "3/2".
std::string spinText(int twiceSpin);

// The observed quantity's name: "chiT" or "chi".
const char* observedName(corvane::DataKind kind);

// Every problem of the form in the order of its fields, one sentence each; empty when the
// form makes an input file that the desktop program fits.
std::vector<std::string> formProblems(const ProblemForm& form);

// The document of a form without problems, as calculation 1.
void fillDocument(const ProblemForm& form, corvane::FitDocument& doc);

// The form of a document read from an input file (calculation 1).
ProblemForm formOf(const corvane::FitDocument& doc);

enum class PathShape { Ring, Chain, AllPairs };

// The site numbers of text such as "1-4", "1 2 3" or "1,3, 5-6", each from 1 to siteCount and
// none twice; a range may run down ("4-1"). Blank text names all sites. False, with a sentence
// in error, when text is not such a list.
bool parseSiteList(std::string_view text, int siteCount, std::vector<int>& sites,
                   std::string& error);

// Adds to form the paths of shape over sites (in their order), all with J value j: a ring
// joins each site to the next and the last to the first, a chain leaves the last one open, all
// pairs joins every two sites. A path that joins two sites joined already is not added again.
// Returns the number of paths added.
int addPaths(ProblemForm& form, PathShape shape, const std::vector<int>& sites, int j);

} // namespace newqpi
