#include "LogTail.h"

#include "LogTexts.h"

#include <QFile>

namespace {
constexpr qint64 kLogTail = 256 * 1024; // enough for the last check

// A log line's message part for a format: its text up to the first conversion.
QString MessageStart(const char* format) {
    return QLatin1Char('[') + QString::fromLatin1(format).section(QLatin1Char('%'), 0, 0);
}

// The "[ReadConfigInfo: Enter]-->" of a check, written without indentation.
QString CheckStart() {
    return QLatin1String("][") + QString::asprintf(logtext::kEnter, logtext::kReadConfigInfo) +
           QLatin1String(logtext::kLineEnd);
}
} // namespace

LogTail ReadLogTail(const QString& path) {
    LogTail tail;
    QFile log(path);
    tail.found = log.open(QIODevice::ReadOnly);
    if (!tail.found)
        return tail;
    tail.bytes = log.size();
    log.seek(qMax<qint64>(0, log.size() - kLogTail));
    const QStringList lines = QString::fromLocal8Bit(log.readAll()).split(QLatin1Char('\n'));
    int first = -1;
    for (int i = lines.size() - 1; i >= 0 && first < 0; --i)
        if (lines[i].contains(CheckStart()))
            first = i;
    const QString sleep = MessageStart(logtext::kSleep), exits = MessageStart(logtext::kNeverExit);
    for (int i = first; i >= 0 && i < lines.size(); ++i) {
        tail.lastCheck << lines[i];
        if (lines[i].contains(sleep) || lines[i].contains(exits))
            break;
    }
    return tail;
}

QString LoggedDeployment(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    const QByteArray mark = QByteArray(logtext::kDeployFrom).split('%').first();
    const QByteArray text = file.readAll();
    const qsizetype at = text.lastIndexOf(mark);
    if (at < 0)
        return QString();
    const qsizetype from = at + mark.size();
    const qsizetype end = text.indexOf(logtext::kLineEnd, from);
    return QString::fromLocal8Bit(text.mid(from, end < 0 ? -1 : end - from));
}
