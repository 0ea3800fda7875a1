// qpname_helper [--qpname-token TOKEN] set NAME | get | clear: the name store from a process of
// its own, for the tests. With set it stands in for newQPI, which stores the name of the file it
// has saved for the window whose token it was given (and for no one without a token); get and
// clear are the window's side.
#include <cstdio>
#include <cstring>
#include <string>

#include "qpname/qpname.h"

int main(int argc, char** argv) {
    std::string token;
    int first = 1;
    if (argc > 2 && std::strcmp(argv[1], "--qpname-token") == 0) {
        token = argv[2];
        first = 3;
    }
    const int count = argc - first;
    const char* action = count > 0 ? argv[first] : "";
    if (count == 2 && std::strcmp(action, "set") == 0) {
        std::string error;
        if (corvane::set_qpname(token, argv[first + 1], error)) return 0;
        std::fprintf(stderr, "qpname_helper: %s\n", error.c_str());
        return 1;
    }
    if (count == 1 && std::strcmp(action, "get") == 0) {
        const std::string name = corvane::get_qpname(token);
        std::fwrite(name.data(), 1, name.size(), stdout);
        return 0;
    }
    if (count == 1 && std::strcmp(action, "clear") == 0) {
        corvane::clear_qpname(token);
        return 0;
    }
    std::fprintf(stderr, "usage: qpname_helper [--qpname-token TOKEN] set NAME | get | clear\n");
    return 2;
}
