// SPDX-License-Identifier: GPL-3.0-or-later
// The real ferrybox-json binary: what it prints and how it exits.
#include <gtest/gtest.h>

#include <QProcess>
#include <QTemporaryDir>

#include "tests/support/QtPrinters.h"

namespace {

struct ToolCase {
    const char* name;
    QStringList arguments;
    QByteArray input;
    int exitCode;
    QString out;
    QString err;
};

void PrintTo(const ToolCase& c, std::ostream* os) {
    *os << c.name;
}

// An expectation ending in "..." only fixes the beginning.
void expectText(const QString& actual, const QString& expected) {
    if (expected.endsWith("...")) {
        EXPECT_TRUE(actual.startsWith(expected.chopped(3))) << actual.toStdString();
    } else {
        EXPECT_EQ(actual, expected);
    }
}

QByteArray nested(int depth) {
    return QByteArray(depth, '[') + QByteArray(depth, ']');
}

class ToolTest : public ::testing::TestWithParam<ToolCase> {};

TEST_P(ToolTest, PrintsAndExits) {
    const ToolCase& c = GetParam();
    QProcess tool;
    tool.start(qEnvironmentVariable("FERRYBOX_BUILD_DIR") + "/tools/ferrybox-json", c.arguments);
    ASSERT_TRUE(tool.waitForStarted());
    tool.write(c.input);
    tool.closeWriteChannel();
    ASSERT_TRUE(tool.waitForFinished(10000));
    EXPECT_EQ(tool.exitCode(), c.exitCode);
    expectText(QString::fromUtf8(tool.readAllStandardOutput()), c.out);
    expectText(QString::fromUtf8(tool.readAllStandardError()), c.err);
}

INSTANTIATE_TEST_SUITE_P(
    Json, ToolTest,
    ::testing::Values(
        ToolCase{
            "Compact", {}, R"({ "b" : [1 2], "a" : 1.50 })", 0, "{\"b\":[1,2],\"a\":1.50}\n", ""},
        ToolCase{"PrettySorted",
                 {"--pretty", "--sort-keys", "-"},
                 R"({"b":[1],"a":{}})",
                 0,
                 "{\n  \"a\" : {},\n  \"b\" : [\n    1\n  ]\n}\n",
                 ""},
        ToolCase{"ScalarNeedsFragment", {}, "\"x\"", 1, "", "4 Valid fragment, but not JSON\n"},
        ToolCase{"Fragment", {"--fragment"}, " \"caf\xc3\xa9\" ", 0, "\"caf\xc3\xa9\"\n", ""},
        ToolCase{"TraceOldestFirst",
                 {},
                 "[1,}",
                 1,
                 "",
                 "3 Unrecognised leading character\n3 Expected value while parsing array\n"},
        ToolCase{"NoLimitPretty",
                 {"--max-depth", "0", "--pretty"},
                 "[[1]]",
                 0,
                 "[\n  [\n    1\n  ]\n]\n",
                 ""},
        ToolCase{"ByteOrderMarkIsNoWhitespace",
                 {},
                 "\xef\xbb\xbf[1]",
                 1,
                 "",
                 "3 Unrecognised leading character\n"},
        ToolCase{"DeepestNestingTheToolTakes",
                 {"--max-depth", "0"},
                 nested(10000),
                 0,
                 QString::fromLatin1(nested(10000) + "\n"),
                 ""},
        ToolCase{"NoLimitStillStopsAtTheCeiling",
                 {"--max-depth", "0"},
                 nested(40000),
                 1,
                 "",
                 "7 Nested too deep\n3 Expected value while parsing array\n..."},
        ToolCase{"LargerLimitIsLoweredToTheCeiling",
                 {"--max-depth", "99999"},
                 QByteArray(20000, '['),
                 1,
                 "",
                 "7 Nested too deep\n..."},
        ToolCase{"NotUtf8",
                 {},
                 "[\"\xff\"]",
                 2,
                 "",
                 "ferrybox-json: standard input is not UTF-8 text\n"},
        ToolCase{"MissingFile",
                 {"/nonexistent/x.json"},
                 "",
                 2,
                 "",
                 "ferrybox-json: cannot read /nonexistent/x.json: ..."},
        ToolCase{"UnknownOption",
                 {"--frobnicate"},
                 "",
                 2,
                 "",
                 "ferrybox-json: unknown option --frobnicate\n..."},
        ToolCase{"Help", {"--help"}, "", 0, "NAME\n    ferrybox-json - ...", ""}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
