// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>
#include <memory>
#include <string>

namespace httplib {
class Client;
}

namespace testsupport {

class NotesServerProcess;

// An account of the real ferrybox-notes as a phone or the web page sees it: notes written and
// read straight through the API, around whatever the agent does.
class NotesAccount {
public:
    NotesAccount(NotesServerProcess& service, const QString& email, const QString& password);
    ~NotesAccount();

    // The new note's key; empty when the service refused.
    std::string create(const QString& text);
    // Replaces the note's text; false when the service refused.
    bool update(const std::string& key, const QString& text);
    // The note's text; null when there is no such note.
    QString text(const std::string& key);
    // The texts of the live notes that hold the words, newest first.
    QStringList find(const QString& words);

private:
    std::string query(const std::string& key = {}) const;

    std::unique_ptr<httplib::Client> client_;
    std::string email_;
    std::string token_;
};

}  // namespace testsupport
