// Every test program keeps its settings, caches, data and runtime files in a folder of its own,
// made before main and removed at its end, and the programs it starts inherit it: Qt keeps the
// file dialogs' history among the user's settings, and no test may touch the user's files or
// read what another test program left behind.
#include <cstdlib>
#include <sys/stat.h>

#include "support/fixtures.h"

namespace {

struct PrivateUserFolders {
    corvane::testing::ScratchDir folder;
    PrivateUserFolders() {
        const char* const variables[][2] = {{"XDG_CONFIG_HOME", "config"},
                                            {"XDG_CACHE_HOME", "cache"},
                                            {"XDG_DATA_HOME", "data"},
                                            {"XDG_STATE_HOME", "state"},
                                            {"XDG_RUNTIME_DIR", "runtime"}};
        for (const auto& [variable, name] : variables) {
            ::mkdir(folder.file(name).c_str(), 0700);
            setenv(variable, folder.file(name).c_str(), 1);
        }
    }
};

const PrivateUserFolders privateUserFolders;

} // namespace
