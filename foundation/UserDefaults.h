// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QVariant>
#include <memory>

class QSettings;

namespace foundation {

// The per-user defaults store: $XDG_CONFIG_HOME/Ferrybox/Ferrybox.conf (INI). A number written
// reads back as a number and a string as a string, even a string such as "10". The file is
// readable by its owner only (0600), in a folder that only its owner can enter (0700).
class UserDefaults {
public:
    static UserDefaults& standardUserDefaults();
    // Points the standard store at the file for the current environment again (tests change
    // XDG_CONFIG_HOME between cases). Unsynchronised changes are dropped.
    static void resetStandardUserDefaults();

    explicit UserDefaults(const QString& filePath);
    ~UserDefaults();

    static QString defaultFilePath();
    QString filePath() const;

    // Invalid QVariant when absent.
    QVariant objectForKey(const QString& key) const;
    // Null QString when absent. A number or a boolean reads as its text ("1", "true"), so that a
    // value edited by hand without quotes still means what it says.
    QString stringForKey(const QString& key) const;
    // An invalid value removes the key.
    void setObject(const QVariant& value, const QString& key);
    void removeObjectForKey(const QString& key);
    // Writes every change to disk; false when the file could not be written.
    bool synchronize();

private:
    std::unique_ptr<QSettings> settings_;
};

}  // namespace foundation
