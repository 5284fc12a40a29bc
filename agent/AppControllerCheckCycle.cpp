// The check over the download note. The check itself comes with the note search; for now a tick
// only counts.
#include "agent/AppController.h"

void AppController::searchForNote() {
    ++checksStarted_;
}
