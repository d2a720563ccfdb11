// Any bytes as a document, given as text and as a file, then a walk over every element that
// reads everything a reader can ask for.
#include "markup_probe.h"
#include "scratch.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

void Fail(const char* what, const std::string& text) {
    std::fprintf(stderr, "parse fault: %s\n%s\n", what, text.c_str());
    std::abort();
}

// Reads names, data, attributes and sub-documents of the main element; no reader may give more
// bytes than the text holds.
void ReadElement(const CMarkupSTL& doc) {
    const std::string sub = doc.GetSubDoc();
    if (sub.empty() || sub[0] != '<')
        Fail("a sub-document does not start with its tag", sub);
    std::vector<std::string> reads = {sub, doc.GetTagName(), doc.GetData(), doc.GetChildData()};
    for (int i = 0;; ++i) {
        const std::string name = doc.GetAttribName(i);
        if (name.empty())
            break;
        reads.push_back(name);
        reads.push_back(doc.GetAttrib(name.c_str()));
    }
    for (const std::string& read : reads)
        if (read.size() > doc.GetDoc().size())
            Fail("a reader gave more than the text", doc.GetDoc());
}

// Visits every element through the cursor, depth first, without recursion; returns how many.
size_t WalkAll(CMarkupSTL& doc) {
    size_t visited = 0;
    doc.ResetPos();
    bool found = doc.FindElem();
    while (found) {
        ++visited;
        ReadElement(doc);
        if (doc.FindChildElem()) {
            doc.IntoElem();
            continue;
        }
        found = doc.FindElem();
        while (!found && doc.OutOfElem())
            found = doc.FindElem();
    }
    return visited;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = ScratchFile("document.xml");
    WriteScratch(path, data, size);
    const std::string text(reinterpret_cast<const char*>(data), size);
    MarkupProbe fromText, fromFile;
    const bool parsed = fromText.SetDoc(text.c_str());
    if (fromFile.Load(path.c_str()) != parsed || fromFile.GetDoc() != fromText.GetDoc())
        Fail("Load and SetDoc disagree", text);
    if (WalkAll(fromText) != fromText.Tree().size())
        Fail("the walk missed indexed elements", text);
    return 0;
}
