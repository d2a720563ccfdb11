// Feeds arbitrary bytes to the XML document: the text itself, then a few navigation and edit
// steps chosen by the last bytes.
#include "MarkupSTL.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    CMarkupSTL doc;
    doc.SetDoc(text.c_str());
    const size_t steps = size < 8 ? size : 8;
    for (size_t i = 0; i < steps; ++i) {
        switch (data[size - 1 - i] % 10) {
        case 0:
            doc.FindElem();
            break;
        case 1:
            doc.FindChildElem();
            break;
        case 2:
            doc.IntoElem();
            break;
        case 3:
            doc.OutOfElem();
            break;
        case 4:
            doc.AddChildElem("n", "a<b");
            break;
        case 5:
            doc.SetAttrib("x", "\"v\"");
            break;
        case 6:
            doc.SetData("d", data[i] & 1);
            break;
        case 7:
            doc.RemoveChildElem();
            break;
        case 8:
            doc.AddChildSubDoc(text.c_str() + i);
            break;
        default:
            doc.GetData();
            doc.GetAttrib("x");
            doc.GetAttribName(1);
            doc.GetSubDoc();
            break;
        }
    }
    return 0;
}
