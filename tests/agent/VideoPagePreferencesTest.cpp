// SPDX-License-Identifier: GPL-3.0-or-later
// The preferences' video pages, used as a person would: which yt-dlp and which format, what the
// window says of them, and what the download facility is given.
#include <QComboBox>
#include <QCoreApplication>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScopeGuard>
#include <QTest>
#include <QThreadPool>

#include "foundation/OpenPanel.h"
#include "foundation/URLDownload.h"
#include "tests/agent/AgentFixture.h"
#include "tests/support/Wait.h"

namespace agenttest {
namespace {

using testsupport::waitUntil;

class VideoPagePreferencesTest : public AgentTest {
protected:
    template <class T>
    T* control(const char* name) {
        return interface().window().findChild<T*>(name);
    }
};

// The video-page choices as a person makes them: each is stored, and the download facility uses
// yt-dlp as soon as the chosen program answered, or saves pages as pages without one.
TEST_F(VideoPagePreferencesTest, ChoicesTakeEffectAndAreKept) {
    controller().awakeFromNib();
    auto* field = control<QLineEdit>("videoPageToolField");
    auto* label = control<QLabel>("videoPageToolLabel");
    auto* menu = control<QComboBox>("videoPageFormatMenu");
    const QString found = "yt-dlp " + installedYtDlpVersion() + " found";
    const auto& used = foundation::URLDownload::videoPageTool();
    EXPECT_EQ(field->placeholderText(), "yt-dlp on PATH");
    QStringList choices;
    for (int i = 0; i < menu->count(); ++i)
        choices << menu->itemText(i);
    EXPECT_EQ(choices, QStringList({"Best up to 1080p", "Best", "Audio only", "Off"}));
    EXPECT_EQ(menu->currentText(), "Off");  // as the fixture stores it
    EXPECT_FALSE(used);

    QTest::keyClick(menu, Qt::Key_Home);
    EXPECT_EQ(storedDefault("videoPageFormat"), QVariant("best-1080p"));
    ASSERT_TRUE(waitUntil([&] { return label->text() == found; })) << label->text().toStdString();
    ASSERT_TRUE(used);
    EXPECT_EQ(used->program, "yt-dlp");
    EXPECT_EQ(used->format, foundation::VideoPageTool::Format::BestUpTo1080p);

    field->setText("/nonexistent/yt-dlp");
    QTest::keyClick(field, Qt::Key_Return);
    EXPECT_EQ(storedDefault("videoPageTool"), QVariant("/nonexistent/yt-dlp"));
    ASSERT_TRUE(waitUntil([&] { return label->text().startsWith("No yt-dlp found."); }))
        << label->text().toStdString();
    EXPECT_FALSE(used);

    // Browse: the dialog opens at the program in use; a cancelled one changes nothing.
    QString offered;
    QString answer = "/usr/bin/yt-dlp";
    const auto previous = foundation::OpenPanel::setProgramPresenter([&](const QString& start) {
        offered = start;
        return answer;
    });
    const auto restore = qScopeGuard([&] { foundation::OpenPanel::setProgramPresenter(previous); });
    control<QPushButton>("videoPageToolBrowseButton")->click();
    EXPECT_EQ(offered, "/nonexistent/yt-dlp");
    EXPECT_EQ(field->text(), "/usr/bin/yt-dlp");
    EXPECT_EQ(storedDefault("videoPageTool"), QVariant("/usr/bin/yt-dlp"));
    ASSERT_TRUE(waitUntil([&] { return label->text() == found; })) << label->text().toStdString();
    ASSERT_TRUE(used);
    EXPECT_EQ(used->program, "/usr/bin/yt-dlp");
    answer = QString();
    control<QPushButton>("videoPageToolBrowseButton")->click();
    EXPECT_EQ(offered, "/usr/bin/yt-dlp");
    EXPECT_EQ(field->text(), "/usr/bin/yt-dlp");

    QTest::keyClick(menu, Qt::Key_Down);
    EXPECT_EQ(storedDefault("videoPageFormat"), QVariant("best"));
    ASSERT_TRUE(
        waitUntil([&] { return used && used->format == foundation::VideoPageTool::Format::Best; }));

    // What was chosen is what the next start uses.
    interface_ = std::make_unique<MainInterface>();
    controller().awakeFromNib();
    field = control<QLineEdit>("videoPageToolField");
    menu = control<QComboBox>("videoPageFormatMenu");
    EXPECT_EQ(field->text(), "/usr/bin/yt-dlp");
    EXPECT_EQ(menu->currentText(), "Best");
    EXPECT_EQ(control<QLabel>("videoPageToolLabel")->text(), found);
    ASSERT_TRUE(used);
    EXPECT_EQ(used->program, "/usr/bin/yt-dlp");
    EXPECT_EQ(used->format, foundation::VideoPageTool::Format::Best);

    QTest::keyClick(menu, Qt::Key_End);
    EXPECT_EQ(storedDefault("videoPageFormat"), QVariant("off"));
    EXPECT_FALSE(used) << "at once";
    EXPECT_EQ(control<QLabel>("videoPageToolLabel")->text(),
              "Off: a page with a video is saved as the page.");
}

// The program may take its time to answer, and the person may change the setting meanwhile:
// the later choice is the one in force, whichever answers last.
TEST_F(VideoPagePreferencesTest, ALaterChoiceWinsOverAnEarlierAnswer) {
    setDefault("videoPageFormat", "best");
    controller().awakeFromNib();
    auto* field = control<QLineEdit>("videoPageToolField");
    auto* label = control<QLabel>("videoPageToolLabel");
    // A yt-dlp that answers once the test lets it.
    const QString gate = home_->path() + "/answer-now";
    const QString slow = home_->path() + "/slow-yt-dlp";
    QFile script(slow);
    ASSERT_TRUE(script.open(QIODevice::WriteOnly));
    script.write("#!/bin/sh\nwhile [ ! -e '" + gate.toUtf8() +
                 "' ]; do sleep 0.02; done\necho 1999.01.01\n");
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::ExeOwner);

    field->setText(slow);
    QTest::keyClick(field, Qt::Key_Return);
    EXPECT_EQ(label->text(), "Looking for yt-dlp...");
    field->setText("/usr/bin/yt-dlp");
    QTest::keyClick(field, Qt::Key_Return);
    ASSERT_TRUE(waitUntil([&] { return label->text().endsWith(" found"); }))
        << label->text().toStdString();

    QFile(gate).open(QIODevice::WriteOnly);
    // Every look-up has answered, and its answer is delivered.
    ASSERT_TRUE(QThreadPool::globalInstance()->waitForDone(10000));
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(label->text(), "yt-dlp " + installedYtDlpVersion() + " found");
    ASSERT_TRUE(foundation::URLDownload::videoPageTool());
    EXPECT_EQ(foundation::URLDownload::videoPageTool()->program, "/usr/bin/yt-dlp");
}

// A text that wraps onto more lines than before (the advice when no yt-dlp answers) is shown
// whole: the window grows for it.
TEST_F(VideoPagePreferencesTest, TheWindowGrowsToShowALongerWrappedText) {
    setDefault("videoPageFormat", "best");
    controller().awakeFromNib();
    interface().window().findChild<QAction*>("downloadsAction")->trigger();
    auto* label = control<QLabel>("videoPageToolLabel");
    ASSERT_TRUE(interface().window().isVisible());
    // As small as it goes, which leaves no room to spare.
    interface().window().resize(0, 0);
    ASSERT_TRUE(
        waitUntil([&] { return label->height() >= label->heightForWidth(label->width()); }));
    const int before = label->height();

    auto* field = control<QLineEdit>("videoPageToolField");
    field->setText("/nowhere/yt-dlp");
    QTest::keyClick(field, Qt::Key_Return);
    ASSERT_TRUE(waitUntil([&] { return label->text().startsWith("No yt-dlp found."); }));
    EXPECT_TRUE(waitUntil([&] {
        return label->height() > before && label->height() >= label->heightForWidth(label->width());
    })) << label->height()
        << " for " << label->heightForWidth(label->width());
}

}  // namespace
}  // namespace agenttest
