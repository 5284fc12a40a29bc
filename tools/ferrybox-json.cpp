// SPDX-License-Identifier: GPL-3.0-or-later
// ferrybox-json: reads JSON, writes it back through Ferrybox's writer, or lists why it failed.
#include <QCoreApplication>
#include <QFile>
#include <QTextStream>
#include <QThread>
#include <algorithm>
#include <cstdio>

#include "Classes/TWJSON/TWJSON.h"

namespace {

// The deepest nesting the tool ever accepts, whatever --max-depth says, and a stack that holds
// it with room to spare in every build, sanitizers included.
constexpr quint64 kDepthCeiling = 10000;
constexpr uint kWorkerStackBytes = 256u * 1024u * 1024u;

const char kHelp[] = R"(NAME
    ferrybox-json - check and rewrite JSON with Ferrybox's JSON codec

SYNOPSIS
    ferrybox-json [--fragment] [--pretty] [--sort-keys] [--max-depth N] [FILE|-]
    ferrybox-json --help | --version

DESCRIPTION
    Parses the JSON text of FILE (standard input when FILE is "-" or absent) and writes the
    value back to standard output, compact unless --pretty is given, followed by a line feed.

    The codec is strict in places (no leading "+" or "0" in numbers, no trailing commas) and
    lenient in others (commas between elements may be left out; vertical tab and form feed
    count as whitespace). Numbers are written back exactly as they were read.

OPTIONS
    --fragment      accept any JSON value at the top level, not only an object or an array
    --pretty        indent the output, two spaces a level, with " : " after each key
    --sort-keys     write object members in ascending key order (by UTF-16 code units);
                    otherwise they keep the order of the input
    --max-depth N   refuse input nested deeper than N arrays and objects (default 512).
                    The tool never accepts more than 10000 levels: 0 ("no limit") and any
                    larger N mean 10000
    --help          show this text
    --version       show the program's version

EXIT STATUS
    0   the input was valid; its rewritten form is on standard output
    1   the input was not acceptable; standard error lists the error trace, oldest error
        first, one "CODE MESSAGE" line each, for example "3 Unrecognised leading character"
    2   bad usage, or the input could not be read or is not UTF-8
)";

struct Options {
    bool fragment = false;
    bool pretty = false;
    bool sortKeys = false;
    quint64 maxDepth = TWJsonBase::kDefaultMaxDepth;
    QString file = QStringLiteral("-");
};

int usageError(const QString& message) {
    QTextStream(stderr) << "ferrybox-json: " << message << "\n"
                        << "usage: ferrybox-json [--fragment] [--pretty] [--sort-keys] "
                           "[--max-depth N] [FILE|-]\n";
    return 2;
}

// Returns an exit status when the command line ends the run, else -1.
int parseArguments(const QStringList& arguments, Options& options) {
    bool haveFile = false;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& a = arguments[i];
        if (a == QLatin1String("--help")) {
            std::fputs(kHelp, stdout);
            return 0;
        } else if (a == QLatin1String("--version")) {
            std::printf("ferrybox-json %s\n", FERRYBOX_VERSION);
            return 0;
        } else if (a == QLatin1String("--fragment")) {
            options.fragment = true;
        } else if (a == QLatin1String("--pretty")) {
            options.pretty = true;
        } else if (a == QLatin1String("--sort-keys")) {
            options.sortKeys = true;
        } else if (a == QLatin1String("--max-depth")) {
            bool ok = false;
            options.maxDepth = i + 1 < arguments.size() ? arguments[++i].toULongLong(&ok) : 0;
            if (!ok)
                return usageError(QStringLiteral("--max-depth needs a whole number"));
        } else if (a.startsWith(QLatin1String("--"))) {
            return usageError(QStringLiteral("unknown option %1").arg(a));
        } else if (haveFile) {
            return usageError(QStringLiteral("only one input file"));
        } else {
            options.file = a;
            haveFile = true;
        }
    }
    return -1;
}

// Parses the bytes, lets go of them, and writes the value to standard output, or the error
// trace to standard error; returns the exit status.
int convert(const Options& options, QByteArray& bytes) {
    TWJSON json;
    // No limit of the user's own still leaves the ceiling, and the writer's indentation needs a
    // limit to count against.
    const quint64 depth =
        options.maxDepth == 0 ? kDepthCeiling : std::min(options.maxDepth, kDepthCeiling);
    json.setMaxDepth(depth);
    json.setHumanReadable(options.pretty);
    json.setSortKeys(options.sortKeys);

    std::optional<TWJsonValue> value = json.objectWithUTF8(bytes, options.fragment, nullptr);
    // The value holds copies of all it needs: the input's memory can go before the output's
    // is taken.
    bytes = QByteArray();
    const QByteArray output =
        value ? json.utf8WithObject(*value, options.fragment, nullptr) : QByteArray();
    value.reset();
    if (output.isNull()) {
        QTextStream err(stderr);
        if (const auto trace = json.errorTrace()) {
            for (const auto& error : *trace) {
                err << error.code << ' ' << error.localizedDescription << '\n';
            }
        }
        return 1;
    }
    std::fwrite(output.constData(), 1, static_cast<std::size_t>(output.size()), stdout);
    std::fputc('\n', stdout);
    return std::fflush(stdout) == 0 ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    Options options;
    if (const int status = parseArguments(app.arguments(), options); status >= 0)
        return status;

    QFile input;
    const bool opened = options.file == QLatin1String("-")
                            ? input.open(stdin, QIODevice::ReadOnly)
                            : (input.setFileName(options.file), input.open(QIODevice::ReadOnly));
    const QString name =
        options.file == QLatin1String("-") ? QStringLiteral("standard input") : options.file;
    if (!opened) {
        QTextStream(stderr) << "ferrybox-json: cannot read " << name << ": " << input.errorString()
                            << "\n";
        return 2;
    }
    // Empty input is empty text, which the parser reports; a null array would be no input.
    QByteArray bytes = input.readAll();
    if (bytes.isNull())
        bytes = QByteArray("");
    input.close();
    if (!isValidUTF8(bytes.constData(), bytes.size())) {
        QTextStream(stderr) << "ferrybox-json: " << name << " is not UTF-8 text\n";
        return 2;
    }

    int status = 2;
    // Parsing, writing and letting go of a value each take stack in proportion to its nesting;
    // the work gets a stack that the deepest nesting the tool accepts cannot exhaust.
    QThread* worker = QThread::create([&] { status = convert(options, bytes); });
    worker->setStackSize(kWorkerStackBytes);
    worker->start();
    worker->wait();
    delete worker;
    return status;
}
