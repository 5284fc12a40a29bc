// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>

// Turns the link of a YouTube watch page into the direct address of its media file, by plain
// substring search at fixed markers and fixed widths in the page text (no HTML or script is
// parsed). Nothing in the agent calls it; `ferrybox --resolve-video` lets a user do so.
//
// The page address is the link itself when high definition is asked for; otherwise it is the
// format "%@%fmt=18" applied to the link alone, whose floating-point conversion gets no value.
// That conversion renders here as a zero double does, "0.000000", so the address is the link
// followed by "0.000000mt=18".
//
// The page is fetched synchronously (foundation::contentsOfURL): the calling thread blocks for
// the whole fetch without running its own queued work. Positions and lengths count the page's
// UTF-16 units; a search that finds nothing gives the position -1 (the platform's "not found"
// cut to 32 bits), and positions add their offsets in 32-bit arithmetic.
class YouTubeURLMaker {
public:
    // {media address, title, format code "18" or "22"}. Throws std::invalid_argument when the
    // page cannot be read (no network, bad address, not UTF-8), and std::out_of_range when a
    // 500-unit cut passes the end of the page or holds no closing "," or "\">".
    static QStringList getYouTubeDownloadLink(const QString& link, bool hd);
};
