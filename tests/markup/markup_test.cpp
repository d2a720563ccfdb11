// Parsing, reading, editing, Load and Save of CMarkupSTL, and the edit fuzz target's corpus.
#include "markup_edits.h"
#include "markup_probe.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <tuple>

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
        const int parsed = doc.SetDoc(c[0]), wellFormed = doc.IsWellFormed(),
                  found = doc.FindElem();
        // parsed, well-formed, found | message | text kept | next free slot
        EXPECT_EQ(std::to_string(parsed) + std::to_string(wellFormed) + std::to_string(found) +
                      "|" + doc.GetError() + "|" + doc.GetDoc() + "|" +
                      std::to_string(doc.nextFreePos),
                  std::string("000|") + c[1] + "|" + c[0] + "|1");
    }
    CMarkupSTL doc; // no error for no text; an error survives a later success
    const std::string name(5000, 'n');
    EXPECT_FALSE(doc.SetDoc(nullptr));
    EXPECT_FALSE(doc.SetDoc(""));
    EXPECT_EQ(doc.GetError(), "");
    EXPECT_FALSE(doc.SetDoc(("<" + name + ">").c_str()));
    EXPECT_TRUE(doc.SetDoc("<a/>"));
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
    std::string names;
    for (doc.FindElem("r"); doc.FindChildElem();)
        names += doc.GetChildTagName() + " ";
    EXPECT_EQ(names, "a[1] b ");
    EXPECT_FALSE(doc.FindElem()); // only the first root is indexed
}

TEST(MarkupParse, IndexGrowthAndMillionLevelsWithoutRecursion) {
    EXPECT_EQ(MarkupProbe(std::string(640, ' ').c_str()).elemIndex.size(), 18u);
    std::string open, close;
    for (int i = 0; i < 28; ++i)
        open += "<e/>";
    MarkupProbe doc(("<r>" + open + "</r>" + std::string(640 - 119, ' ')).c_str());
    EXPECT_EQ(doc.nextFreePos, 30);
    EXPECT_EQ(doc.elemIndex.size(), 40u); // 18 -> 27 -> 40
    doc.SetDoc("<a/>");
    EXPECT_EQ(doc.elemIndex.size(), 40u); // and never shrinks

    const int depth = 1000000;
    for (open.clear(); close.size() < 4u * depth; close += "</a>")
        open += "<a>";
    EXPECT_FALSE(doc.SetDoc(open.c_str()));
    EXPECT_EQ(doc.GetError(), "End tag of a element not found");
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
    EXPECT_FALSE(doc.Load(a.c_str()));
    EXPECT_EQ(doc.GetDoc(), "<a>"); // stops at NUL, keeps bad text
    for (const std::string& path : {dir + "/missing", dir, (std::ofstream{b}, b)}) { // empty b
        doc.SetDoc("<old/>");
        EXPECT_FALSE(doc.Load(path.c_str())) << path;
        EXPECT_EQ(doc.GetDoc(), "") << path;
    }
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

// Names match when the wanted name ends where the tag or attribute name does, or goes on with a
// space, '[', '=' or '/'. Values need quotes, and a quoted value is data whatever it starts with.
TEST(MarkupRead, NamesMatchByPrefixAndQuotedValuesAreData) {
    MarkupProbe doc("<r><items/><ite/><a/><Item/><item x='1'/></r>");
    const char* const tags[][2] = {{"item", "item"}, {"a b", "a"}, {"a[2]", "a"}, {"a=1", "a"},
                                   {"a/", "a"},      {"it", ""},   {"ITEM", ""},  {"ab", ""}};
    for (const auto& t : tags) {
        doc.ResetPos();
        doc.FindChildElem(t[0]);
        EXPECT_EQ(doc.GetChildTagName(), t[1]) << "FindChildElem(\"" << t[0] << "\")";
    }
    doc.SetDoc(R"(<e a="1" b='&lt;2' c=3 v=1 path="/usr" q="?x" s="" n="2"/>)");
    doc.FindElem();
    const char* const attributes[][2] = {{"a", "1"},  {"b", "<2"}, {"b x", "<2"}, {"bb", ""},
                                         {"c", ""},   {"v", ""},   {"s", ""},     {"path", "/usr"},
                                         {"q", "?x"}, {"n", "2"},  {"", "a"}};
    for (const auto& a : attributes)
        EXPECT_EQ(doc.GetAttrib(a[0]), a[1]) << "GetAttrib(\"" << a[0] << "\")";
    EXPECT_EQ(doc.GetAttrib(nullptr), "");
    std::string names; // an unquoted value counts as a name, and hides the name after it
    for (int i = 0; !doc.GetAttribName(i).empty(); ++i)
        names += doc.GetAttribName(i) + " ";
    EXPECT_EQ(names, "a b c 3 1 q s n ");
}

namespace {

// One step of a scenario: the call as written and what it must give ("true" or "false" for a
// success flag). Expected texts write CR LF as a line break.
struct Step {
    const char* call;
    std::function<std::string(MarkupProbe&)> run;
    const char* expected;
};
std::string Shown(bool done) {
    return done ? "true" : "false";
}
std::string Shown(const std::string& text) {
    return text;
}
Step Made(const char* call, std::function<std::string(MarkupProbe&)> run, const char* expected) {
    return {call, std::move(run), expected};
}
#define STEP(call, expected)                                                                       \
    Made(                                                                                          \
        #call, [](MarkupProbe& d) { return Shown(call); }, expected)
#define OK(call) STEP(call, "true")
#define NO(call) STEP(call, "false")

std::string Crlf(std::string text) {
    for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += 2)
        text.insert(at, "\r");
    return text;
}

} // namespace

// From the root, every step gives what it must; then the text is exact (nullptr: unchanged) and
// the index is what a fresh parse gives.
TEST(MarkupScenario, ReadsAndEditsGiveExactBytes) {
    const std::tuple<const char*, std::vector<Step>, const char*> cases[] = {
        // cursor moves and sub-documents
        {"<r><a><x/></a>\n<b/> x</r>",
         {OK(d.FindChildElem("a")), OK(d.IntoElem()), STEP(d.GetSubDoc(), "<a><x/></a>\n"),
          OK(d.FindElem()), OK(d.IntoElem()), NO(d.IntoElem()), NO(d.FindElem()), OK(d.OutOfElem()),
          OK(d.OutOfElem()), NO(d.OutOfElem()), STEP(d.GetChildTagName(), "b"),
          STEP(d.GetChildSubDoc(), "<b/>")},
         nullptr},
        // saved positions: a removed element or a new document ends them
        {"<r><a><x/></a>\n<b/> x</r>",
         {OK(d.FindChildElem("a")), OK(d.IntoElem()), OK(d.SavePos("at a")), OK(d.OutOfElem()),
          NO(d.SavePos(nullptr)), NO(d.RestorePos("unknown")), OK(d.RestorePos("at a")),
          STEP(d.GetTagName(), "a"), OK(d.RemoveElem()), NO(d.RestorePos("at a")),
          OK(d.SavePos("r")), OK(d.SetDoc("<r/>")), NO(d.RestorePos("r"))},
         "<r/>"},
        // a position saved in another document is restored only where it is consistent
        {"<r><a><b><c/><d/></b></a></r>",
         {OK(d.SavePos("root")), OK(d.FindChildElem("a")), OK(d.IntoElem()),
          OK(d.FindChildElem("b")), OK(d.IntoElem()), OK(d.FindChildElem("d")),
          OK(d.SavePos("b with d")), OK(d.IntoElem()), OK(d.SavePos("d in b")),
          OK((d = MarkupProbe("<r><t><p><q/></p><s/></t></r>"), true)),
          NO(d.RestorePos("b with d")), NO(d.RestorePos("d in b")), OK(d.RestorePos("root")),
          STEP(d.GetTagName(), "r"), OK(d.IntoElem()), OK(d.AddElem("n")),
          OK((d.ResetPos(), d.FindElem())), OK(d.SetAttrib("v", "1"))},
         "<r v=\"1\"><t><p><q/></p><s/></t><n/>\n</r>"},
        // the settings-file shape, built from nothing and updated
        {"",
         {NO(d.SetDoc("<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n")), OK(d.AddElem("root")),
          STEP(d.GetDoc(), "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<root/>\n"),
          NO(d.AddElem("second")), NO(d.InsertElem("second")), NO(d.AddChildElem(nullptr)),
          NO(d.AddChildElem("")), OK(d.AddChildElem("Schedule")), OK(d.IntoElem()),
          OK(d.AddChildElem("Cycle", "7")), OK(d.AddChildElem("Note", "a<b&c")), OK(d.OutOfElem()),
          OK(d.AddChildElem("Other")), OK(d.IntoElem()), OK(d.AddChildElem("k", "v"))},
         R"(<?xml version="1.0" encoding="utf-8"?>
<root>
<Schedule>
<Cycle>7</Cycle>
<Note>a&lt;b&amp;c</Note>
</Schedule>
<Other>
<k>v</k>
</Other>
</root>
)"},
        // children into empty, bare and text parents
        {"<p/>", {OK(d.AddChildElem("c")), STEP(d.GetChildTagName(), "c")}, "<p>\n<c/>\n</p>"},
        {"<p x='1' />", {OK(d.InsertChildElem("c", ""))}, "<p x='1' >\n<c/>\n</p>"},
        {"<p></p>", {OK(d.InsertChildElem("c", "1"))}, "<p>\n<c>1</c>\n</p>"},
        {"<p>text</p>", {OK(d.AddChildElem("c"))}, "<p>text<c/>\n</p>"},
        {"<p>text</p>", {OK(d.InsertChildElem("c"))}, "<p><c/>\ntext</p>"},
        {"<p>\n<a/>\n</p>",
         {OK(d.InsertChildElem("c")), STEP(d.GetChildTagName(), "c")},
         "<p>\n<c/>\n<a/>\n</p>"},
        {"<r><p/><q/></r>",
         {OK(d.FindChildElem("p")), OK(d.IntoElem()), OK(d.AddChildElem("c", "&"))},
         "<r><p>\n<c>&amp;</c>\n</p><q/></r>"},
        // siblings go after or before the current element
        {"<r>\n<a/>\n<c/>\n</r>",
         {OK(d.FindChildElem("a")), OK(d.IntoElem()), OK(d.AddElem("b")), OK(d.InsertElem("a2")),
          OK((d.ResetMainPos(), d.InsertElem("first"))), OK((d.ResetMainPos(), d.AddElem("last")))},
         "<r>\n<first/>\n<a/>\n<a2/>\n<b/>\n<c/>\n<last/>\n</r>"},
        // data is escaped or written as CDATA
        {"<r><a/><b>old</b><c x='1'/><e>t</e></r>",
         {NO(d.SetData("parent")), OK(d.FindChildElem("a")), OK(d.SetChildData("x<y'\"")),
          OK(d.FindChildElem("b")), OK(d.SetChildData("]]>", 1)), OK(d.FindChildElem("c")),
          OK(d.SetChildData("a<b", 1)), STEP(d.GetChildData(), "a<b"), OK(d.FindChildElem("e")),
          OK(d.SetChildData("")), NO((d.ResetPos(), d.SetData("x"))), NO(d.SetChildData("x"))},
         R"(<r><a>x&lt;y'"</a><b>]]&gt;</b><c x='1'><![CDATA[a<b]]></c><e></e></r>)"},
        // attributes are added or replaced, escaped
        {R"(<r><a/><b /><c>t</c><d k="old" j='x'/></r>)",
         {OK(d.FindChildElem("a")), OK(d.SetChildAttrib("n", "1")), OK(d.FindChildElem("b")),
          OK(d.SetChildAttrib("n", 1)), OK(d.FindChildElem("c")),
          OK(d.SetChildAttrib("v", "x\"y'z")), OK(d.FindChildElem("d")),
          OK(d.SetChildAttrib("j", "<&>")), OK(d.SetChildAttrib("k", -5)),
          STEP(d.GetChildAttrib("j"), "<&>"), NO(d.SetChildAttrib("", "v")),
          NO(d.SetChildAttrib(nullptr, "v"))},
         R"(<r><a n="1"/><b  n="1"/><c v="x&quot;y&apos;z">t</c><d k="-5" j='&lt;&amp;&gt;'/></r>)"},
        {"<e v=1/>",
         {OK(d.SetAttrib("v", "2")), NO((d.ResetPos(), d.SetAttrib("v", "3")))},
         R"(<e v=1 v="2"/>)"},
        {R"(<a href="/x" n="1" q='?'/>)",
         {OK(d.SetAttrib("href", "/y")), OK(d.SetAttrib("q", "?z"))},
         R"(<a href="/y" n="1" q='?z'/>)"},
        // removal takes the following whitespace only before a tag
        {"<p>\n<c/>\n</p>",
         {OK(d.FindChildElem()), OK(d.RemoveChildElem()), STEP(d.GetChildTagName(), ""),
          NO(d.RemoveChildElem())},
         "<p>\n</p>"},
        {"<r>\n<a/>\n<b>x</b> tail\n<c/>\n</r>",
         {OK(d.FindChildElem("b")), OK(d.IntoElem()), OK(d.RemoveElem()),
          STEP(d.GetDoc(), "<r>\n<a/>\n tail\n<c/>\n</r>"), STEP(d.GetTagName(), "a"),
          OK(d.RemoveElem()), STEP(d.GetTagName(), ""), NO(d.RemoveElem())},
         "<r>\n\n tail\n<c/>\n</r>"},
        {"<?xml?>\n<r/>\n",
         {OK(d.RemoveElem()), STEP(d.GetDoc(), "<?xml?>\n"), NO(d.IsWellFormed()),
          OK(d.AddElem("n"))},
         "<?xml?>\n<n/>\n"},
        // sub-documents go in raw; bad ones fail and change nothing
        {"<r><p/></r>",
         {OK(d.FindChildElem("p")), OK(d.IntoElem()),
          OK(d.AddChildSubDoc("<!-- lead -->\r\n<x a='1'><y/></x>\r\n")),
          STEP(d.GetChildSubDoc(), "<x a='1'><y/></x>\n"), OK(d.AddSubDoc("<q/>")),
          OK(d.InsertSubDoc("<z>1</z>")), OK(d.FindElem("q")), OK(d.InsertChildSubDoc("<w/>")),
          NO(d.InsertChildSubDoc("<q>")), // would close with the parent's end tag
          NO(d.AddChildSubDoc("<bad>")), STEP(d.GetError(), "End tag does not correspond to bad"),
          NO(d.AddChildSubDoc("just text")), NO(d.AddChildSubDoc("")),
          NO(d.AddChildSubDoc("<!-- never closed")), STEP(d.GetError(), "Invalid node")},
         "<r><p>\n<x a='1'><y/></x>\n</p><z>1</z><q>\n<w/></q></r>"},
        {"<r><p/></r>",
         {OK(d.FindChildElem("p")), OK(d.IntoElem()), NO(d.AddChildSubDoc("<bad>")),
          OK((d.ResetPos(), d.FindElem())), NO(d.AddSubDoc("<t/>"))},
         nullptr}};
    for (const auto& [text, steps, result] : cases) {
        MarkupProbe doc(Crlf(text).c_str());
        doc.FindElem();
        for (const Step& step : steps)
            EXPECT_EQ(step.run(doc), Crlf(step.expected)) << "on " << text << ": " << step.call;
        EXPECT_EQ(doc.GetDoc(), Crlf(result ? result : text)) << "text after the steps on " << text;
        EXPECT_TRUE(doc.MatchesFreshParse()) << "index against a fresh parse of " << doc.GetDoc();
    }
}

// The edit fuzz target's corpus: after every step of every input the index equals a fresh parse
// (well-formed documents) or stays inside the text (arbitrary text).
TEST(MarkupInvariant, EditCorpusKeepsTheIndexEqualToAFreshParse) {
    int inputs = 0, edits = 0;
    for (const auto& entry : std::filesystem::directory_iterator(EDIT_CORPUS)) {
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        const EditOutcome outcome =
            ReplayMarkupEdits(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        EXPECT_EQ(outcome.fault, "") << entry.path();
        edits += outcome.edits;
        ++inputs;
    }
    EXPECT_GE(inputs, 100);
    EXPECT_GT(edits, 800); // the replay really edits
}
