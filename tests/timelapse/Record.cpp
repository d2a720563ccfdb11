#include "Record.h"

#include <QFile>
#include <QSaveFile>

bool WriteRecord(const QString& path, const Record& record) {
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    for (auto value = record.begin(); value != record.end(); ++value)
        file.write((value.key() + "=" + value.value() + "\n").toUtf8());
    return file.commit();
}

namespace {
QString ReadRecordText(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}
} // namespace

Record ReadRecord(const QString& path) {
    Record record;
    for (const QString& line : ReadRecordText(path).split('\n', Qt::SkipEmptyParts))
        record[line.section('=', 0, 0)] = line.section('=', 1);
    return record;
}

void AppendSample(const QString& path, const Sample& sample) {
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Append))
        file.write(QStringLiteral("%1 %2 %3 %4\n")
                       .arg(sample.at)
                       .arg(sample.rssKb)
                       .arg(sample.fds)
                       .arg(sample.lastLaunch)
                       .toUtf8());
}

QList<Sample> ReadSamples(const QString& path) {
    QList<Sample> samples;
    for (const QString& line : ReadRecordText(path).split('\n', Qt::SkipEmptyParts)) {
        const QStringList n = line.split(' ');
        bool ok[4] = {};
        const Sample s{n.value(0).toLongLong(&ok[0]), n.value(1).toLongLong(&ok[1]),
                       n.value(2).toLongLong(&ok[2]), n.value(3).toLongLong(&ok[3])};
        if (n.size() == 4 && ok[0] && ok[1] && ok[2] && ok[3])
            samples.append(s);
    }
    return samples;
}
