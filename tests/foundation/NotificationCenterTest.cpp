// SPDX-License-Identifier: GPL-3.0-or-later
// Observers hear only their sender, in registration order, and may unregister while called.
#include <gtest/gtest.h>

#include <QStringList>

#include "foundation/Error.h"
#include "foundation/NotificationCenter.h"

namespace {

using foundation::Notification;
using foundation::NotificationCenter;

TEST(NotificationCenterTest, SenderRestrictionAndRemovalDuringPost) {
    NotificationCenter center;
    int a = 0;
    int b = 0;
    QStringList heard;
    const int senderA = 0, senderB = 0;
    center.addObserver(&heard, "Done", &senderA, [&](const Notification&) { heard << "a"; });
    center.addObserver(&heard, "Done", nullptr, [&](const Notification&) {
        heard << "any";
        center.removeObserver(&a);  // a later observer goes before its turn
    });
    center.addObserver(&a, "Done", nullptr, [&](const Notification&) { heard << "removed"; });
    center.addObserver(&b, "Other", nullptr, [&](const Notification&) { heard << "other"; });

    center.post("Done", &senderB);
    EXPECT_EQ(heard, (QStringList{"any"}));
    heard.clear();
    center.post("Done", &senderA, {{"error", foundation::Error("D", 7, "broken")}});
    EXPECT_EQ(heard, (QStringList{"a", "any"}));

    center.removeObserver(&heard, "Done", &senderA);
    heard.clear();
    center.post("Done", &senderA);
    EXPECT_EQ(heard, (QStringList{"any"}));
    EXPECT_EQ(center.observerCount(), 2u);
}

TEST(NotificationCenterTest, UserInfoValuesAreTyped) {
    const Notification n{"Name", nullptr, {{"error", foundation::Error("D", 7, "broken")}}};
    ASSERT_NE(n.value<foundation::Error>("error"), nullptr);
    EXPECT_EQ(n.value<foundation::Error>("error")->description(),
              "Error Domain=D Code=7 \"broken\"");
    EXPECT_EQ(n.value<QString>("error"), nullptr);
    EXPECT_EQ(n.value<foundation::Error>("missing"), nullptr);
}

}  // namespace
