// SPDX-License-Identifier: GPL-3.0-or-later
#include "client/Base64.h"

#include <array>
#include <limits>
#include <stdexcept>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint32_t kEncodedCap = 512;

}  // namespace

int encode(std::uint32_t inputLength, const unsigned char* input, std::uint32_t outputCapacity,
           char* output) {
    for (std::uint32_t at = 0; at < inputLength; at += 3) {
        if (outputCapacity < 4)
            return 1;
        const std::uint32_t groupSize = std::min<std::uint32_t>(3, inputLength - at);
        std::uint32_t bits = 0;
        for (std::uint32_t i = 0; i < groupSize; ++i)
            bits = (bits << 8) | input[at + i];
        // Pad the group to a whole number of 6-bit characters.
        bits <<= (groupSize == 2 ? 2 : groupSize == 1 ? 4 : 0);
        const std::uint32_t characters = groupSize + 1;
        for (int i = 0; i < 4; ++i)
            output[i] = '=';
        for (std::uint32_t i = characters; i-- > 0;) {
            output[i] = kAlphabet[bits & 0x3f];
            bits >>= 6;
        }
        output += 4;
        outputCapacity -= 4;
    }
    return 0;
}

QByteArray encodeData(const QByteArray& data) {
    std::array<char, kEncodedCap> area{};
    encode(static_cast<std::uint32_t>(data.size()),
           reinterpret_cast<const unsigned char*>(data.constData()), kEncodedCap, area.data());
    qsizetype length = 0;
    while (length < static_cast<qsizetype>(area.size()) && area[length] != '\0')
        ++length;
    return QByteArray(area.data(), length);
}

QByteArray encodeDataUncapped(const QByteArray& data) {
    const qsizetype length = (data.size() + 2) / 3 * 4;
    if (length > std::numeric_limits<std::uint32_t>::max())
        throw std::length_error("encodeDataUncapped: input too long for base64");
    QByteArray text(length, Qt::Uninitialized);
    encode(static_cast<std::uint32_t>(data.size()),
           reinterpret_cast<const unsigned char*>(data.constData()),
           static_cast<std::uint32_t>(length), text.data());
    return text;
}
