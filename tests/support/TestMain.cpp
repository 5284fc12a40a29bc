// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <QApplication>

#include "tests/support/PrivateSessionBus.h"

namespace {

const char kLeakOptions[] = "suppressions=" FERRYBOX_TEST_LSAN_SUPPRESSIONS ":print_suppressions=0";

void setDefault(const char* name, const char* value) {
    if (qEnvironmentVariableIsEmpty(name))
        qputenv(name, value);
}

}  // namespace

// Leaks inside system libraries are not ours to report, in this process (a sanitizer build asks
// for these options before main) or in the programs it starts (which read LSAN_OPTIONS).
extern "C" const char* __lsan_default_options() {
    return kLeakOptions;
}

// Every test binary gets a session bus of its own (nothing of the machine's desktop is reached)
// and a QApplication (widgets need one, the offscreen platform provides it), knows where the
// build's programs are, and runs its event loop only through foundation::RunLoop::runUntil.
int main(int argc, char** argv) {
    testsupport::PrivateSessionBus bus;
    setDefault("QT_QPA_PLATFORM", "offscreen");
    setDefault("FERRYBOX_BUILD_DIR", FERRYBOX_TEST_BUILD_DIR);
    setDefault("LSAN_OPTIONS", kLeakOptions);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
