// SPDX-License-Identifier: GPL-3.0-or-later
// The parser's strictness and looseness, case by case: each input gives a value (shown here as
// the compact writer writes it) or a whole error trace.
#include <gtest/gtest.h>

#include "Classes/TWJSON/TWJSON.h"
#include "foundation/Log.h"
#include "tests/json/TraceCheck.h"

namespace {

using jsontest::traceLines;

struct ParseCase {
    std::string name;
    QString input;
    QString value;      // written compactly; null when parsing fails
    QStringList trace;  // when it fails
};

void PrintTo(const ParseCase& c, std::ostream* os) {
    *os << c.name;
}

QString written(const TWJsonValue& v) {
    TWJsonWriter writer;
    return writer.stringWithFragment(v);
}

class FragmentTest : public ::testing::TestWithParam<ParseCase> {};

TEST_P(FragmentTest, GivesThisValueOrThisTrace) {
    const ParseCase& c = GetParam();
    TWJsonParser parser;
    const auto value = parser.fragmentWithString(c.input);
    if (c.value.isNull()) {
        EXPECT_FALSE(value.has_value()) << written(*value).toStdString();
        EXPECT_EQ(traceLines(parser), c.trace);
    } else {
        ASSERT_TRUE(value.has_value()) << traceLines(parser).join(" | ").toStdString();
        EXPECT_EQ(written(*value), c.value);
        EXPECT_EQ(parser.errorTrace(), nullptr);
    }
}

#define OK(name, input, value) \
    ParseCase {                \
        name, input, value, {} \
    }
#define FAILS(name, input, ...)   \
    ParseCase {                   \
        name, input, QString(), { \
            __VA_ARGS__           \
        }                         \
    }

INSTANTIATE_TEST_SUITE_P(
    WhitespaceAndLiterals, FragmentTest,
    ::testing::Values(FAILS("Empty", "", "11 Unexpected end of string"),
                      FAILS("OnlySpaces", "   ", "11 Unexpected end of string"),
                      OK("AllSixWhitespaces", " \t\n\v\f\r{} \t\n\v\f\r", "{}"),
                      FAILS("NoBreakSpaceIsNotWhitespace", QString::fromUtf8("\u00a0[]"),
                            "3 Unrecognised leading character"),
                      OK("True", "true", "true"), OK("False", "false", "false"),
                      OK("Null", "null", "null"),
                      OK("LiteralNeedsNoBoundaryInsideArray", "[truefalse]", "[true,false]"),
                      FAILS("GarbageAfterLiteral", "truex", "10 Garbage after JSON"),
                      FAILS("BrokenTrue", "tru", "3 Expected 'true'"),
                      FAILS("BrokenFalse", "fals", "3 Expected 'false'"),
                      FAILS("BrokenNull", "nul", "3 Expected 'null'"),
                      FAILS("Unrecognised", "@", "3 Unrecognised leading character"),
                      FAILS("NulEndsTheInput", QString("[1,") + QChar(0) + "2]",
                            "11 End of input while parsing array")),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Numbers, FragmentTest,
    ::testing::Values(OK("MinusZero", "-0", "-0"), OK("SmallExponent", "0.5e-3", "0.5e-3"),
                      OK("CapitalExponent", "1E+2", "1E+2"), OK("TrailingZeroKept", "1.50", "1.50"),
                      OK("HugeStaysExact", "123456789012345678901234567890.000000000000000000001",
                         "123456789012345678901234567890.000000000000000000001"),
                      FAILS("LoneMinus", "-", "2 No digits after initial minus"),
                      FAILS("LeadingZero", "01", "2 Leading 0 disallowed in number"),
                      FAILS("NoFraction", "1.", "2 No digits after decimal point"),
                      FAILS("NoExponent", "1e", "2 No digits after exponent"),
                      FAILS("SignedNoExponent", "1e+", "2 No digits after exponent"),
                      FAILS("LeadingPlus", "+1", "2 Leading + disallowed in number"),
                      FAILS("MinusLetter", "-a", "2 No digits after initial minus"),
                      FAILS("NumberInArrayFails", "[01]", "2 Leading 0 disallowed in number",
                            "3 Expected value while parsing array")),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    StringsAndEscapes, FragmentTest,
    ::testing::Values(
        OK("Plain", "\"abc\"", "\"abc\""), OK("Empty", "\"\"", "\"\""),
        OK("Multibyte", QString::fromUtf8("\"Grüße ☃\""), QString::fromUtf8("\"Grüße ☃\"")),
        OK("SimpleEscapes", R"("\"\\\/\b\f\n\r\t")", R"("\"\\/\b\f\n\r\t")"),
        OK("UnicodeEscape", R"("\u00e9")", QString::fromUtf8("\"é\"")),
        OK("PairBecomesOneUnit", R"("\ud83d\ude00")", QString("\"") + QChar(0xF600) + "\""),
        FAILS("LoneLowSurrogate", R"("\udfff")", "6 Invalid high character in surrogate pair",
              "6 Broken unicode character"),
        FAILS("LowSurrogateDFFFRefused", R"("\ud83d\udfff")", "6 Invalid low surrogate char",
              "6 Broken unicode character"),
        FAILS("HighWithoutLow", R"("\ud83dx")", "6 Missing low character in surrogate pair",
              "6 Broken unicode character"),
        FAILS("BadHexDigit", R"("\u12G4")", "6 Missing hex digit in quad", "6 Missing hex quad",
              "6 Broken unicode character"),
        FAILS("RawTab", "\"a\tb\"", "5 Unescaped control character '0x9'"),
        FAILS("Unterminated", "\"abc", "5 Unescaped control character '0x0'"),
        FAILS("EndsAfterEscape", "\"abc\\n", "11 Unexpected EOF while parsing string"),
        FAILS("IllegalEscape", R"("\x")", "8 Illegal escape sequence '0x78'"),
        FAILS("BackslashAtEnd", "\"\\", "8 Illegal escape sequence '0x0'")),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    ArraysObjectsAndCommas, FragmentTest,
    ::testing::Values(
        OK("EmptyArray", "[]", "[]"), OK("NoCommaNeeded", "[1 2]", "[1,2]"),
        OK("PairsWithoutComma", R"({"a":1 "b":2})", R"({"a":1,"b":2})"),
        OK("LaterDuplicateWins", R"({"a":1,"a":2})", R"({"a":2})"),
        OK("KeysKeepDocumentOrder", R"({"z":1,"a":2,"m":3})", R"({"z":1,"a":2,"m":3})"),
        FAILS("TrailingCommaArray", "[1,]", "9 Trailing comma disallowed in array"),
        FAILS("TrailingCommaObject", R"({"a":1,})", "9 Trailing comma disallowed in object"),
        FAILS("DoubleComma", "[1,,2]", "3 Unrecognised leading character",
              "3 Expected value while parsing array"),
        FAILS("WrongCloser", "[1,}", "3 Unrecognised leading character",
              "3 Expected value while parsing array"),
        FAILS("OpenOnly", "[  ", "11 Unexpected end of string",
              "3 Expected value while parsing array"),
        FAILS("ArrayNeverCloses", "[1", "11 End of input while parsing array"),
        FAILS("ObjectNeverCloses", R"({"a":1)", "11 End of input while parsing object"),
        FAILS("KeyNotString", "{1:2}", "3 Object key string expected"),
        FAILS("KeyStringBroken", "{\"a\tb\":1}", "5 Unescaped control character '0x9'",
              "3 Object key string expected"),
        FAILS("NoColon", R"({"a" 1})", "3 Expected ':' separating key and value"),
        FAILS("NoValue", R"({"key":})", "3 Unrecognised leading character",
              "3 Object value expected for key: key"),
        FAILS("NestedFailureUnwinds", R"({"a":[1,{"b":tru}]})", "3 Expected 'true'",
              "3 Object value expected for key: b", "3 Expected value while parsing array",
              "3 Object value expected for key: a")),
    [](const auto& info) { return info.param.name; });

// Object keys take fast paths of their own: a run scanned eight bytes at a time, a cache of
// recent keys (short keys only, 256 slots), an index once an object outgrows a linear search.
// Each case must come out as the slow path would have it.
std::vector<ParseCase> keyFastPathCases() {
    std::vector<ParseCase> cases;
    const auto name = [](const char* what, int n) { return what + std::to_string(n); };
    for (int at = 0; at < 17; ++at) {
        const QString head(at, 'k');
        cases.push_back(OK(name("QuoteAt", at), "{\"" + head + "\":1}", "{\"" + head + "\":1}"));
        cases.push_back(
            OK(name("EscapeAt", at), "{\"" + head + "\\n\":1}", "{\"" + head + "\\n\":1}"));
        cases.push_back(FAILS(name("ControlByteAt", at), "{\"" + head + "\x01\":1}",
                              "5 Unescaped control character '0x1'",
                              "3 Object key string expected"));
    }
    for (int length : {48, 49, 300}) {
        const QString key(length, 'L');
        const QString pair = "{\"" + key + "\":1}";
        cases.push_back(OK(name("RepeatedKeyOfLength", length), "[" + pair + "," + pair + "]",
                           "[" + pair + "," + pair + "]"));
    }
    QStringList members;
    QStringList expected;
    for (int i = 0; i < 300; ++i) {
        members << QString("\"key%1\":%1").arg(i);
        expected << QString("\"key%1\":%2").arg(i).arg(i == 0 || i == 13 ? -i - 1 : i);
    }
    const QString many = members.join(',');
    cases.push_back(OK("DuplicatesPastTheIndexThreshold",
                       "{" + many + ",\"key0\":-1,\"key13\":-14}", "{" + expected.join(',') + "}"));
    cases.push_back(OK("ManyKeysSeenTwice", "[{" + many + "},{" + many + "}]",
                       "[{" + many + "},{" + many + "}]"));
    return cases;
}

INSTANTIATE_TEST_SUITE_P(KeyFastPaths, FragmentTest, ::testing::ValuesIn(keyFastPathCases()),
                         [](const auto& info) { return info.param.name; });

QString nested(int depth) {
    return QString(depth, '[') + QString(depth, ']');
}

TEST(ParserDepthTest, LimitCountsOpenContainers) {
    TWJsonParser parser;
    EXPECT_TRUE(parser.objectWithString(nested(512)));
    EXPECT_FALSE(parser.objectWithString(nested(513)));
    EXPECT_EQ(traceLines(parser).first(), "7 Nested too deep");
    parser.setMaxDepth(0);
    EXPECT_TRUE(parser.objectWithString(nested(3000)));
    parser.setMaxDepth(2);
    EXPECT_TRUE(parser.objectWithString(R"([{"a":[]}, []])") == std::nullopt);
    EXPECT_TRUE(parser.objectWithString(R"([{"a":1}, []])"));
}

TEST(ParserObjectTest, ScalarsAreOnlyFragments) {
    TWJsonParser parser;
    for (const char* scalar : {"1", "\"s\"", "true", "null"}) {
        EXPECT_TRUE(parser.fragmentWithString(scalar)) << scalar;
        EXPECT_FALSE(parser.objectWithString(scalar)) << scalar;
        EXPECT_EQ(traceLines(parser), QStringList{"4 Valid fragment, but not JSON"});
    }
    EXPECT_FALSE(parser.objectWithString(QString()));
    EXPECT_EQ(traceLines(parser), QStringList{"12 Input was 'nil'"});
}

TEST(ParserUtf8Test, InvalidBytesAreNoInput) {
    TWJsonParser parser;
    EXPECT_TRUE(parser.objectWithUTF8(QByteArray("[\"\xc3\xa9\"]")));
    for (const QByteArray& bad : {QByteArray("[\"\xc3\"]"), QByteArray("[\"\xed\xa0\x80\"]"),
                                  QByteArray("[\"\xc0\xaf\"]"), QByteArray()}) {
        EXPECT_FALSE(parser.objectWithUTF8(bad));
        EXPECT_EQ(traceLines(parser), QStringList{"12 Input was 'nil'"});
    }
}

TEST(ParserTraceTest, EachParseStartsAFreshTraceAndTellsItsObserver) {
    TWJsonParser parser;
    QStringList changes;
    parser.setErrorTraceObserver([&](bool before) { changes << (before ? "will" : "did"); });
    EXPECT_FALSE(parser.fragmentWithString("[ "));
    const auto failedTrace = parser.errorTrace();
    EXPECT_TRUE(parser.fragmentWithString("[]"));
    EXPECT_EQ(parser.errorTrace(), nullptr);
    ASSERT_NE(failedTrace, nullptr);
    EXPECT_EQ(failedTrace->size(), 2u) << "a trace handed out stays as it was";
    EXPECT_EQ(changes, (QStringList{"will", "did", "will", "did", "will", "did", "will", "did"}));
}

TEST(CategoryTest, FailuresAreLoggedWithTheirTrace) {
    foundation::LogCapture log;
    EXPECT_TRUE(JSONFragmentValue("1"));
    EXPECT_FALSE(JSONValue("1"));
    EXPECT_FALSE(JSONFragmentValue("[1,]"));
    EXPECT_TRUE(JSONValue("[1]"));
    ASSERT_EQ(log.lines().size(), 2);
    EXPECT_EQ(
        log.lines()[0],
        "-JSONValue failed. Error trace is: (\n    Error Domain=org.lumenwick.JSON.ErrorDomain "
        "Code=4 \"Valid fragment, but not JSON\"\n)");
    EXPECT_TRUE(log.lines()[1].startsWith("-JSONFragmentValue failed. Error trace is: ("));
    EXPECT_TRUE(log.lines()[1].contains("Code=9 \"Trailing comma disallowed in array\""));
}

}  // namespace
