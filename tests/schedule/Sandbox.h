// A throw-away installed folder and data folder, with the path globals and the log pointed
// at them and the clock pinned.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <utility>
#include <vector>

// Readable failure output for byte strings.
inline void PrintTo(const QByteArray& bytes, std::ostream* out) {
    *out << ::testing::PrintToString(bytes.toStdString());
}

using Keys = std::vector<std::pair<const char*, QString>>;
using Sections = std::vector<std::pair<const char*, Keys>>;

QByteArray ReadBytes(const QString& path);
void WriteBytes(const QString& path, const QByteArray& bytes);
// A settings file as the store writes it: mark, declaration, one element per line, CR LF.
QByteArray SettingsFile(const Sections& sections);
// The Start banner as one line.
QByteArray StartBanner();

class Sandbox {
public:
    // `logSwitch` null leaves "LOG"/"LogSwitch" out of Tidewater.dat.
    explicit Sandbox(const char* logSwitch = nullptr);
    ~Sandbox();

    QString Org() const { return m_dir.path() + "/org/"; }
    QString Data() const { return m_dir.path() + "/data/"; }
    QString LogPath() const { return Data() + "log/ravel.log"; }
    QString UserInfo() const { return Data() + "UserInfo.dat"; }
    QString Tidewater() const { return Org() + "Tidewater.dat"; }
    void SetUpdateSetting(const char* key, const QString& value) const;
    // The log after its Start banner, with the agent's line numbers replaced by "#".
    QByteArray LogBody() const;

    static const QDateTime kNow; // what the pinned clock says
    static quint32 NowSeconds();
    static QString NowText();

private:
    QTemporaryDir m_dir;
};
