// SPDX-License-Identifier: GPL-3.0-or-later
// The encoder of every request body, its 512-character cap, and the uncapped one of appends.
#include <gtest/gtest.h>

#include "client/Base64.h"

namespace {

QByteArray bytes(int n) {
    QByteArray data;
    for (int i = 0; i < n; ++i)
        data.append(static_cast<char>('A' + i % 57));
    return data;
}

TEST(Base64Test, EncodesAndCapsAt512Characters) {
    const struct {
        QByteArray input;
        QByteArray expected;
    } cases[] = {
        {"", ""},
        {"a", "YQ=="},
        {"ab", "YWI="},
        {"abc", "YWJj"},
        {QByteArray("\xff\xfe\x00", 3), "//4A"},
        {bytes(381), bytes(381).toBase64()},
        {bytes(382), bytes(382).toBase64()},
        {bytes(384), bytes(384).toBase64()},
        {bytes(400), bytes(384).toBase64()},
        {bytes(1000), bytes(384).toBase64()},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(encodeData(c.input), c.expected) << c.input.size() << " bytes";
        EXPECT_EQ(encodeDataUncapped(c.input), c.input.toBase64()) << c.input.size() << " bytes";
    }
    EXPECT_EQ(encodeData(bytes(382)).size(), 512);
    EXPECT_EQ(encodeData(bytes(381)).size(), 508);
}

TEST(Base64Test, OutOfRoomKeepsTheGroupsAlreadyWritten) {
    const unsigned char input[] = {'a', 'b', 'c', 'd', 'e', 'f', 'g'};
    char out[16];
    std::fill(std::begin(out), std::end(out), '.');
    EXPECT_EQ(encode(7, input, 3, out), 1);
    EXPECT_EQ(QByteArray(out, 16), QByteArray(16, '.'));
    EXPECT_EQ(encode(7, input, 10, out), 1);
    EXPECT_EQ(QByteArray(out, 10), "YWJjZGVm..");
    EXPECT_EQ(encode(7, input, 12, out), 0);
    EXPECT_EQ(QByteArray(out, 12), "YWJjZGVmZw==");
}

}  // namespace
