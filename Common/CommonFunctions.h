// The configuration store: settings files, sealed files, digests and component data helpers.
#pragma once

#include <QReadWriteLock>
#include <QString>
#include <QVariant>
#include <string>

class CMarkupSTL;

extern const char UTF8_FILE_HEADER[]; // EF BB BF
extern const char UTF8_XML_HEADER[];  // <?xml version="1.0" encoding="utf-8"?>\r\n
extern const char SEAL_PASS_PHRASE[];

class CCommonFunctions {
public:
    // Sealed-file layer: 0 on success, -1 on failure.
    static int ReadXMLFile(const std::wstring& path, std::string& out, bool unseal);
    static int SaveXmlFile(const std::wstring& path, CMarkupSTL& document, bool seal);

    // Settings files: one value by section and key.
    static QVariant GetConfigure(const QString& section, const QString& key,
                                 const QVariant& defaultValue, const QString& file);
    static void WriteConfigure(const QString& section, const QString& key, const QVariant& value,
                               const QString& file);

    // Component data helpers.
    static QString GetMainComDisplayName(const QString& file);
    static QString GetCompDataDirectory(QString name);
    static int MXPSCreatePath(const std::wstring& path);
    static bool MXPSCopyFile(QString src, QString dst);
    static bool MXPCopyDir(QString src, QString dst);
    // Adds read, write and execute for everyone; callers may ignore the framework's result.
    static bool setFilePermissions(QString path);

    static QReadWriteLock m_ReadWriteLock;
};

// The agent reaches the store through these.
QVariant GetConfigure(const QString& section, const QString& key, const QVariant& defaultValue,
                      const QString& file);
void WriteConfigure(const QString& section, const QString& key, const QVariant& value,
                    const QString& file);

std::string Encrypt(const std::string& plain, const std::string& passPhrase);
std::string Decrypt(const std::string& hexText, const std::string& passPhrase);
std::string des3(const std::string& data, const std::string& key, const std::string& iv,
                 bool encrypt);
std::string GetRandomBytes(int count);
std::string StrToHex(const std::string& bytes);
std::string HexToStr(const std::string& text);
std::string Md5Hash(const std::string& bytes);
std::string Md5File(const std::string& path);
