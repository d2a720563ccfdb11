#include "EasyLog.h"

#include "Clock.h"
#include "CommonFunctions.h"
#include "FileLayout.h"
#include "LogTexts.h"

#include <QDir>
#include <QVariant>
#include <cstdarg>
#include <cstdio>

CEasyLog g_EazyLog;
const char* g_chgLine = "\n";

namespace {
using logtext::kEndBanner;
using logtext::kStartBanner;
// Beyond this the log is emptied at the next start.
constexpr qint64 kMaxLogSize = 0x500000;
} // namespace

CEasyLog::CEasyLog() {
    ResetFields();
}

CEasyLog::~CEasyLog() {
    if (m_bEnable)
        WriteBanner(kEndBanner);
}

void CEasyLog::ResetFields() {
    m_nIndent = 0;
    m_nLine = -1;
    std::memset(m_szFile, 0, sizeof m_szFile);
    m_bEnable = 1;
}

void CEasyLog::ResetForTesting() {
    close();
    setFileName(QString());
    ResetFields();
}

void CEasyLog::Init(const QString& logName) {
    const QString settings = g_qstrOrgPath + QStringLiteral("Tidewater.dat");
    const QVariant logSwitch =
        CCommonFunctions::GetConfigure(QStringLiteral("LOG"), QStringLiteral("LogSwitch"),
                                       QVariant(QStringLiteral("1")), settings);
    if (logSwitch.toInt() == 0) {
        m_bEnable = 0;
        return;
    }
    m_szFile[0] = '\0';

    const QString folder = GetDuplicatePath(true);
    if (!QDir(folder).exists())
        CCommonFunctions::MakeFolder(folder);
    CCommonFunctions::setFilePermissions(folder);

    // Touch the file first so that its permissions can be opened before the first line.
    setFileName(folder + logName);
    open(QIODevice::WriteOnly | QIODevice::Append);
    close();
    CCommonFunctions::setFilePermissions(fileName());

    // Checked once per start only: a log may outgrow the limit during a run.
    if (size() > kMaxLogSize)
        open(QIODevice::WriteOnly | QIODevice::Truncate);
    else
        open(QIODevice::WriteOnly | QIODevice::Append);
    WriteBanner(kStartBanner);
}

void CEasyLog::WriteLogInfo(const char* format, ...) {
    if (!m_bEnable)
        return;
    char message[1024];
    std::memset(message, 0, sizeof message);
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, 1023, format, args);
    va_end(args);

    const QString now = CurrentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
    WritePiece(QLatin1Char('[') + QString::fromLocal8Bit(m_szFile) + QLatin1Char('(') +
               QString::number(m_nLine) + QStringLiteral(")]"));
    WritePiece(QLatin1Char('[') + now + QLatin1Char(']'));
    for (int tab = 0; tab < m_nIndent; ++tab)
        WritePiece(QStringLiteral("\t"));
    WritePiece(QLatin1Char('[') + QString::fromLocal8Bit(message) + QStringLiteral("]-->"));
    WritePiece(QString::fromLocal8Bit(g_chgLine));
    if (isOpen())
        flush();
}

void CEasyLog::WriteBanner(const char* banner) {
    WritePiece(QString::fromLocal8Bit(banner) + QString::fromLocal8Bit(g_chgLine));
    if (isOpen())
        flush();
}

void CEasyLog::WritePiece(const QString& piece) {
    // An unopened log (not initialised, or the open failed) stays silent.
    if (!isOpen())
        return;
    const QByteArray bytes = piece.toLocal8Bit();
    write(bytes.constData(), qint64(qstrlen(bytes.constData())));
}
