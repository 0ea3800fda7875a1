// qpname_helper set NAME | get | clear: the name store from a process of its own, for the tests
// (and as a stand-in for newQPI, which stores the name of the file it has saved).
#include <cstdio>
#include <cstring>
#include <string>

#include "qpname/qpname.h"

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "set") == 0) {
        std::string error;
        if (corvane::set_qpname(argv[2], error)) return 0;
        std::fprintf(stderr, "qpname_helper: %s\n", error.c_str());
        return 1;
    }
    if (argc == 2 && std::strcmp(argv[1], "get") == 0) {
        const std::string name = corvane::get_qpname();
        std::fwrite(name.data(), 1, name.size(), stdout);
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "clear") == 0) {
        corvane::clear_qpname();
        return 0;
    }
    std::fprintf(stderr, "usage: qpname_helper set NAME | get | clear\n");
    return 2;
}
