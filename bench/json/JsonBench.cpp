// SPDX-License-Identifier: GPL-3.0-or-later
// Parse and write throughput of our codec beside RapidJSON (DOM), nlohmann::json and
// QJsonDocument, on the same documents, in one process: three generated ones, and any *.json
// file of the directory given with --documents DIR.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <QByteArray>
#include <QJsonDocument>
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Classes/TWJSON/TWJSON.h"
#include "bench/json/Documents.h"

namespace {

struct Document {
    std::string name;
    std::string text;
};

void parseTWJSON(benchmark::State& state, const Document& doc) {
    const QByteArray utf8 = QByteArray::fromStdString(doc.text);
    TWJsonParser parser;
    for (auto _ : state) {
        auto value = parser.objectWithUTF8(utf8);
        if (!value)
            state.SkipWithError("TWJSON could not parse");
        benchmark::DoNotOptimize(value);
    }
}

void parseTWJSONString(benchmark::State& state, const Document& doc) {
    const QString text = QString::fromStdString(doc.text);
    TWJsonParser parser;
    for (auto _ : state)
        benchmark::DoNotOptimize(parser.objectWithString(text));
}

void parseRapidJSON(benchmark::State& state, const Document& doc) {
    for (auto _ : state) {
        rapidjson::Document d;
        d.Parse(doc.text.c_str(), doc.text.size());
        if (d.HasParseError())
            state.SkipWithError("RapidJSON could not parse");
        benchmark::DoNotOptimize(d);
    }
}

void parseNlohmann(benchmark::State& state, const Document& doc) {
    for (auto _ : state)
        benchmark::DoNotOptimize(nlohmann::json::parse(doc.text));
}

void parseQJsonDocument(benchmark::State& state, const Document& doc) {
    const QByteArray utf8 = QByteArray::fromStdString(doc.text);
    for (auto _ : state) {
        QJsonParseError error;
        auto d = QJsonDocument::fromJson(utf8, &error);
        if (error.error != QJsonParseError::NoError)
            state.SkipWithError("Qt could not parse");
        benchmark::DoNotOptimize(d);
    }
}

// Writes UTF-8 bytes, as the other libraries do, or (the String row) a QString.
template <bool ToQString>
void writeTWJSON(benchmark::State& state, const Document& doc) {
    TWJsonParser parser;
    const TWJsonValue value = *parser.objectWithUTF8(QByteArray::fromStdString(doc.text));
    TWJsonWriter writer;
    for (auto _ : state) {
        if constexpr (ToQString) {
            benchmark::DoNotOptimize(writer.stringWithObject(value));
        } else {
            benchmark::DoNotOptimize(writer.utf8WithObject(value));
        }
    }
}

void writeRapidJSON(benchmark::State& state, const Document& doc) {
    rapidjson::Document d;
    d.Parse(doc.text.c_str(), doc.text.size());
    for (auto _ : state) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        d.Accept(writer);
        benchmark::DoNotOptimize(buffer.GetString());
    }
}

void writeNlohmann(benchmark::State& state, const Document& doc) {
    const auto j = nlohmann::json::parse(doc.text);
    for (auto _ : state)
        benchmark::DoNotOptimize(j.dump());
}

void writeQJsonDocument(benchmark::State& state, const Document& doc) {
    const auto d = QJsonDocument::fromJson(QByteArray::fromStdString(doc.text));
    for (auto _ : state)
        benchmark::DoNotOptimize(d.toJson(QJsonDocument::Compact));
}

using Runner = void (*)(benchmark::State&, const Document&);

// Takes "--documents DIR" out of the arguments, adding DIR's *.json files (in name order).
bool addDocumentsFromArguments(int& argc, char** argv, std::vector<Document>& documents) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--documents") != 0)
            continue;
        if (i + 1 >= argc) {
            std::cerr << "json_bench: --documents needs a directory\n";
            return false;
        }
        std::vector<std::filesystem::path> files;
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i + 1], error)) {
            if (entry.path().extension() == ".json")
                files.push_back(entry.path());
        }
        if (error) {
            std::cerr << "json_bench: cannot list " << argv[i + 1] << ": " << error.message()
                      << "\n";
            return false;
        }
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            std::ifstream in(file, std::ios::binary);
            std::ostringstream text;
            text << in.rdbuf();
            documents.push_back({file.stem().string(), text.str()});
        }
        std::copy(argv + i + 2, argv + argc, argv + i);
        argc -= 2;
        --i;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    static std::vector<Document> documents = {
        {"feed", jsonbench::feedDocument()},
        {"catalog", jsonbench::catalogDocument()},
        {"coordinates", jsonbench::coordinatesDocument()},
    };
    if (!addDocumentsFromArguments(argc, argv, documents))
        return 2;
    const std::pair<const char*, Runner> parsers[] = {{"TWJSON", parseTWJSON},
                                                      {"TWJSONString", parseTWJSONString},
                                                      {"RapidJSON", parseRapidJSON},
                                                      {"nlohmann", parseNlohmann},
                                                      {"QJsonDocument", parseQJsonDocument}};
    const std::pair<const char*, Runner> writers[] = {{"TWJSON", writeTWJSON<false>},
                                                      {"TWJSONString", writeTWJSON<true>},
                                                      {"RapidJSON", writeRapidJSON},
                                                      {"nlohmann", writeNlohmann},
                                                      {"QJsonDocument", writeQJsonDocument}};
    for (const Document& doc : documents) {
        for (const auto& [library, run] : parsers) {
            benchmark::RegisterBenchmark(
                (std::string("BM_Parse/") + library + "/" + doc.name).c_str(),
                [run = run, &doc](benchmark::State& s) {
                    run(s, doc);
                    s.SetBytesProcessed(static_cast<int64_t>(s.iterations() * doc.text.size()));
                })
                ->Unit(benchmark::kMillisecond);
        }
        for (const auto& [library, run] : writers) {
            benchmark::RegisterBenchmark(
                (std::string("BM_Write/") + library + "/" + doc.name).c_str(),
                [run = run, &doc](benchmark::State& s) {
                    run(s, doc);
                    s.SetBytesProcessed(static_cast<int64_t>(s.iterations() * doc.text.size()));
                })
                ->Unit(benchmark::kMillisecond);
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
