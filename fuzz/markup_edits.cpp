#include "markup_edits.h"

#include "markup_probe.h"

#include <array>
#include <initializer_list>

namespace {

class Script {
public:
    Script(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool Done() const { return at_ >= size_; }
    // 0 to n - 1 from the next byte (two bytes when n is above 256); 0 once the input is spent.
    int Pick(int n) {
        unsigned value = Byte();
        if (n > 256)
            value |= Byte() << 8;
        return static_cast<int>(value % static_cast<unsigned>(n));
    }
    std::string UpToNul() {
        std::string text;
        while (!Done() && data_[at_])
            text += static_cast<char>(data_[at_++]);
        ++at_;
        return text;
    }

    std::string From(std::initializer_list<std::string> l) {
        return l.begin()[Pick(static_cast<int>(l.size()))];
    }
    const char* Name() { return std::array{"a", "ab", "b", "item", "items", "k"}[Pick(6)]; }
    const char* AnyName() { return Pick(2) ? Name() : nullptr; }
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
    // Each pick is a statement of its own: the order of operands and arguments is unspecified,
    // and every compiler must decode the same input alike.
    std::string Document() {
        std::string text = From({"", "<?xml version=\"1.0\"?>\r\n"});
        text += From({"", "<!-- head -->\r\n"});
        text += Element(0);
        return text + From({"", "\r\n"});
    }
    // A few bytes of the text replaced by markup characters or any byte.
    std::string Mutate(std::string t) {
        for (int i = Pick(6); i >= 0; --i) {
            const int at = Pick(static_cast<int>(t.size()) + 1), length = Pick(3), count = Pick(3);
            const char c = Pick(8) ? "<>/?!-[]\"'= \r\n\tabx&#;0CDATA"[Pick(27)]
                                   : static_cast<char>(Pick(256));
            t.replace(at, length, std::string(count, c));
        }
        return t;
    }

private:
    unsigned Byte() { return at_ < size_ ? data_[at_++] : 0; }

    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

// One move or edit; true when it reported success.
bool Step(Script& s, MarkupProbe& d, bool valid) {
    const int op = s.Pick(16), in = s.Pick(2);
    const char *n = s.Name(), *v = s.Pick(7) ? s.Data() : nullptr, *pos = in ? "p" : "q";
    switch (op) {
    case 0:
        return d.FindElem(s.AnyName());
    case 1:
        return d.FindChildElem(s.AnyName());
    case 2:
        return in ? d.IntoElem() : d.OutOfElem();
    case 3:
        return in ? (d.ResetMainPos(), true) : (d.ResetChildPos(), true);
    case 4:
        return d.SavePos(pos);
    case 5:
        return d.RestorePos(pos);
    case 6:
        return in ? d.InsertElem(n, v) : d.AddElem(n, v);
    case 7:
        return in ? d.InsertChildElem(n, v) : d.AddChildElem(n, v);
    case 8:
        return d.SetData(v, s.Pick(2));
    case 9:
        return d.SetChildData(v, s.Pick(2));
    case 10:
        return d.SetAttrib(s.Pick(2) ? "x" : "xy", v);
    case 11:
        return in ? d.SetChildAttrib("y", s.Pick(99)) : d.SetChildAttrib("x", v);
    case 12:
        return in ? d.RemoveElem() : d.RemoveChildElem();
    case 13:
    case 14: {
        std::string sub = s.Pick(2) ? d.GetSubDoc() : "<!-- s --> " + s.Element(2) + "\r\n";
        if (!valid)
            sub = s.Mutate(sub);
        const bool child = op == 14;
        return child ? (in ? d.InsertChildSubDoc(sub.c_str()) : d.AddChildSubDoc(sub.c_str()))
                     : (in ? d.InsertSubDoc(sub.c_str()) : d.AddSubDoc(sub.c_str()));
    }
    default: // another document by assignment; the saved positions stay
        d = MarkupProbe((valid ? s.Document() : s.Mutate(s.Document())).c_str());
        return true;
    }
}

// Readers never produce more bytes than the text holds.
std::string CheckReaders(const MarkupProbe& d) {
    const size_t limit = d.GetDoc().size();
    for (const std::string& read :
         {d.GetTagName(), d.GetData(), d.GetChildData(), d.GetAttrib("x"), d.GetAttribName(0),
          d.GetAttribName(1), d.GetSubDoc(), d.GetChildSubDoc()})
        if (read.size() > limit)
            return "a reader gave " + std::to_string(read.size()) + " bytes from a text of " +
                   std::to_string(limit);
    return "";
}

std::string CheckOffsets(const MarkupProbe& d) {
    const std::vector<MarkupProbe::Node> tree = d.Tree();
    if (static_cast<int>(tree.size()) >= d.nextFreePos)
        return "the links of the index form a cycle";
    const int size = static_cast<int>(d.GetDoc().size());
    for (const MarkupProbe::Node& e : tree)
        if (e[0] < 0 || e[0] >= e[1] || e[2] > e[3] || e[3] >= size)
            return "element at " + std::to_string(e[0]) + " has offsets outside the text";
    return "";
}

} // namespace

EditOutcome ReplayMarkupEdits(const uint8_t* data, size_t size) {
    Script script(data, size);
    const bool valid = script.Pick(2) == 0;
    MarkupProbe doc;
    const std::string text = valid ? script.Document() : script.UpToNul();
    EditOutcome outcome;
    if (doc.SetDoc(text.c_str()) != doc.IsWellFormed() || (valid && !doc.IsWellFormed()))
        outcome.fault = "parse of " + text + ": well-formed " + (doc.IsWellFormed() ? "1" : "0");
    for (int step = 0; step < 64 && !script.Done() && outcome.fault.empty(); ++step) {
        const std::string before = doc.GetDoc();
        const bool done = Step(script, doc, valid);
        outcome.edits += doc.GetDoc() != before;
        const std::string where = "step " + std::to_string(step) + " on " + before + ": ";
        if (valid && !done && doc.GetDoc() != before)
            outcome.fault = where + "a failed edit changed the text to " + doc.GetDoc();
        else if (valid && !doc.MatchesFreshParse())
            outcome.fault = where + "the index differs from a fresh parse of " + doc.GetDoc();
        else if (std::string f = CheckOffsets(doc) + CheckReaders(doc); !f.empty())
            outcome.fault = where + f + " in " + doc.GetDoc();
    }
    return outcome;
}
