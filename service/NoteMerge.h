// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

namespace notes {

// What a write leaves when the note moved on since the version it was based on: the writer's
// text, less the lines that the others removed since (and the writer still has as they were),
// plus the lines that the others added since and the writer does not have. A line the others
// added goes where they put it, before the next line of the base that the writer kept, or at
// the end. Lines end at a line feed only.
//
// So the agent, which took the links it read and writes back the header, keeps a link shared
// meanwhile; and a page that saves a note opened before the agent took its links does not put
// them back.
QString mergeNoteText(const QString& base, const QString& writer, const QString& current);

// Whether appending line to the note as it is now (current) changes it: not when the note has
// the line already, nor when the writer saw it there (seen: the note as the writer last saw it,
// or null) and it was taken out since, as a merge of that writer's text would keep it out.
bool appendAdds(const QString& line, const QString& current, const QString& seen);

// current with line as a line of its own at the end.
QString appendedText(const QString& current, const QString& line);

}  // namespace notes
