// Any bytes as a document, given as text and as a file, then a walk over every element that
// reads everything a reader can ask for.
#include "fuzz_support.h"
#include "markup_probe.h"

#include <vector>

namespace {

// Names, data, attributes and sub-documents of the main element: none holds more than the text.
void ReadElement(const CMarkupSTL& doc) {
    const std::string sub = doc.GetSubDoc();
    Require(!sub.empty() && sub[0] == '<', "a sub-document starts with its tag", doc.GetDoc());
    std::vector<std::string> reads = {sub, doc.GetTagName(), doc.GetData(), doc.GetChildData()};
    for (int i = 0; !doc.GetAttribName(i).empty(); ++i) {
        const std::string name = doc.GetAttribName(i);
        reads.insert(reads.end(), {name, doc.GetAttrib(name.c_str())});
    }
    for (const std::string& read : reads)
        Require(read.size() <= doc.GetDoc().size(), "a reader gives no more than the text",
                doc.GetDoc());
}

// Visits every element through the cursor, depth first, without recursion; returns how many.
size_t WalkAll(CMarkupSTL& doc) {
    size_t visited = 0;
    for (bool found = doc.FindElem(); found; ++visited) {
        ReadElement(doc);
        if (doc.FindChildElem() && doc.IntoElem())
            continue;
        found = doc.FindElem();
        while (!found && doc.OutOfElem())
            found = doc.FindElem();
    }
    return visited;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    MarkupProbe fromText, fromFile;
    const bool parsed = fromText.SetDoc(text.c_str());
    Require(fromFile.Load(ScratchFile("document.xml", data, size).c_str()) == parsed &&
                fromFile.GetDoc() == fromText.GetDoc(),
            "Load and SetDoc agree", text);
    Require(WalkAll(fromText) == fromText.Tree().size(), "the walk meets every element", text);
    return 0;
}
