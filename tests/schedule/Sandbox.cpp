#include "Sandbox.h"

#include "Clock.h"
#include "CommonFunctions.h"
#include "EasyLog.h"
#include "FileLayout.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>
#include <memory>

namespace {
// GetExeDir needs the application object.
class AppEnvironment : public ::testing::Environment {
public:
    void SetUp() override { m_app = std::make_unique<QCoreApplication>(m_argc, m_argv); }
    void TearDown() override { m_app.reset(); }

private:
    int m_argc = 1;
    char m_name[16] = "schedule_tests";
    char* m_argv[2] = {m_name, nullptr};
    std::unique_ptr<QCoreApplication> m_app;
};
const auto* const g_appEnvironment = ::testing::AddGlobalTestEnvironment(new AppEnvironment);
} // namespace

const QDateTime Sandbox::kNow(QDate(2024, 3, 5), QTime(14, 2, 11));
quint32 Sandbox::NowSeconds() {
    return quint32(kNow.toSecsSinceEpoch());
}
QString Sandbox::NowText() {
    return QStringLiteral("2024-03-05 14:02:11");
}

QByteArray ReadBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

void WriteBytes(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(file.write(bytes), bytes.size());
}

QByteArray SettingsFile(const Sections& sections) {
    QByteArray text("\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<root>\r\n");
    for (const auto& [section, keys] : sections) {
        text += QByteArray("<") + section + ">\r\n";
        for (const auto& [key, value] : keys)
            text += QByteArray("<") + key + ">" + value.toUtf8() + "</" + key + ">\r\n";
        text += QByteArray("</") + section + ">\r\n";
    }
    return text + "</root>\r\n";
}

QByteArray StartBanner() {
    return "----------------------Start Log---------------------------------\n";
}

Sandbox::Sandbox(const char* logSwitch) {
    QDir().mkdir(Org());
    QDir().mkdir(Data());
    // No trailing separator: the layout adds it.
    WriteConfigure("DupInfo", "DuplicatePath", m_dir.path() + "/data", Tidewater());
    if (logSwitch)
        WriteConfigure("LOG", "LogSwitch", QString::fromLatin1(logSwitch), Tidewater());
    g_qstrOrgPath = Org();
    g_qstrOrgDat = Org() + "UpdateInfo.dat";
    g_qstrUserInfoIniPath = UserInfo();
    g_qstrTidewaterIniPath = Tidewater();
    SetClockForTesting([] { return kNow; });
    g_EazyLog.ResetForTesting();
    g_EazyLog.Init("ravel.log");
}

Sandbox::~Sandbox() {
    g_EazyLog.ResetForTesting();
    SetClockForTesting({});
    for (QString* global :
         {&g_qstrOrgPath, &g_qstrOrgDat, &g_qstrUserInfoIniPath, &g_qstrTidewaterIniPath,
          &g_qstrUpdateInfoDatPath, &g_qstrTidewaterExePath})
        global->clear();
}

void Sandbox::SetUpdateSetting(const char* key, const QString& value) const {
    WriteConfigure("UpdateSetting", key, value, Tidewater());
}

QByteArray Sandbox::LogBody() const {
    QString text = QString::fromUtf8(ReadBytes(LogPath()));
    EXPECT_TRUE(text.startsWith(QString::fromLatin1(StartBanner()))) << text.toStdString();
    text.remove(0, StartBanner().size());
    text.replace(QRegularExpression(QStringLiteral("^\\[Src/ravel\\(\\d+\\)\\]"),
                                    QRegularExpression::MultilineOption),
                 QStringLiteral("[Src/ravel(#)]"));
    return text.toUtf8();
}
