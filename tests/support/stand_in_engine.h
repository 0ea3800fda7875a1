// A small problem and stand-in engines for the run cycle: shell scripts that CORVANE_ENGINE names.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/fixtures.h"

namespace corvane::testing {

// A copper dimer in K with two pairs.
inline const char* const dimerInput =
    "TITLE Cu2\nKEYWD DATA_FILE=XTT ENERGY_UNIT=K PRECISION=0.0001\n"
    "KEYWD G_START=2.0 G_STEP=0.01\nJ_VALUE1 -100 1\n"
    "SPIN_ON_SITE1 1\nSPIN_ON_SITE2 1\n"
    "INTERACTION sites 1 and 2 coupled by J1\nT_CHI 2 0.51\nT_CHI 300 0.0012\n";

// What a good engine leaves for that problem.
inline const char* const dimerOutput = "0.0125 2.1 0.003\n-0.2 0.00015\n# 0.01 0.001 0 0\n"
                                       "1 -97.25\n# 0.5\n2 1 2\n2 0.48 0.51\n300 0.0013 0.0012\n";

// Makes the script engine.sh in dir the engine: body runs with $out set to the output file
// beside the input file it is given.
inline void useScriptEngine(const ScratchDir& dir, const std::string& body) {
    const std::string path =
        dir.write("engine.sh", "#!/bin/sh\nout=\"$(dirname \"$1\")/output.txt\"\n" + body + "\n");
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    setenv("CORVANE_ENGINE", path.c_str(), 1);
}

} // namespace corvane::testing
