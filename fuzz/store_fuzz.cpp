// Any bytes as a settings file: read plain and sealed, one value read, then one written with
// markup characters, which must read back exactly.
#include "CommonFunctions.h"
#include "MarkupSTL.h"
#include "fuzz_support.h"

namespace {

const char kSection[] = "UpdateSetting";
const char kKey[] = "Note";

// Whether the written file holds the key as an element without child elements. It does not when
// the key holds child elements (data is never written over them), or when odd markup such as
// "<root //>" was edited into text that parses differently, so that the write is not found.
bool KeyHoldsData(const QString& file) {
    std::string text;
    CCommonFunctions::ReadXMLFile(file.toStdWString(), text, false);
    CMarkupSTL doc(text.c_str());
    return doc.FindElem("root") && doc.FindChildElem(kSection) && doc.IntoElem() &&
           doc.FindChildElem(kKey) && doc.IntoElem() && !doc.FindChildElem();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QString file = QString::fromStdString(ScratchFile("Settings.dat", data, size));
    static const QString value = QString::fromUtf8("a<b&c>\"d' ]]> <![CDATA[x]]> \xC3\xA9");
    for (bool unseal : {false, true}) {
        std::string text;
        Require(CCommonFunctions::ReadXMLFile(file.toStdWString(), text, unseal) == 0 ||
                    text.empty(),
                "a failed read delivers nothing");
    }
    GetConfigure(kSection, kKey, QVariant(), file);
    WriteConfigure(kSection, kKey, QVariant(value), file);
    const QString back = GetConfigure(kSection, kKey, QVariant(), file).toString();
    Require(back == value || !KeyHoldsData(file), "the value reads back exactly",
            back.toStdString());
    return 0;
}
