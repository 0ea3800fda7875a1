// A magnetometer's file in the form: the sample's values the user confirms or types, the rows
// chosen for the chi or chiT set (by field) and for the magnetization set (by temperature), and
// the pairs and points they give, as the form's texts.
#pragma once

#include <string>
#include <vector>

#include "fit/fit_document.h"
#include "import/moment_file.h"
#include "import/moment_sets.h"
#include "problem_form.h"

namespace newqpi {

struct MomentChoice {
    // As typed: mg, g mol-1 and cm3 mol-1 (blank: no diamagnetic correction).
    std::string mass, molarMass, diamagnetic;
    bool chiSet = false;
    corvane::DataKind kind = corvane::DataKind::ChiT;
    double field = 0.0; // Oe, one of fieldLevels
    bool magnetSet = false;
    double temperature = 0.0; // K, one of temperatureLevels
    corvane::Branch branch = corvane::Branch::FirstRising;
};

// What a file suggests: the mass and molar mass of its header (the diamagnetic correction
// blank: SAMPLE_SIZE is only offered), the chi set at the field most rows have, and the
// magnetization set at the lowest temperature with a field loop when there is one.
MomentChoice suggestedChoice(const corvane::MomentFile& file);

struct ConvertedMoments {
    std::vector<PairText> pairs; // the chi set as chi or chiT
    std::string field;           // its field in T, "" without a chi set
    std::vector<MagnetText> points;
    std::string summary; // what was taken, in a sentence or two
};

// The sets of choice converted. Returns the problems that keep them from being converted, one
// sentence each (a mass that is missing or not a number, no set chosen, a set without rows);
// empty when converted is filled.
std::vector<std::string> convertMoments(const corvane::MomentFile& file, const MomentChoice& choice,
                                        ConvertedMoments& converted);

// The file as one line: its name, format, rows, moment column and rows skipped.
std::string fileSummary(const corvane::MomentFile& file);

} // namespace newqpi
