// Helpers shared by the configuration store tests.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QTemporaryDir>
#include <QVariant>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <sys/stat.h>

// Readable failure messages for Qt values.
inline void PrintTo(const QByteArray& bytes, std::ostream* out) {
    *out << '"' << bytes.toPercentEncoding(" <>/=?!:;&'\"").constData() << '"';
}
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}
inline void PrintTo(const QVariant& value, std::ostream* out) {
    *out << value.typeName() << ' ';
    PrintTo(value.toString(), out);
}

inline const QByteArray kMark("\xEF\xBB\xBF");
inline const QByteArray kDeclaration("<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n");

inline QByteArray ReadBytes(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline void WriteBytes(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(file.write(bytes), bytes.size());
}

inline struct stat Stat(const QString& path) {
    struct stat info = {};
    lstat(QFile::encodeName(path).constData(), &info);
    return info;
}

inline unsigned Mode(const QString& path) {
    return Stat(path).st_mode & 07777;
}

inline std::wstring Wide(const QString& path) {
    return path.toStdWString();
}

// Every test works in a fresh folder of its own, removed afterwards.
class TempFolderTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }
    QString Path(const QString& name) const { return dir.filePath(name); }
    QTemporaryDir dir;
};
