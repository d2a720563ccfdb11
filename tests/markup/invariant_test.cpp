// Random edits keep the index equal to a fresh parse; arbitrary bytes never break the document.
#include "MarkupProbe.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

namespace {

using Step = std::function<void(CMarkupSTL&)>;

class RandomXml {
public:
    explicit RandomXml(unsigned seed) : rng(seed) {}

    int Pick(int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }
    const char* From(std::initializer_list<const char*> items) {
        return items.begin()[Pick(static_cast<int>(items.size()))];
    }
    std::string From(std::initializer_list<std::string> items) {
        return items.begin()[Pick(static_cast<int>(items.size()))];
    }
    template <size_t N> const Step& From(const Step (&steps)[N]) { return steps[Pick(N)]; }
    const char* Name() { return From({"a", "ab", "b", "item", "items", "k"}); }
    const char* Data() {
        return From({(const char*)nullptr, "", "1", "x<y&z>", " s ", "]]>", "'\""});
    }

    std::string Element(int depth) {
        const std::string name = Name();
        std::string text = "<" + name;
        for (int i = Pick(3); i > 0; --i)
            text += From({" x=\"1\"", " y='a&amp;b'", " xy=\"/p\"", "\r\n x='' ", " y=2"});
        const int shape = depth > 3 ? Pick(3) : Pick(6);
        if (shape < 3)
            return text + From({"/>", " />", "></" + name + ">"});
        text += ">";
        for (int i = Pick(5); i > 0; --i)
            text +=
                Pick(3)
                    ? Element(depth + 1)
                    : From({"\r\n", " \t", "t&amp;x", "<!-- c -->", "<![CDATA[<z>]]>", "<?p x?>"});
        return text + "</" + name + From({">", " >"});
    }

    std::string Document() {
        return std::string(From({"", "<?xml version=\"1.0\"?>\r\n"})) +
               From({"", "<!-- head -->\r\n"}) + Element(0) + From({"", "\r\n"});
    }

    // A few cursor moves, then one edit of any kind.
    void Walk(CMarkupSTL& doc) {
        const Step moves[] = {
            [&](CMarkupSTL& d) { d.FindElem(Pick(2) ? Name() : nullptr); },
            [&](CMarkupSTL& d) { d.FindChildElem(Pick(2) ? Name() : nullptr); },
            [](CMarkupSTL& d) { d.IntoElem(); },
            [](CMarkupSTL& d) { d.OutOfElem(); },
            [](CMarkupSTL& d) { d.ResetMainPos(); },
            [](CMarkupSTL& d) { d.ResetChildPos(); },
        };
        for (int i = Pick(4); i > 0; --i)
            From(moves)(doc);
        const bool in = Pick(2);
        const std::string sub = Pick(2) ? doc.GetSubDoc() : "<!-- s --> " + Element(2) + "\r\n";
        const Step edits[] = {
            [&](CMarkupSTL& d) { in ? d.InsertElem(Name(), Data()) : d.AddElem(Name(), Data()); },
            [&](CMarkupSTL& d) {
                in ? d.InsertChildElem(Name(), Data()) : d.AddChildElem(Name(), Data());
            },
            [&](CMarkupSTL& d) { d.SetData(Data(), Pick(2)); },
            [&](CMarkupSTL& d) { d.SetChildData(Data(), Pick(2)); },
            [&](CMarkupSTL& d) { d.SetAttrib(Pick(2) ? "x" : "z", Data()); },
            [&](CMarkupSTL& d) { d.SetChildAttrib("y", Pick(99)); },
            [&](CMarkupSTL& d) { in ? d.RemoveElem() : d.RemoveChildElem(); },
            [&](CMarkupSTL& d) { in ? d.InsertSubDoc(sub.c_str()) : d.AddSubDoc(sub.c_str()); },
            [&](CMarkupSTL& d) {
                in ? d.InsertChildSubDoc(sub.c_str()) : d.AddChildSubDoc(sub.c_str());
            },
        };
        From(edits)(doc);
    }

    // seed with a few bytes inserted, deleted or replaced.
    std::string Mutate(std::string text) {
        static const char alphabet[] = "<>/?!-[]\"'= \r\n\tabx&#;0CDATA";
        for (int i = Pick(6); i >= 0; --i) {
            const int at = text.empty() ? 0 : Pick(static_cast<int>(text.size()));
            const char c = Pick(8) ? alphabet[Pick(sizeof alphabet - 1)] : char(Pick(256));
            if (text.empty() || Pick(3) == 0)
                text.insert(text.begin() + at, c);
            else if (Pick(2))
                text.erase(at, 1 + Pick(4));
            else
                text[at] = c;
        }
        return text;
    }

private:
    std::mt19937 rng;
};

} // namespace

TEST(MarkupInvariant, EditedIndexEqualsFreshParse) {
    RandomXml random(20240611);
    int edits = 0;
    for (int round = 0; round < 300; ++round) {
        MarkupProbe doc;
        ASSERT_TRUE(doc.SetDoc(random.Document().c_str()));
        for (int step = 0; step < 30; ++step) {
            const std::string before = doc.GetDoc();
            random.Walk(doc);
            edits += doc.GetDoc() != before;
            ASSERT_TRUE(doc.MatchesFreshParse()) << before << "\n---- became ----\n"
                                                 << doc.GetDoc();
        }
    }
    EXPECT_GT(edits, 2000); // the walk really edits
}

TEST(MarkupInvariant, ArbitraryBytesNeverBreakTheDocument) {
    RandomXml random(77);
    int parsed = 0;
    for (int round = 0; round < 6000; ++round) {
        const std::string text = random.Mutate(random.Pick(3) ? random.Document() : "");
        MarkupProbe doc;
        const bool ok = doc.SetDoc(text.c_str());
        parsed += ok;
        EXPECT_EQ(ok, doc.IsWellFormed());
        EXPECT_EQ(doc.GetDoc(), text.substr(0, text.find('\0')));
        for (int step = 0; step < 8; ++step) {
            random.Walk(doc);
            // Readers only have to survive whatever the cursor points at.
            (void)(doc.GetTagName() + doc.GetData() + doc.GetChildData() + doc.GetAttrib("x") +
                   doc.GetAttribName(random.Pick(3)) + doc.GetChildSubDoc());
            doc.AddChildSubDoc(random.Mutate(text).c_str());
        }
        // Odd markup may be edited into text that parses differently ("<b //>" stays empty),
        // but every recorded position stays inside the text.
        for (const MarkupProbe::Node& node : doc.Tree()) {
            ASSERT_TRUE(0 <= node[0] && node[0] < node[1] && node[2] <= node[3]);
            ASSERT_LT(node[3], static_cast<int>(doc.GetDoc().size()));
        }
    }
    EXPECT_GT(parsed, 1000);
}
