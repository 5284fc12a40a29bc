// SPDX-License-Identifier: GPL-3.0-or-later
// The writer's output and refusals, and round trips of parsed text.
#include <gtest/gtest.h>

#include <QDateTime>

#include "Classes/TWJSON/TWJSON.h"
#include "foundation/Log.h"
#include "tests/json/TraceCheck.h"

namespace {

using jsontest::traceLines;

TWJsonValue parsed(const QString& text) {
    TWJsonParser parser;
    auto v = parser.fragmentWithString(text);
    EXPECT_TRUE(v.has_value()) << text.toStdString();
    return v.value_or(TWJsonValue());
}

// An object without a substitute, as a date would be.
class DateLike : public TWJsonCustom {
public:
    QString className() const override { return "NSDate"; }
};

// An object that writes itself as a dictionary of its fields.
class Point : public TWJsonCustom {
public:
    explicit Point(std::optional<TWJsonValue> proxy) : proxy_(std::move(proxy)) {}
    QString className() const override { return "Point"; }
    std::optional<TWJsonValue> proxyForJson() const override { return proxy_; }

private:
    std::optional<TWJsonValue> proxy_;
};

TEST(WriterTest, CompactAndRoundTrip) {
    const char* texts[] = {
        R"({"a":[1,2]})",
        R"([1.50,-0,1E+2,0.5e-3,true,false,null,"x"])",
        R"({"z":{"y":{"x":[[],{}]}},"a":""})",
        R"(["slash / stays","tab\tquote\"back\\ctl\u0001nl\n"])",
    };
    for (const char* text : texts) {
        TWJsonWriter writer;
        EXPECT_EQ(writer.stringWithObject(parsed(text)), text);
    }
    TWJsonWriter writer;
    const QString unicode = QString::fromUtf8("[\"Grüße ☃ 𝄞\"]");
    EXPECT_EQ(writer.stringWithObject(parsed(unicode)), unicode);
}

TEST(WriterTest, EscapesExactlyTheControlsQuoteAndBackslash) {
    TWJsonWriter writer;
    const QString raw = QString("\t\"") + QChar(1) + QChar(0x1f) + "\b\f\r\n/" + QChar(0x7f);
    EXPECT_EQ(writer.stringWithFragment(TWJsonValue::string(raw)),
              QString(R"("\t\"\u0001\u001f\b\f\r\n/)") + QChar(0x7f) + "\"");
}

TEST(WriterTest, HumanReadableIndentsTwoSpacesALevel) {
    TWJsonWriter writer;
    writer.setHumanReadable(true);
    EXPECT_EQ(writer.stringWithObject(parsed("[1,2]")), "[\n  1,\n  2\n]");
    EXPECT_EQ(writer.stringWithObject(parsed(R"({"a":{"b":[]},"c":{}})")),
              "{\n  \"a\" : {\n    \"b\" : []\n  },\n  \"c\" : {}\n}");
    writer.setHumanReadable(false);
    EXPECT_EQ(writer.stringWithObject(parsed(R"({"a" : [ 1 ]})")), R"({"a":[1]})");
}

TEST(WriterTest, SortKeysOrdersByUtf16Units) {
    TWJsonWriter writer;
    const TWJsonValue v = parsed(R"({"beta":1,"alpha":2,"gamma":3,"Zed":4})");
    EXPECT_EQ(writer.stringWithObject(v), R"({"beta":1,"alpha":2,"gamma":3,"Zed":4})");
    writer.setSortKeys(true);
    EXPECT_EQ(writer.stringWithObject(v), R"({"Zed":4,"alpha":2,"beta":1,"gamma":3})");
}

struct Refusal {
    const char* name;
    TWJsonValue value;
    bool fragment;
    QStringList trace;
};

void PrintTo(const Refusal& r, std::ostream* os) {
    *os << r.name;
}

TWJsonValue arrayOf(const TWJsonValue& element) {
    TWJsonValue a = TWJsonValue::array();
    a.append(element);
    return a;
}

TWJsonValue dictionaryWith(const QString& key, const TWJsonValue& value) {
    TWJsonValue d = TWJsonValue::dictionary();
    d.insert(key, value);
    return d;
}

class RefusalTest : public ::testing::TestWithParam<Refusal> {};

TEST_P(RefusalTest, FailsWithThisTrace) {
    TWJsonWriter writer;
    const Refusal& r = GetParam();
    const QString text =
        r.fragment ? writer.stringWithFragment(r.value) : writer.stringWithObject(r.value);
    EXPECT_TRUE(text.isNull()) << text.toStdString();
    EXPECT_EQ(traceLines(writer), r.trace);
}

INSTANTIATE_TEST_SUITE_P(
    Json, RefusalTest,
    ::testing::Values(
        Refusal{"BareStringIsNoObject", TWJsonValue::string("s"), false,
                {"4 Not valid type for JSON"}},
        Refusal{"BareNumberIsNoObject", TWJsonValue::number(qint64(1)), false,
                {"4 Not valid type for JSON"}},
        Refusal{"DateInArray", arrayOf(TWJsonValue::custom(std::make_shared<DateLike>())), false,
                {"1 JSON serialisation not supported for NSDate"}},
        Refusal{"NestedUnsupportedValue",
                dictionaryWith("outer", dictionaryWith("inner", TWJsonValue::custom(
                                                                    std::make_shared<DateLike>()))),
                false,
                {"1 JSON serialisation not supported for NSDate",
                 "1 Unsupported value for key inner in object",
                 "1 Unsupported value for key outer in object"}},
        Refusal{"NumberKey",
                [] {
                    TWJsonValue d = TWJsonValue::dictionary();
                    d.insertWithNonStringKey(TWJsonValue::number(qint64(1)), TWJsonValue::null());
                    return d;
                }(),
                false, {"1 JSON object key must be string"}},
        Refusal{"ProxyOfAScalarIsDroppedForObject",
                TWJsonValue::custom(std::make_shared<Point>(TWJsonValue::number(qint64(3)))),
                false, {"4 Not valid type for JSON"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(WriterTest, ProxiesStandInForTheirObjects) {
    TWJsonWriter writer;
    const auto point = TWJsonValue::custom(
        std::make_shared<Point>(dictionaryWith("x", TWJsonValue::number(qint64(1)))));
    EXPECT_EQ(writer.stringWithObject(point), R"({"x":1})");
    EXPECT_EQ(writer.stringWithObject(arrayOf(point)), R"([{"x":1}])");
    // A substitute that fails inside a container still counts as written.
    const auto broken = TWJsonValue::custom(
        std::make_shared<Point>(arrayOf(TWJsonValue::custom(std::make_shared<DateLike>()))));
    EXPECT_EQ(writer.stringWithObject(arrayOf(broken)), "[[]");
    EXPECT_EQ(traceLines(writer), QStringList{"1 JSON serialisation not supported for NSDate"});
}

TEST(WriterTest, DepthLimitAndBooleans) {
    TWJsonWriter writer;
    TWJsonParser parser;
    parser.setMaxDepth(0);
    const auto deep513 = parser.objectWithString(QString(513, '[') + QString(513, ']'));
    const auto deep512 = parser.objectWithString(QString(512, '[') + QString(512, ']'));
    ASSERT_TRUE(deep513 && deep512);
    EXPECT_FALSE(writer.stringWithObject(*deep512).isNull());
    EXPECT_TRUE(writer.stringWithObject(*deep513).isNull());
    EXPECT_EQ(traceLines(writer), QStringList{"7 Nested too deep"});
    EXPECT_EQ(writer.stringWithFragment(TWJsonValue::boolean(true)), "true");
}

TEST(FacadeTest, KeepsTheLastFailureAfterASuccessAndHandsOutItsError) {
    TWJSON json;
    foundation::Error error;
    EXPECT_FALSE(json.objectWithString("[1,]", &error));
    EXPECT_EQ(error.code, 9);
    EXPECT_TRUE(json.objectWithString("[1]"));
    EXPECT_EQ(traceLines(json), QStringList{"9 Trailing comma disallowed in array"});
    EXPECT_TRUE(json.fragmentWithString("2"));
    EXPECT_FALSE(json.objectWithString("2", false, &error));
    EXPECT_EQ(error.code, 4);

    EXPECT_TRUE(json.stringWithObject(TWJsonValue::string("s"), &error).isNull());
    EXPECT_EQ(error.localizedDescription, "Not valid type for JSON");
    EXPECT_EQ(json.stringWithFragment(TWJsonValue::string("s")), "\"s\"");
    EXPECT_EQ(traceLines(json), QStringList{"4 Not valid type for JSON"});

    json.setMaxDepth(1);
    EXPECT_FALSE(json.objectWithString("[[]]"));
    EXPECT_TRUE(json.stringWithObject(parsed("[[]]")).isNull());
    EXPECT_EQ(json.maxDepth(), 1u);
}

TEST(CategoryTest, WriterFailuresAreLogged) {
    foundation::LogCapture log;
    EXPECT_EQ(JSONRepresentation(parsed("[1]")), "[1]");
    EXPECT_TRUE(JSONRepresentation(TWJsonValue::null()).isNull());
    EXPECT_EQ(JSONFragment(TWJsonValue::null()), "null");
    EXPECT_TRUE(JSONFragment(arrayOf(TWJsonValue::custom(std::make_shared<DateLike>()))).isNull());
    ASSERT_EQ(log.lines().size(), 2);
    EXPECT_TRUE(log.lines()[0].startsWith("-JSONRepresentation failed. Error trace is: ("));
    EXPECT_TRUE(log.lines()[1].startsWith("-JSONFragment failed. Error trace is: ("));
    EXPECT_TRUE(log.lines()[1].contains("not supported for NSDate"));
}

}  // namespace
