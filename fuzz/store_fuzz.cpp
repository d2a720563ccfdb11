// Any bytes as a settings file: read plain and sealed, one value read, then one written with
// markup characters, which must read back exactly.
#include "CommonFunctions.h"
#include "MarkupSTL.h"
#include "scratch.h"

#include <cstdio>
#include <cstdlib>

namespace {

const char kSection[] = "UpdateSetting";
const char kKey[] = "Note";

// A value cannot read back when the file, once written, no longer parses (odd markup such as
// "<Note //>" is edited into text that reads differently), or when the key holds child elements
// (data is never written over them).
bool KeyCanHoldData(const QString& file) {
    std::string text;
    CCommonFunctions::ReadXMLFile(file.toStdWString(), text, false);
    CMarkupSTL doc(text.c_str());
    if (!doc.IsWellFormed())
        return false;
    if (doc.FindElem("root") && doc.FindChildElem(kSection) && doc.IntoElem() &&
        doc.FindChildElem(kKey) && doc.IntoElem())
        return !doc.FindChildElem();
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = ScratchFile("Settings.dat");
    static const QString file = QString::fromStdString(path);
    static const QString section = kSection, key = kKey;
    static const QString value = QString::fromUtf8("a<b&c>\"d' ]]> <![CDATA[x]]> \xC3\xA9");
    WriteScratch(path, data, size);
    for (bool unseal : {false, true}) {
        std::string text;
        if (CCommonFunctions::ReadXMLFile(file.toStdWString(), text, unseal) != 0 && !text.empty())
            std::abort(); // a failed read delivers nothing
    }
    GetConfigure(section, key, QVariant(), file);
    WriteConfigure(section, key, QVariant(value), file);
    const QString back = GetConfigure(section, key, QVariant(), file).toString();
    if (back != value && KeyCanHoldData(file)) {
        std::fprintf(stderr, "store fault: read back \"%s\"\n", back.toUtf8().constData());
        std::abort();
    }
    return 0;
}
