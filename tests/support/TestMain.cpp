#include <gtest/gtest.h>

#include <QApplication>

// Every test binary gets a QApplication (widgets need one, the offscreen platform provides it)
// and runs its event loop only through foundation::RunLoop::runUntil.
int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
