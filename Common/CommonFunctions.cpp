// Settings files: one value by section and key in a two-level XML file under a "root" element.
// Every call reads the whole file and, for a write, saves it whole again.
#include "CommonFunctions.h"

#include "MarkupSTL.h"
#include "SettingsRead.h"

#include <QByteArray>

namespace {

const char kRootTag[] = "root";

// Loads the file into the document; false when there was nothing to load.
bool LoadSettings(const QString& file, CMarkupSTL& document) {
    std::string text;
    if (ReadXMLFileAt(file, text, false) != 0 || text.empty())
        return false;
    document.SetDoc(text.c_str());
    return true;
}

// Loads what there is to load; false when the file is there but could not be read for now.
bool LoadForWriting(const QString& file, CMarkupSTL& document) {
    std::string text;
    const SettingsRead read = ReadSettingsFile(file, text, false);
    if (read == SettingsRead::Read && !text.empty())
        document.SetDoc(text.c_str());
    return read != SettingsRead::Failed;
}

} // namespace

// The section "root" is looked for as a child of root here, unlike in WriteConfigure: the two
// disagree on purpose, and readers of such keys rely on getting the default.
QVariant CCommonFunctions::GetConfigure(const QString& section, const QString& key,
                                        const QVariant& defaultValue, const QString& file) {
    QString value;
    CMarkupSTL document;
    if (LoadSettings(file, document) && document.FindElem(kRootTag) &&
        document.FindChildElem(section.toUtf8().constData())) {
        document.IntoElem();
        if (document.FindChildElem(key.toUtf8().constData()))
            value = QString::fromStdString(document.GetChildData());
        document.OutOfElem();
    }
    if (value.isEmpty())
        return defaultValue;
    return QVariant(value);
}

// A file with nothing to read or without root is started afresh: what it held is dropped. A file
// whose reading failed for now (an I/O error, no descriptor left) is not: started afresh, it would
// lose every other setting, so the write is dropped instead, as a failing save drops it.
void CCommonFunctions::WriteConfigure(const QString& section, const QString& key,
                                      const QVariant& value, const QString& file) {
    CMarkupSTL document;
    if (!LoadForWriting(file, document))
        return;
    if (!document.FindElem(kRootTag)) {
        document.SetDoc(UTF8_XML_HEADER);
        document.AddElem(kRootTag);
    }
    const bool inSection = section != QLatin1String(kRootTag);
    if (inSection) {
        const QByteArray sectionName = section.toUtf8();
        if (!document.FindChildElem(sectionName.constData()))
            document.AddChildElem(sectionName.constData());
        document.IntoElem();
    }
    const QByteArray keyName = key.toUtf8();
    const QByteArray text = value.toString().toUtf8();
    if (document.FindChildElem(keyName.constData()))
        document.SetChildData(text.constData());
    else
        document.AddChildElem(keyName.constData(), text.constData());
    if (inSection)
        document.OutOfElem();
    SaveXmlFile(file.toStdWString(), document, false);
}

QVariant GetConfigure(const QString& section, const QString& key, const QVariant& defaultValue,
                      const QString& file) {
    return CCommonFunctions::GetConfigure(section, key, defaultValue, file);
}

void WriteConfigure(const QString& section, const QString& key, const QVariant& value,
                    const QString& file) {
    CCommonFunctions::WriteConfigure(section, key, value, file);
}
