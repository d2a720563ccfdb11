// ravel-schedule INSTALLED_FOLDER [--at "yyyy-MM-dd hh:mm:ss"] [--json | --prometheus [--output
// FILE]]: when does the agent of this installed folder launch the updater next, and why. Reads
// only (--output writes its one file). Status 0 on success, 1 for a folder that is not an
// installed folder or an output that cannot be written, 2 for a bad command line.
#include "Clock.h"
#include "Locate.h"
#include "Probe.h"
#include "Render.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QSaveFile>

#include <cstdio>

namespace {
const char kUsage[] = "usage: ravel-schedule INSTALLED_FOLDER [--at \"yyyy-MM-dd hh:mm:ss\"] "
                      "[--json | --prometheus [--output FILE]]";

int Fail(int status, const QString& message) {
    std::fprintf(stderr, "ravel-schedule: %s\n", message.toLocal8Bit().constData());
    return status;
}

struct Request {
    QString folder;
    QDateTime at;
    enum class Format { Text, Json, Prometheus } format = Format::Text;
    QString output; // Prometheus only: the file, written whole or not at all; empty: stdout
};

void Describe(QCommandLineParser& parser) {
    parser.setApplicationDescription(
        "When does the agent of an installed folder launch the updater next, and why: the "
        "schedule as the agent reads it, the repairs its next check makes, the verdict and the "
        "window of the next launch, warnings, and whether an agent runs. Reads only; never "
        "connects to the agent.");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument("INSTALLED_FOLDER", "The folder holding ravel.app and "
                                                     "Tidewater.dat.");
    parser.addOption({"at", "Evaluate at this local time instead of now.", "yyyy-MM-dd hh:mm:ss"});
    parser.addOption({"json", "Print one JSON object instead of the text report."});
    parser.addOption({"prometheus", "Print the findings as Prometheus metrics (text exposition), "
                                    "for node_exporter's textfile collector."});
    parser.addOption({"output",
                      "With --prometheus: write the metrics to FILE instead, through a "
                      "temporary file renamed over it.",
                      "FILE"});
}

// The request, or the status to end with (0 after --help or --version, 2 for a usage error).
int Parse(QCommandLineParser& parser, Request& request) {
    if (!parser.parse(QCoreApplication::arguments()))
        return Fail(2, parser.errorText() + "\n" + kUsage);
    if (parser.isSet("help"))
        return std::fputs(qPrintable(parser.helpText()), stdout), 0;
    if (parser.isSet("version"))
        return std::printf("ravel-schedule %s\n", RAVEL_VERSION), 0;
    const QStringList folders = parser.positionalArguments();
    if (folders.isEmpty())
        return Fail(2, kUsage);
    if (folders.size() > 1)
        return Fail(2, QStringLiteral("unexpected argument \"%1\"\n%2").arg(folders[1], kUsage));
    request.folder = folders[0];
    if (parser.isSet("json") && parser.isSet("prometheus"))
        return Fail(2, QStringLiteral("--json and --prometheus exclude each other\n") + kUsage);
    if (parser.isSet("output") && !parser.isSet("prometheus"))
        return Fail(2, QStringLiteral("--output goes with --prometheus\n") + kUsage);
    request.format = parser.isSet("json")         ? Request::Format::Json
                     : parser.isSet("prometheus") ? Request::Format::Prometheus
                                                  : Request::Format::Text;
    request.output = parser.value("output");
    request.at = CurrentDateTime();
    if (parser.isSet("at")) {
        const QString text = parser.value("at");
        request.at = QDateTime::fromString(text, QLatin1String(kDateFormat));
        if (!request.at.isValid())
            return Fail(2, QStringLiteral("--at needs a local time as \"yyyy-MM-dd hh:mm:ss\", not "
                                          "\"%1\"")
                               .arg(text));
    }
    return -1;
}
QByteArray Rendered(const Inspection& inspection, Request::Format format) {
    switch (format) {
    case Request::Format::Json:
        return QJsonDocument(RenderJson(inspection)).toJson();
    case Request::Format::Prometheus:
        return RenderPrometheus(inspection).toUtf8();
    case Request::Format::Text:
        break;
    }
    return RenderText(inspection).toLocal8Bit();
}

// Writes `bytes` to `path` through a temporary file beside it, renamed over it once whole, so
// that a reader (the textfile collector) never sees half a file. 0, or 1 with a message.
int WriteWhole(const QString& path, const QByteArray& bytes) {
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        return Fail(1, QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
    return 0;
}
} // namespace

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationVersion(RAVEL_VERSION);
    QCommandLineParser parser;
    Describe(parser);
    Request request;
    if (const int status = Parse(parser, request); status >= 0)
        return status;
    AgentFiles files;
    QString problem;
    if (!LocateInstalled(request.folder, files, problem))
        return Fail(1, problem);
    const Inspection inspection = Evaluate(GatherFacts(files, request.at, ProbeAgent(files)));
    const QByteArray out = Rendered(inspection, request.format);
    if (!request.output.isEmpty())
        return WriteWhole(request.output, out);
    std::fwrite(out.constData(), 1, size_t(out.size()), stdout);
    return 0;
}
