// Parsing, reading, editing, Load and Save of CMarkupSTL, and random edits.
#include "MarkupSTL.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <tuple>

#define DECL "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
#define OP(expr) [](MarkupProbe& d) { return expr; }

namespace {
class MarkupProbe : public CMarkupSTL {
public:
    using CMarkupSTL::CMarkupSTL;
    using CMarkupSTL::elemIndex, CMarkupSTL::nextFreePos, CMarkupSTL::mainPos, CMarkupSTL::childPos,
        CMarkupSTL::nodeType, CMarkupSTL::x_TextFromDoc;

    // Tag offsets, then where parent, firstChild and nextSibling start (-1: none).
    using Node = std::array<int, 7>;

    // The indexed elements in document order, walked without recursion.
    std::vector<Node> Tree() const {
        auto at = [&](int slot) { return slot ? elemIndex[slot].startTagLeft : -1; };
        std::vector<Node> nodes;
        for (int pos = elemIndex[0].firstChild; pos && nodes.size() <= elemIndex.size();) {
            const ElemPos& e = elemIndex[pos];
            nodes.push_back({e.startTagLeft, e.startTagRight, e.endTagLeft, e.endTagRight,
                             at(e.parent), at(e.firstChild), at(e.nextSibling)});
            int next = e.firstChild;
            for (int up = pos; !next && up; up = elemIndex[up].parent)
                next = elemIndex[up].nextSibling;
            pos = next;
        }
        return nodes;
    }

    bool MatchesFreshParse() const { return MarkupProbe(GetDoc().c_str()).Tree() == Tree(); }
};

struct RandomXml {
    std::mt19937 rng;
    int Pick(int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }
    std::string From(std::initializer_list<std::string> l) {
        return l.begin()[Pick(int(l.size()))];
    }
    const char* Name() { return std::array{"a", "ab", "b", "item", "items", "k"}[Pick(6)]; }
    const char* Any() { return Pick(2) ? Name() : nullptr; }
    const char* Data() { return std::array{"", "1", "x<y&z>", " s ", "]]>", "'\""}[Pick(6)]; }

    std::string Text() {
        return From({"\r\n", " \t", "t&amp;x", "<!-- c -->", "<![CDATA[<z>]]>", "<?p x?>"});
    }
    std::string Element(int depth) {
        const std::string name = Name();
        std::string text = "<" + name;
        for (int i = Pick(3); i > 0; --i)
            text += From({" x=\"1\"", " y='a&amp;b'", " xy=\"/p\"", "\r\n x='' ", " y=2"});
        if (Pick(depth > 3 ? 3 : 6) < 3)
            return text + From({"/>", " />", "></" + name + ">"});
        text += ">";
        for (int i = Pick(5); i > 0; --i)
            text += Pick(3) ? Element(depth + 1) : Text();
        return text + "</" + name + From({">", " >"});
    }
    std::string Document() {
        return From({"", "<?xml version=\"1.0\"?>\r\n"}) + From({"", "<!-- head -->\r\n"}) +
               Element(0) + From({"", "\r\n"});
    }

    void Walk(CMarkupSTL& d) {
        for (int i = Pick(4), k = Pick(6); i > 0; --i, k = Pick(6))
            k < 2   ? (k ? d.FindChildElem(Any()) : d.FindElem(Any()))
            : k < 4 ? (k == 2 ? d.IntoElem() : d.OutOfElem())
                    : (k == 4 ? d.ResetMainPos() : d.ResetChildPos(), true);
        const std::string sub = Pick(2) ? d.GetSubDoc() : "<!-- s --> " + Element(2) + "\r\n";
        const char *n = Name(), *s = sub.c_str(), *v = Pick(7) ? Data() : nullptr;
        const int k = Pick(9), in = Pick(2);
        k == 0   ? (in ? d.InsertElem(n, v) : d.AddElem(n, v))
        : k == 1 ? (in ? d.InsertChildElem(n, v) : d.AddChildElem(n, v))
        : k == 2 ? d.SetData(v, Pick(2))
        : k == 3 ? d.SetChildData(v, Pick(2))
        : k == 4 ? d.SetAttrib(Pick(2) ? "x" : "z", v)
        : k == 5 ? d.SetChildAttrib("y", Pick(99))
        : k == 6 ? (in ? d.RemoveElem() : d.RemoveChildElem())
        : k == 7 ? (in ? d.InsertSubDoc(s) : d.AddSubDoc(s))
                 : (in ? d.InsertChildSubDoc(s) : d.AddChildSubDoc(s));
    }

    std::string Mutate(std::string t) {
        for (int i = Pick(6); i >= 0; --i)
            t.replace(Pick(static_cast<int>(t.size()) + 1), Pick(3),
                      std::string(Pick(3), Pick(8) ? "<>/?!-[]\"'= \r\n\tabx&#;0CDATA"[Pick(27)]
                                                   : static_cast<char>(Pick(256))));
        return t;
    }
};
} // namespace

TEST(MarkupParse, EveryErrorMessageKeepsTheTextAndNoElement) {
    const char* const cases[][2] = {{"just text", "Element tag not found"},
                                    {"<?xml version=\"1.0\"?>\r\n", "Element tag not found"},
                                    {"<  \r\n", "Abrupt end within tag"},
                                    {"<'a'>", "Tag starts with quote"},
                                    {"<!-- open", "Invalid node"},
                                    {"< ?pi?><a/>", "Invalid node"},
                                    {"<!DOCTYPE x [ <!ENTITY e 'v'> ", "Invalid node"},
                                    {"<a", "End of tag not found"},
                                    {"<a>", "End tag of a element not found"},
                                    {"<a><bb>text", "End tag of bb element not found"},
                                    {"<a><!-- c -->", "Expecting end tag of element a"},
                                    {"<a><b></a>", "End tag does not correspond to b"},
                                    {"<a></ab>", "End tag does not correspond to a"},
                                    {"<a></>", "End tag does not correspond to a"},
                                    {"<a></a", "End tag not completed for element a"},
                                    {"<a></", "End tag not completed for element a"}};
    for (const auto& c : cases) {
        MarkupProbe doc;
        EXPECT_FALSE(doc.SetDoc(c[0]) || doc.IsWellFormed() || doc.FindElem());
        EXPECT_EQ(doc.GetError() + "|" + doc.GetDoc() + "|" + std::to_string(doc.nextFreePos),
                  std::string(c[1]) + "|" + c[0] + "|1");
    }
    CMarkupSTL doc; // no error for no text; an error survives a later success
    const std::string name(5000, 'n');
    EXPECT_FALSE(doc.SetDoc(nullptr) || doc.SetDoc("") || doc.GetError() != "" ||
                 doc.SetDoc(("<" + name + ">").c_str()) || !doc.SetDoc("<a/>"));
    EXPECT_EQ(doc.GetError(), "End tag of " + name + " element not found");
}

TEST(MarkupParse, IndexRecordsTagOffsetsLinksAndSkipsNodes) {
    MarkupProbe doc("<r><a x='1'>t</a><b/><c><d/></c></r>");
    EXPECT_EQ(doc.Tree(), (std::vector<MarkupProbe::Node>{{0, 2, 32, 35, -1, 3, -1},
                                                          {3, 11, 13, 16, 0, -1, 17},
                                                          {17, 20, 19, 20, 0, -1, 21},
                                                          {21, 23, 28, 31, 0, 24, -1},
                                                          {24, 27, 26, 27, 21, -1, -1}}));
    EXPECT_EQ(doc.nextFreePos, 6); // slots taken for end tags were given back
    doc.SetDoc("<?xml version=\"1.0\"?>\r\n<!-- c -->\r\n<root/>");
    EXPECT_EQ(doc.Tree(), (std::vector<MarkupProbe::Node>{{35, 41, 40, 41, -1, -1, -1}}));
    doc.SetDoc("<!DOCTYPE r [ <!ENTITY e \"x>\"> ]>\n<r><?pi a?><![CDATA[<no/>]]>"
               "<!-- <no/> --><a[1]>x</a><b></b q>tail</r   ><after/>");
    ASSERT_TRUE(doc.FindElem("r") && doc.FindChildElem() && doc.GetChildTagName() == "a[1]" &&
                doc.FindChildElem() && doc.GetChildTagName() == "b");
    EXPECT_FALSE(doc.FindChildElem() || doc.FindElem()); // only the first root is indexed
}

TEST(MarkupParse, IndexGrowthAndMillionLevelsWithoutRecursion) {
    EXPECT_EQ(MarkupProbe(std::string(640, ' ').c_str()).elemIndex.size(), 18u);
    std::string open, close;
    for (int i = 0; i < 28; ++i)
        open += "<e/>";
    MarkupProbe doc(("<r>" + open + "</r>" + std::string(640 - 119, ' ')).c_str());
    EXPECT_EQ(doc.nextFreePos, 30);
    EXPECT_TRUE(doc.elemIndex.size() == 40u && doc.SetDoc("<a/>")); // 18 -> 27 -> 40
    EXPECT_EQ(doc.elemIndex.size(), 40u);                           // and never shrinks

    const int depth = 1000000;
    for (open.clear(); close.size() < 4u * depth; close += "</a>")
        open += "<a>";
    EXPECT_FALSE(doc.SetDoc(open.c_str()) || doc.GetError() != "End tag of a element not found");
    ASSERT_TRUE(doc.SetDoc((open + close).c_str()));
    EXPECT_EQ(doc.nextFreePos, depth + 1);
    for (doc.FindElem(); doc.FindChildElem();)
        doc.IntoElem();
    EXPECT_EQ(doc.elemIndex[doc.mainPos].startTagLeft, 3 * (depth - 1));
    ASSERT_TRUE(doc.AddChildElem("b")); // moves the end tag of every ancestor
    EXPECT_TRUE(doc.MatchesFreshParse());
}

TEST(MarkupFiles, LoadAndSaveExactBytes) {
    char pattern[] = "/tmp/markup_test_XXXXXX";
    ASSERT_TRUE(mkdtemp(pattern));
    const std::string dir = pattern, a = dir + "/a", b = dir + "/b";
    std::ofstream(a, std::ios::binary) << "\xEF\xBB\xBF<?xml?>\r\n<root>\r\n</root>\r\n";
    CMarkupSTL doc;
    ASSERT_TRUE(doc.Load(a.c_str()) && doc.FindElem("root") && doc.AddChildElem("n", "1"));
    ASSERT_TRUE(doc.Save(b.c_str()) && !doc.Save((dir + "/no/such").c_str()));
    std::stringstream saved;
    saved << std::ifstream(b, std::ios::binary).rdbuf();
    EXPECT_EQ(saved.str(), "\xEF\xBB\xBF<?xml?>\r\n<root>\r\n<n>1</n>\r\n</root>\r\n");
    std::ofstream(a, std::ios::binary) << std::string("<a>\0<b>", 7);
    EXPECT_FALSE(doc.Load(a.c_str()) || doc.GetDoc() != "<a>"); // stops at NUL, keeps bad text
    for (const std::string& path : {dir + "/missing", dir, (std::ofstream{b}, b)}) // empty b
        EXPECT_FALSE(!doc.SetDoc("<old/>") || doc.Load(path.c_str()) || doc.GetDoc() != "") << path;
    std::filesystem::remove_all(dir);
}

TEST(MarkupRead, UnescapesEntitiesAndCharacterReferences) {
    const std::string cases[][2] = {
        {"&#65;&#x42;&#233;&bogus;", "AB\xC3\xA9&bogus;"},
        {"&lt;&amp;&gt;&apos;&quot;", "<&>'\""},
        {"&amp &lt", "&amp &lt"},
        {"&#127;&#128;&#2047;&#2048;", "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80"},
        {"&#65601;", "\xE0\x81\x81"},   // 0x10041 keeps its low 16 bits
        {"&#1114111;", "\xEF\xBF\xBF"}, // seven digits still read
        {"&#12345678;", "&#12345678;"},
        {"&#-1;", "\xFF"},
        {"&#x;&#x1g;&#X41;", std::string("\0\x01\0", 3)}, // "X" is not hex
        {"&#65 &#", "&#65 &#"},
        {" <![CDATA[a<b&amp;]]> tail", "a<b&amp;"},
        {"<![CDATA[]]>", ""},
        {"x<![CDATA[y]]>&lt;", "x<![CDATA[y]]><"},
        {"text<c>x</c><e/>", ""}}; // no data for parents
    for (const auto& c : cases) {
        CMarkupSTL doc(("<k>" + c[0] + "</k>").c_str());
        EXPECT_TRUE(doc.FindElem());
        EXPECT_EQ(doc.GetData(), c[1]) << c[0];
    }
    MarkupProbe cut("<k>&lt;</k>"); // an entity must end within the range
    EXPECT_EQ(cut.x_TextFromDoc(3, 6) + cut.x_TextFromDoc(3, 5) + cut.x_TextFromDoc(5, 4), "<&lt");
}

// From the root, each op returns true when every step behaved; then the text is exact (nullptr:
// unchanged) and the index is what a fresh parse gives.
TEST(MarkupScenario, ReadsAndEditsGiveExactBytes) {
    const std::tuple<const char*, bool (*)(MarkupProbe&), const char*> cases[] = {
        // tag names match when the name ends at a space, '[', '=' or '/'
        {"<r><items/><ite/><a/><Item/><item x='1'/></r>",
         OP(d.FindChildElem("item") && d.GetChildAttrib("x") + d.GetChildData() == "1" &&
            (d.ResetChildPos(), d.FindChildElem("a b")) &&
            (d.ResetChildPos(), d.FindChildElem("a[2]")) &&
            (d.ResetChildPos(), d.FindChildElem("a=1")) &&
            (d.ResetChildPos(), d.FindChildElem("a/")) && !d.FindChildElem("a") &&
            (d.ResetChildPos(), !d.FindChildElem("it")) && !d.FindChildElem("ITEM") &&
            !d.FindChildElem("ab") && d.GetChildTagName() == ""),
         nullptr},
        // attribute values need quotes; '/' ends the search
        {"<e a=\"1\" b='&lt;2' c=3 v=1 path=\"/usr\"/>",
         OP(d.GetAttrib("a") + "," + d.GetAttrib("b") + "," + d.GetAttrib("b x") == "1,<2,<2" &&
            d.GetAttrib("bb") + d.GetAttrib("c") + d.GetAttrib("v") + d.GetAttrib("path") == "" &&
            d.GetAttrib("") == "a" && d.GetAttrib(nullptr) == ""),
         nullptr},
        // cursor moves, sub-documents and saved positions
        {"<r><a><x/></a>\r\n<b/> x</r>",
         OP(d.FindChildElem("a") && d.IntoElem() && d.SavePos("at a") &&
            d.GetSubDoc() == "<a><x/></a>\r\n" && d.FindElem() && d.IntoElem() && !d.IntoElem() &&
            !d.FindElem() && d.OutOfElem() && d.OutOfElem() && !d.OutOfElem() &&
            d.GetChildTagName() + d.GetChildSubDoc() == "b<b/>" && !d.SavePos(nullptr) &&
            !d.RestorePos("unknown") && d.RestorePos("at a") && d.RemoveElem() &&
            !d.RestorePos("at a") && d.SavePos("r") && d.SetDoc("<r/>") && !d.RestorePos("r")),
         "<r/>"},
        // the settings-file shape, built from nothing and updated
        {"",
         OP(!d.SetDoc(DECL) && d.AddElem("root") && d.GetDoc() == DECL "<root/>\r\n" &&
            !d.AddElem("second") && !d.InsertElem("second") && !d.AddChildElem(nullptr) &&
            !d.AddChildElem("") && d.AddChildElem("Schedule") && d.IntoElem() &&
            d.AddChildElem("Cycle", "7") && d.AddChildElem("Note", "a<b&c") && d.OutOfElem() &&
            d.AddChildElem("Other") && d.IntoElem() && d.AddChildElem("k", "v") &&
            d.GetDoc() == DECL
                "<root>\r\n<Schedule>\r\n<Cycle>7</Cycle>\r\n<Note>a&lt;b&amp;c"
                "</Note>\r\n</Schedule>\r\n<Other>\r\n<k>v</k>\r\n</Other>\r\n</root>\r\n" &&
            (d.ResetMainPos(), d.FindElem("Schedule")) && d.FindChildElem("Cycle") &&
            d.SetChildData("30") && d.FindChildElem("Note") && d.SetChildData("") &&
            d.AddChildElem("New", "x")),
         DECL "<root>\r\n<Schedule>\r\n<Cycle>30</Cycle>\r\n<Note></Note>\r\n<New>x</New>\r\n"
              "</Schedule>\r\n<Other>\r\n<k>v</k>\r\n</Other>\r\n</root>\r\n"},
        // children into empty, bare and text parents
        {"<p/>", OP(d.AddChildElem("c") && d.GetChildTagName() == "c"), "<p>\r\n<c/>\r\n</p>"},
        {"<p x='1' />", OP(d.InsertChildElem("c", "")), "<p x='1' >\r\n<c/>\r\n</p>"},
        {"<p></p>", OP(d.InsertChildElem("c", "1")), "<p>\r\n<c>1</c>\r\n</p>"},
        {"<p>text</p>", OP(d.AddChildElem("c")), "<p>text<c/>\r\n</p>"},
        {"<p>text</p>", OP(d.InsertChildElem("c")), "<p><c/>\r\ntext</p>"},
        {"<p>\r\n<a/>\r\n</p>", OP(d.InsertChildElem("c") && d.GetChildTagName() == "c"),
         "<p>\r\n<c/>\r\n<a/>\r\n</p>"},
        {"<r><p/><q/></r>", OP(d.FindChildElem("p") && d.IntoElem() && d.AddChildElem("c", "&")),
         "<r><p>\r\n<c>&amp;</c>\r\n</p><q/></r>"},
        // siblings go after or before the current element
        {"<r>\r\n<a/>\r\n<c/>\r\n</r>",
         OP(d.FindChildElem("a") && d.IntoElem() && d.AddElem("b") && d.InsertElem("a2") &&
            (d.ResetMainPos(), d.InsertElem("first")) && (d.ResetMainPos(), d.AddElem("last"))),
         "<r>\r\n<first/>\r\n<a/>\r\n<a2/>\r\n<b/>\r\n<c/>\r\n<last/>\r\n</r>"},
        // data is escaped or written as CDATA
        {"<r><a/><b>old</b><c x='1'/></r>",
         OP(!d.SetData("parent") && d.FindChildElem("a") && d.SetChildData("x<y'\"") &&
            d.FindChildElem("b") && d.SetChildData("]]>", 1) && d.FindChildElem("c") &&
            d.SetChildData("a<b", 1) && d.GetChildData() == "a<b" &&
            (d.ResetPos(), !d.SetData("x") && !d.SetChildData("x"))),
         "<r><a>x&lt;y'\"</a><b>]]&gt;</b><c x='1'><![CDATA[a<b]]></c></r>"},
        // attributes are added or replaced, escaped
        {"<r><a/><b /><c>t</c><d k=\"old\" j='x'/></r>",
         OP(d.FindChildElem("a") && d.SetChildAttrib("n", "1") && d.FindChildElem("b") &&
            d.SetChildAttrib("n", 1) && d.FindChildElem("c") && d.SetChildAttrib("v", "x\"y'z") &&
            d.FindChildElem("d") && d.SetChildAttrib("j", "<&>") && d.SetChildAttrib("k", -5) &&
            d.GetChildAttrib("j") == "<&>" && !d.SetChildAttrib("", "v") &&
            !d.SetChildAttrib(nullptr, "v")),
         "<r><a n=\"1\"/><b  n=\"1\"/><c v=\"x&quot;y&apos;z\">t</c>"
         "<d k=\"-5\" j='&lt;&amp;&gt;'/></r>"},
        {"<e v=1/>", OP(d.SetAttrib("v", "2") && (d.ResetPos(), !d.SetAttrib("v", "3"))),
         "<e v=1 v=\"2\"/>"},
        // removal takes the following whitespace only before a tag
        {"<p>\r\n<c/>\r\n</p>",
         OP(d.FindChildElem() && d.RemoveChildElem() && d.childPos == 0 && !d.RemoveChildElem()),
         "<p>\r\n</p>"},
        {"<r>\r\n<a/>\r\n<b>x</b> tail\r\n<c/>\r\n</r>",
         OP(d.FindChildElem("b") && d.IntoElem() && d.RemoveElem() &&
            d.GetDoc() == "<r>\r\n<a/>\r\n tail\r\n<c/>\r\n</r>" && d.GetTagName() == "a" &&
            d.RemoveElem() && d.mainPos + d.nodeType == 0 && !d.RemoveElem()),
         "<r>\r\n\r\n tail\r\n<c/>\r\n</r>"},
        {"<?xml?>\r\n<r/>\r\n",
         OP(d.RemoveElem() && d.GetDoc() == "<?xml?>\r\n" && !d.IsWellFormed() && d.AddElem("n")),
         "<?xml?>\r\n<n/>\r\n"},
        // sub-documents go in raw; bad ones fail and change nothing
        {"<r><p/></r>",
         OP(d.FindChildElem("p") && d.IntoElem() &&
            d.AddChildSubDoc("<!-- lead -->\r\n<x a='1'><y/></x>\r\n") &&
            d.GetChildSubDoc() == "<x a='1'><y/></x>\r\n" && d.AddSubDoc("<q/>") &&
            d.InsertSubDoc("<z>1</z>") && d.FindElem("q") && d.InsertChildSubDoc("<w/>") &&
            !d.InsertChildSubDoc("<q>") && // would close with the parent's end tag
            !d.AddChildSubDoc("<bad>") && d.GetError() == "End tag does not correspond to bad" &&
            !d.AddChildSubDoc("just text") && !d.AddChildSubDoc("") &&
            !d.AddChildSubDoc("<!-- never closed") && d.GetError() == "Invalid node"),
         "<r><p>\r\n<x a='1'><y/></x>\r\n</p><z>1</z><q>\r\n<w/></q></r>"},
        {"<r><p/></r>",
         OP(d.FindChildElem("p") && d.IntoElem() && !d.AddChildSubDoc("<bad>") &&
            (d.ResetPos(), !(d.FindElem() && d.AddSubDoc("<t/>")))),
         nullptr}};
    for (const auto& [text, op, result] : cases) {
        MarkupProbe doc(text);
        EXPECT_TRUE((doc.FindElem(), op(doc))) << text;
        EXPECT_EQ(doc.GetDoc(), result ? result : text);
        EXPECT_TRUE(doc.MatchesFreshParse()) << doc.GetDoc();
    }
}

// Random edits of valid documents keep the index equal to a fresh parse; odd markup from arbitrary
// bytes may be edited into text that parses differently ("<b //>" stays empty) but nothing breaks.
TEST(MarkupInvariant, RandomEditsOnValidAndArbitraryText) {
    RandomXml random{std::mt19937(20240611)};
    int edits = 0, parsed = 0;
    for (int round = 0; round < 6300; ++round) {
        const bool valid = round < 300;
        const std::string text =
            valid ? random.Document() : random.Mutate(random.Pick(3) ? random.Document() : "");
        MarkupProbe doc;
        const bool ok = doc.SetDoc(text.c_str());
        ASSERT_TRUE(ok == doc.IsWellFormed() && (ok || !valid)) << text;
        parsed += ok;
        EXPECT_EQ(doc.GetDoc(), text.substr(0, text.find('\0')));
        for (int step = 0; step < (valid ? 30 : 8); ++step) {
            const std::string before = doc.GetDoc();
            random.Walk(doc);
            edits += valid && doc.GetDoc() != before;
            ASSERT_TRUE(!valid || doc.MatchesFreshParse()) << before << " became " << doc.GetDoc();
            // Readers only have to survive whatever the cursor points at.
            (void)(doc.GetTagName() + doc.GetData() + doc.GetChildData() + doc.GetAttrib("x") +
                   doc.GetAttribName(random.Pick(3)) + doc.GetChildSubDoc());
            (void)(valid || doc.AddChildSubDoc(random.Mutate(text).c_str()));
        }
        for (const MarkupProbe::Node& n : doc.Tree()) // every position stays inside the text
            ASSERT_TRUE(n[0] >= 0 && n[0] < n[1] && n[2] <= n[3] &&
                        n[3] < int(doc.GetDoc().size()));
    }
    EXPECT_GT(edits, 2000); // the walk really edits
    EXPECT_GT(parsed, 1300);
}
