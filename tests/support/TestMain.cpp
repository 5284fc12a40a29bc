#include <gtest/gtest.h>

#include <QApplication>

#include "tests/support/PrivateSessionBus.h"

// Every test binary gets a session bus of its own (nothing of the machine's desktop is reached)
// and a QApplication (widgets need one, the offscreen platform provides it), and runs its event
// loop only through foundation::RunLoop::runUntil.
int main(int argc, char** argv) {
    testsupport::PrivateSessionBus bus;
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
