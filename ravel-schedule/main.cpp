// ravel-schedule INSTALLED_FOLDER [--at "yyyy-MM-dd hh:mm:ss"] [--json]: when does the agent of
// this installed folder launch the updater next, and why. Reads only; status 0 on success, 2
// for a bad command line, 1 for a folder that is not an installed folder.
#include "Clock.h"
#include "Report.h"

#include <QCoreApplication>
#include <QJsonDocument>

#include <cstdio>

namespace {
int Fail(int status, const QString& message) {
    std::fprintf(stderr, "ravel-schedule: %s\n", message.toLocal8Bit().constData());
    return status;
}

const char kUsage[] = "usage: ravel-schedule INSTALLED_FOLDER [--at \"yyyy-MM-dd hh:mm:ss\"] "
                      "[--json]";
} // namespace

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QStringList args = QCoreApplication::arguments().mid(1);
    QString folder;
    QDateTime at = CurrentDateTime();
    bool json = false;
    while (!args.isEmpty()) {
        const QString arg = args.takeFirst();
        if (arg == QLatin1String("--json")) {
            json = true;
        } else if (arg == QLatin1String("--at")) {
            const QString text = args.isEmpty() ? QString() : args.takeFirst();
            at = QDateTime::fromString(text, QStringLiteral("yyyy-MM-dd hh:mm:ss"));
            if (!at.isValid())
                return Fail(2, QStringLiteral("--at needs a local time as \"yyyy-MM-dd "
                                              "hh:mm:ss\", not \"%1\"")
                                   .arg(text));
        } else if (arg.startsWith(QLatin1String("--")) || !folder.isEmpty()) {
            return Fail(2, QStringLiteral("unexpected argument \"%1\"\n%2").arg(arg, kUsage));
        } else {
            folder = arg;
        }
    }
    if (folder.isEmpty())
        return Fail(2, QLatin1String(kUsage));
    AgentFiles files;
    QString problem;
    if (!FindAgentFiles(folder, files, problem))
        return Fail(1, problem);
    const Inspection inspection = Inspect(files, at, FindAgentProcess(files.installed));
    const QByteArray out = json ? QJsonDocument(RenderJson(inspection)).toJson()
                                : RenderText(inspection).toLocal8Bit();
    std::fwrite(out.constData(), 1, size_t(out.size()), stdout);
    return 0;
}
