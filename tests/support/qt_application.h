// The QApplication of a test program that shows windows, on the offscreen platform.
#pragma once

#include <QApplication>

namespace corvane::testing {

// Made once, at the first call; it lives to the end of the program.
inline void ensureApplication() {
    if (QApplication::instance() != nullptr) return;
    qputenv("QT_QPA_PLATFORM", "offscreen");
    static int argc = 1;
    static char name[] = "corvane_tests";
    static char* argv[] = {name, nullptr};
    new QApplication(argc, argv);
}

} // namespace corvane::testing
