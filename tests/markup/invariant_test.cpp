// Random edits keep the index equal to a fresh parse; arbitrary bytes never break the document.
#include "MarkupProbe.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

class RandomXml {
public:
    explicit RandomXml(unsigned seed) : rng(seed) {}

    int Pick(int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }
    template <size_t N> const char* From(const char* const (&items)[N]) { return items[Pick(N)]; }

    const char* Name() {
        static const char* const names[] = {"a", "ab", "b", "item", "items", "k"};
        return From(names);
    }
    const char* Data() {
        static const char* const data[] = {nullptr, "", "1", "x<y&z>", "  spaced ", "]]>", "q\"'"};
        return From(data);
    }

    std::string Element(int depth) {
        const std::string name = Name();
        std::string text = "<" + name;
        for (int i = Pick(3); i > 0; --i) {
            static const char* const attribs[] = {" x=\"1\"", " y='a&amp;b'", " xy=\"/p\"",
                                                  "\r\n x='' ", " y=2"};
            text += From(attribs);
        }
        switch (depth > 3 ? Pick(3) : Pick(6)) {
        case 0:
            return text + "/>";
        case 1:
            return text + " />";
        case 2:
            return text + "></" + name + ">";
        default:
            break;
        }
        text += ">";
        for (int i = Pick(5); i > 0; --i) {
            static const char* const nodes[] = {
                "\r\n", " \t", "t&amp;x", "<!-- c -->", "<![CDATA[<z>]]>", "<?p x?>"};
            text += Pick(3) ? Element(depth + 1) : From(nodes);
        }
        return text + (Pick(2) ? "</" + name + ">" : "</" + name + " >");
    }

    std::string Document() {
        std::string text = Pick(2) ? "<?xml version=\"1.0\"?>\r\n" : "";
        if (Pick(2))
            text += "<!-- head -->\r\n";
        text += Element(0);
        return Pick(2) ? text + "\r\n" : text;
    }

    void Navigate(CMarkupSTL& doc) {
        for (int i = Pick(4); i > 0; --i) {
            switch (Pick(6)) {
            case 0:
                doc.FindElem(Pick(2) ? Name() : nullptr);
                break;
            case 1:
                doc.FindChildElem(Pick(2) ? Name() : nullptr);
                break;
            case 2:
                doc.IntoElem();
                break;
            case 3:
                doc.OutOfElem();
                break;
            case 4:
                doc.ResetMainPos();
                break;
            default:
                doc.ResetChildPos();
                break;
            }
        }
    }

    void Edit(CMarkupSTL& doc) {
        const bool insert = Pick(2);
        switch (Pick(9)) {
        case 0:
            insert ? doc.InsertElem(Name(), Data()) : doc.AddElem(Name(), Data());
            break;
        case 1:
            insert ? doc.InsertChildElem(Name(), Data()) : doc.AddChildElem(Name(), Data());
            break;
        case 2:
            doc.SetData(Data(), Pick(2));
            break;
        case 3:
            doc.SetChildData(Data(), Pick(2));
            break;
        case 4:
            Pick(2) ? doc.SetAttrib(Pick(2) ? "x" : "z", Data())
                    : doc.SetChildAttrib("y", Pick(99));
            break;
        case 5:
            Pick(2) ? doc.RemoveElem() : doc.RemoveChildElem();
            break;
        default: {
            const std::string sub = Pick(2) ? doc.GetSubDoc() : "<!-- s --> " + Element(2) + "\r\n";
            if (Pick(2))
                insert ? doc.InsertSubDoc(sub.c_str()) : doc.AddSubDoc(sub.c_str());
            else
                insert ? doc.InsertChildSubDoc(sub.c_str()) : doc.AddChildSubDoc(sub.c_str());
            break;
        }
        }
    }

    std::string Bytes(const std::string& seed) {
        static const char alphabet[] = "<>/?!-[]\"'= \r\n\tabx&#;0CDATA";
        std::string text = seed;
        for (int i = Pick(6); i >= 0; --i) {
            const int at = text.empty() ? 0 : Pick(static_cast<int>(text.size()));
            const char c =
                Pick(8) ? alphabet[Pick(sizeof alphabet - 1)] : static_cast<char>(Pick(256));
            switch (Pick(3)) {
            case 0:
                text.insert(text.begin() + at, c);
                break;
            case 1:
                if (!text.empty())
                    text.erase(at, 1 + Pick(4));
                break;
            default:
                if (!text.empty())
                    text[at] = c;
                break;
            }
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
        const std::string text = random.Document();
        MarkupProbe doc;
        ASSERT_TRUE(doc.SetDoc(text.c_str())) << text;
        ASSERT_EQ(doc.GetSubDoc(), "");
        for (int step = 0; step < 30; ++step) {
            random.Navigate(doc);
            const std::string before = doc.GetDoc();
            random.Edit(doc);
            edits += doc.GetDoc() != before;
            MarkupProbe fresh(doc.GetDoc().c_str());
            ASSERT_EQ(fresh.Tree(), doc.Tree()) << "before:\n"
                                                << before << "\nafter:\n"
                                                << doc.GetDoc();
            ASSERT_EQ(fresh.IsWellFormed(), doc.IsWellFormed());
        }
    }
    EXPECT_GT(edits, 2000); // the walk really edits
}

TEST(MarkupInvariant, ArbitraryBytesNeverBreakTheDocument) {
    RandomXml random(77);
    int parsed = 0;
    for (int round = 0; round < 6000; ++round) {
        const std::string text = random.Bytes(random.Pick(3) ? random.Document() : std::string());
        MarkupProbe doc;
        const bool ok = doc.SetDoc(text.c_str());
        parsed += ok;
        EXPECT_EQ(ok, doc.IsWellFormed());
        EXPECT_EQ(doc.GetDoc(), text.substr(0, text.find('\0')));
        for (int step = 0; step < 8; ++step) {
            random.Navigate(doc);
            doc.GetTagName();
            doc.GetData();
            doc.GetChildData();
            doc.GetAttrib("x");
            doc.GetAttribName(random.Pick(3));
            doc.GetChildSubDoc();
            random.Edit(doc);
            doc.AddChildSubDoc(random.Bytes(text).c_str());
        }
        // Odd markup may be edited into text that parses differently ("<b //>" stays empty),
        // but every recorded position stays inside the text.
        const int size = static_cast<int>(doc.GetDoc().size());
        for (const MarkupProbe::Node& node : doc.Tree()) {
            ASSERT_LE(0, node.startTagLeft);
            ASSERT_LT(node.startTagLeft, node.startTagRight);
            ASSERT_LE(node.endTagLeft, node.endTagRight);
            ASSERT_LT(node.endTagRight, size);
        }
    }
    EXPECT_GT(parsed, 1000);
}
