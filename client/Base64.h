// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <cstdint>

// Standard base64 (RFC 4648 alphabet, "=" padding, no line breaks, no terminator). Returns 0,
// or 1 when the output ran out of room; groups written before then stay written.
int encode(std::uint32_t inputLength, const unsigned char* input, std::uint32_t outputCapacity,
           char* output);

// The base64 text of data, capped at 512 characters: every request body the service client
// sends is cut there, so input past its first 384 bytes is dropped.
QByteArray encodeData(const QByteArray& data);

// The base64 text of all of data, uncapped; std::length_error past what encode() can count.
// For the body of an append (LWSimplenoteAppend), which carries one line rather than a note:
// the service adds it to the note on its own side and bounds the note's length itself, while a
// line cut at the cap would land as a broken link.
QByteArray encodeDataUncapped(const QByteArray& data);
