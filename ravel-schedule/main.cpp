// ravel-schedule INSTALLED_FOLDER [--at "yyyy-MM-dd hh:mm:ss"] [--json]: when does the agent of
// this installed folder launch the updater next, and why. Reads only. Status 0 on success, 1 for
// a folder that is not an installed folder, 2 for a bad command line.
#include "Clock.h"
#include "Locate.h"
#include "Probe.h"
#include "Render.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>

#include <cstdio>

namespace {
const char kUsage[] = "usage: ravel-schedule INSTALLED_FOLDER [--at \"yyyy-MM-dd hh:mm:ss\"] "
                      "[--json]";

int Fail(int status, const QString& message) {
    std::fprintf(stderr, "ravel-schedule: %s\n", message.toLocal8Bit().constData());
    return status;
}

struct Request {
    QString folder;
    QDateTime at;
    bool json = false;
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
    request.json = parser.isSet("json");
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
    const Inspection inspection =
        Evaluate(GatherFacts(files, request.at, ProbeAgent(files.installed)));
    const QByteArray out = request.json ? QJsonDocument(RenderJson(inspection)).toJson()
                                        : RenderText(inspection).toLocal8Bit();
    std::fwrite(out.constData(), 1, size_t(out.size()), stdout);
    return 0;
}
