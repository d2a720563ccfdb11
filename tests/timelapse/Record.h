// What a session leaves in its day's folder for the desktop to judge: a record of named values
// and the samples of the resident, written under the fast clock and read back under the real one.
#pragma once

#include "Judge.h"

#include <QMap>
#include <QString>

using Record = QMap<QString, QString>;

// "name=value" lines; a value holds no line break. Written whole or not at all.
bool WriteRecord(const QString& path, const Record& record);
// The values of such a file; empty when it is missing.
Record ReadRecord(const QString& path);

// One sample as a line "at rssKb fds lastLaunch", appended.
void AppendSample(const QString& path, const Sample& sample);
// Every well-formed line of such a file.
QList<Sample> ReadSamples(const QString& path);
