// SPDX-License-Identifier: GPL-3.0-or-later
// Values as callers hold and change them: copies stay independent, children outlive their
// parents, large dictionaries find and replace keys, and text keeps every UTF-16 unit.
#include <gtest/gtest.h>

#include <QThread>
#include <functional>

#include "Classes/TWJSON/TWJSON.h"

namespace {

TWJsonValue parsed(const char* json) {
    TWJsonParser parser;
    auto value = parser.fragmentWithUTF8(QByteArray(json));
    EXPECT_TRUE(value.has_value()) << json;
    return value.value_or(TWJsonValue());
}

QString written(const TWJsonValue& v) {
    TWJsonWriter writer;
    return writer.stringWithFragment(v);
}

struct EditCase {
    const char* name;
    const char* start;
    std::function<TWJsonValue(TWJsonValue&)> edit;  // changes the value, returns a kept copy
    const char* edited;
    const char* kept;
};

TEST(ValueTest, EditsChangeOnlyTheEditedValue) {
    const EditCase cases[] = {
        {"AppendAfterCopy", "[1,2]",
         [](TWJsonValue& v) {
             TWJsonValue kept = v;
             v.append(TWJsonValue::number(qint64(3)));
             return kept;
         },
         "[1,2,3]", "[1,2]"},
        {"AppendToItself", "[1,2]",
         [](TWJsonValue& v) {
             v.append(v);
             return v.at(2);
         },
         "[1,2,[1,2]]", "[1,2]"},
        {"ChildEditedAfterItsRootIsGone", "[[1],{\"k\":\"a long string, longer than a node\"}]",
         [](TWJsonValue& v) {
             TWJsonValue child = v.at(1);
             v = TWJsonValue::array();
             child.insert("n", TWJsonValue::null());
             return child;
         },
         "[]", "{\"k\":\"a long string, longer than a node\",\"n\":null}"},
        {"ReplacedKeyKeepsItsPlace", "{\"a\":1,\"b\":2}",
         [](TWJsonValue& v) {
             TWJsonValue kept = v.valueForKey("b").value();
             v.insert("a", TWJsonValue::string("x"));
             v.insert("b", v);
             return kept;
         },
         "{\"a\":\"x\",\"b\":{\"a\":\"x\",\"b\":2}}", "2"},
        {"ReserveThenAppend", "[true]",
         [](TWJsonValue& v) {
             v.reserve(100);
             for (int i = 0; i < 5; ++i)
                 v.append(TWJsonValue::boolean(i % 2 == 0));
             return TWJsonValue::number(qint64(v.count()));
         },
         "[true,true,false,true,false,true]", "6"},
        {"NoEditOnTheWrongKind", "\"text\"",
         [](TWJsonValue& v) {
             v.append(TWJsonValue::null());
             v.insert("k", TWJsonValue::null());
             v.reserve(10);
             return v;
         },
         "\"text\"", "\"text\""},
    };
    for (const EditCase& c : cases) {
        TWJsonValue value = parsed(c.start);
        const TWJsonValue kept = c.edit(value);
        EXPECT_EQ(written(value), c.edited) << c.name;
        EXPECT_EQ(written(kept), c.kept) << c.name;
    }
}

// Past a dozen members a dictionary finds keys through an index; built or parsed, with keys
// short enough to sit in a node and long ones, repeated keys replace and keep their place.
TEST(ValueTest, LargeDictionariesFindAndReplaceEveryKey) {
    for (const QString& prefix : {QStringLiteral("k"), QStringLiteral("a key of some length ")}) {
        TWJsonValue built = TWJsonValue::dictionary();
        QString text = "{";
        for (int i = 0; i < 40; ++i) {
            built.insert(prefix + QString::number(i), TWJsonValue::number(qint64(i)));
            text += QString("\"%1%2\":%3,").arg(prefix).arg(i).arg(i);
        }
        for (int i = 0; i < 40; i += 3) {
            built.insert(prefix + QString::number(i), TWJsonValue::string("again"));
            text += QString("\"%1%2\":\"again\",").arg(prefix).arg(i);
        }
        text.back() = '}';
        TWJsonParser parser;
        const TWJsonValue read = *parser.objectWithString(text);
        for (const TWJsonValue& v : {built, read}) {
            ASSERT_EQ(v.count(), 40) << prefix.toStdString();
            for (int i = 0; i < 40; ++i) {
                const auto found = v.valueForKey(prefix + QString::number(i));
                ASSERT_TRUE(found.has_value()) << i;
                EXPECT_EQ(found->isString(), i % 3 == 0) << i;
                EXPECT_EQ(v.keys().at(i), prefix + QString::number(i));
            }
            EXPECT_FALSE(v.valueForKey(prefix + "40").has_value());
        }
        EXPECT_TRUE(built == read);
    }
}

// A long run of replacements leaves garbage behind, which a copy reclaims without losing the
// value.
TEST(ValueTest, ManyReplacementsKeepTheLastValue) {
    TWJsonValue big = TWJsonValue::array();
    for (int i = 0; i < 1000; ++i)
        big.append(TWJsonValue::string(QString("element %1 of a large array").arg(i)));
    TWJsonValue d = TWJsonValue::dictionary();
    for (int round = 0; round < 50; ++round) {
        d.insert("big", big);
        d.insert("round", TWJsonValue::number(qint64(round)));
    }
    EXPECT_TRUE(*d.valueForKey("big") == big);
    EXPECT_EQ(d.valueForKey("round")->numberText(), "49");
    EXPECT_EQ(d.keys(), QStringList({"big", "round"}));
}

// Every UTF-16 unit survives, a lone surrogate included; UTF-8 output has no form for one and
// shows U+FFFD, as Qt's own encoder does.
TEST(ValueTest, TextKeepsEveryUnitAndUtf8OutputReplacesLoneSurrogates) {
    const QString lone = QString("a") + QChar(0xD800) + "b" + QChar(0xDFFF);
    const QString pair = QString::fromUtf8("\xF0\x9F\x98\x80");
    struct TextCase {
        const char* name;
        TWJsonValue value;
        QString text;
        QByteArray utf8;
    } cases[] = {
        {"LoneSurrogatesFromQString", TWJsonValue::string(lone), lone,
         "\"a\xEF\xBF\xBD"
         "b\xEF\xBF\xBD\""},
        {"PairFromQString", TWJsonValue::string(pair), pair, "\"\xF0\x9F\x98\x80\""},
        {"TwoEscapesMakingAPair", parsed(R"("\ud836\udc00\ud837\udc00")"),
         QString(QChar(0xD800)) + QChar(0xDC00), "\"\xF0\x90\x80\x80\""},
        {"EscapedNul", parsed(R"("a\u0000b")"), QString("a") + QChar(0) + "b",
         QByteArray("\"a\\u0000b\"", 10)},
    };
    for (const TextCase& c : cases) {
        EXPECT_EQ(c.value.stringValue(), c.text) << c.name;
        TWJsonValue d = TWJsonValue::dictionary();
        d.insert(c.text, TWJsonValue::null());
        EXPECT_EQ(d.keys(), QStringList{c.text}) << c.name;
        EXPECT_TRUE(d.valueForKey(c.text).has_value()) << c.name;
        TWJsonWriter writer;
        EXPECT_EQ(writer.utf8WithFragment(c.value), c.utf8) << c.name;
    }
    // Absent text stays absent, yet equals and is written as the empty string.
    const TWJsonValue absent = TWJsonValue::string(QString());
    EXPECT_TRUE(absent.stringValue().isNull());
    EXPECT_FALSE(parsed("\"\"").stringValue().isNull());
    EXPECT_TRUE(absent == parsed("\"\""));
    EXPECT_EQ(written(absent), "\"\"");
}

// One document's children read from several threads while its owner keeps editing a copy.
TEST(ValueTest, SharedDocumentsAreSafeAcrossThreads) {
    QString text = "[";
    for (int i = 0; i < 200; ++i)
        text += QString("{\"n\":%1,\"s\":\"string number %1\"},").arg(i);
    text.back() = ']';
    TWJsonParser parser;
    TWJsonValue shared = *parser.objectWithString(text);
    std::atomic<int> mismatches = 0;
    std::vector<QThread*> readers;
    for (int t = 0; t < 4; ++t) {
        readers.push_back(QThread::create([shared, &mismatches] {
            for (int round = 0; round < 20; ++round) {
                for (int i = 0; i < 200; ++i) {
                    const TWJsonValue element = shared.at(i);
                    if (element.valueForKey("s")->stringValue() !=
                        QString("string number %1").arg(i))
                        ++mismatches;
                }
            }
        }));
        readers.back()->start();
    }
    TWJsonValue mine = shared;
    for (int i = 0; i < 200; ++i)
        mine.append(TWJsonValue::number(qint64(i)));
    for (QThread* reader : readers) {
        reader->wait();
        delete reader;
    }
    EXPECT_EQ(mismatches, 0);
    EXPECT_EQ(shared.count(), 200);
    EXPECT_EQ(mine.count(), 400);
}

// Arrays of more than a megabyte of values, at the top or inside a member, come out whole.
TEST(ValueTest, LargeArraysParseWhole) {
    QByteArray numbers = "[";
    for (int i = 0; i < 200000; ++i)
        numbers += QByteArray::number(i % 1000) + ',';
    numbers.back() = ']';
    for (const QByteArray& json :
         {numbers, "{\"a\":" + numbers + "}", "[[0]," + numbers + "," + numbers + "]"}) {
        TWJsonParser parser;
        const auto value = parser.objectWithUTF8(json);
        ASSERT_TRUE(value.has_value());
        TWJsonWriter writer;
        EXPECT_EQ(writer.utf8WithObject(*value), json);
    }
}

}  // namespace
