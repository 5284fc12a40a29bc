// The log note: the links taken from the download note, appended to a second note.
#include "agent/AppController.h"

void AppController::updateLogNoteWith(const QStringList& lines) {
    URLLines_ = lines;
}
