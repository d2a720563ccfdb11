#include "MarkupSTL.h"
#include "FileHandle.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <string_view>

namespace {

// Byte classes of the scanners, looked up in one table rather than tested one by one.
enum : unsigned char {
    kSpace = 1,              // " \t\n\r"
    kTokenEnd = 2,           // ends an unquoted token: whitespace, NUL and "<>=\\/?!"
    kEscaped = 4,            // replaced by an entity in content: "<&>"
    kEscapedInAttribute = 8, // and in attribute values, with the two quotes
    kQuote = 16,
};

struct ByteClasses {
    unsigned char of[256] = {};
    constexpr ByteClasses() {
        Mark(" \t\n\r", kSpace | kTokenEnd);
        Mark("<>=\\/?!", kTokenEnd);
        Mark("<&>", kEscaped | kEscapedInAttribute);
        Mark("'\"", kEscapedInAttribute | kQuote);
        of[0] = kTokenEnd;
    }
    constexpr void Mark(const char* bytes, unsigned char bits) {
        for (; *bytes; ++bytes)
            of[static_cast<unsigned char>(*bytes)] |= bits;
    }
};
constexpr ByteClasses kBytes;

bool Is(char c, unsigned char bits) {
    return kBytes.of[static_cast<unsigned char>(c)] & bits;
}

// A character that starts a plain name token: neither a delimiter, whitespace, NUL nor a quote.
bool IsNameStart(char c) {
    return !Is(c, kTokenEnd | kQuote);
}

const char* SkipSpace(const char* p) {
    while (Is(*p, kSpace))
        ++p;
    return p;
}

const char* NameEnd(const char* p) {
    while (!Is(*p, kTokenEnd))
        ++p;
    return p;
}

// The token spells the first characters of name, and name ends there or goes on with one of
// " =/[" (so "a" matches "a b" and "a[1]"). The loose rule is kept on purpose. Names are short:
// a plain loop beats the library call.
bool NameMatch(const char* token, int length, const char* name, int nameLength) {
    if (length < 0 || length > nameLength)
        return false;
    for (int i = 0; i < length; ++i)
        if (token[i] != name[i])
            return false;
    return length == nameLength || std::strchr(" =/[", name[length]);
}

// The first c (not NUL) at or after p, or the terminating NUL. Tags mostly lie a few bytes
// apart: looking at those first spares the library call.
const char* FindByte(const char* p, char c) {
    for (const char* stop = p + 16; p != stop; ++p)
        if (*p == c || !*p)
            return p;
    const char* found = std::strchr(p, c);
    return found ? found : p + std::strlen(p);
}

// A plain start tag at left, '<' and a name up to the first '>': returns that '>', or null when
// the tag needs the full scan.
const char* PlainStartTag(const char* left) {
    if (left[0] != '<' || !IsNameStart(left[1]))
        return nullptr;
    const char* right = FindByte(NameEnd(left + 2), '>');
    return *right ? right : nullptr;
}

// A plain end tag at left, "</" and the name that starts the start tag at startName, then blanks
// and '>': returns that '>', or null when the tag needs the full scan. The names are compared as
// they are read.
const char* PlainEndTag(const char* left, const char* startName) {
    if (left[0] != '<' || left[1] != '/')
        return nullptr;
    const char* name = left + 2;
    size_t length = 0;
    while (!Is(name[length], kTokenEnd | kQuote) && name[length] == startName[length])
        ++length;
    if (!length || !Is(name[length], kTokenEnd) || !Is(startName[length], kTokenEnd))
        return nullptr;
    const char* right = SkipSpace(name + length);
    return *right == '>' ? right : nullptr;
}

struct Entity {
    char ch;
    const char* name; // without the leading '&'
    int length;
};

// Order matters: escaping and unescaping both walk it front to back.
const Entity kEntities[] = {
    {'<', "lt;", 3}, {'&', "amp;", 4}, {'>', "gt;", 3}, {'\'', "apos;", 5}, {'"', "quot;", 5},
};

const char kCrLf[] = "\r\n";

const Entity& EntityOf(char c) {
    const Entity* entity = kEntities;
    while (entity->ch != c && entity + 1 != std::end(kEntities))
        ++entity;
    return *entity;
}

// `bits` picks the characters to escape: kEscaped in content, kEscapedInAttribute in values.
size_t EscapedLength(const char* text, unsigned char bits) {
    size_t length = 0;
    for (const char* p = text; *p; ++p)
        length += Is(*p, bits) ? 1 + EntityOf(*p).length : 1;
    return length;
}

// Writes text escaped at out (EscapedLength bytes); returns the end.
char* WriteEscaped(char* out, const char* text, unsigned char bits) {
    for (const char* p = text; *p; ++p) {
        if (!Is(*p, bits)) {
            *out++ = *p;
            continue;
        }
        const Entity& entity = EntityOf(*p);
        *out++ = '&';
        std::memcpy(out, entity.name, entity.length);
        out += entity.length;
    }
    return out;
}

char* WriteBytes(char* out, const char* bytes, size_t length) {
    std::memcpy(out, bytes, length);
    return out + length;
}

// Length of the text of a new element, see WriteElement.
size_t ElementLength(size_t nameLength, size_t contentLength) {
    return (contentLength ? 5 + 2 * nameLength + contentLength : 3 + nameLength) + 2;
}

// Writes the text of a new element, "<" name "/>" without content, else "<" name ">" content
// "</" name ">", then CR LF; returns the end.
char* WriteElement(char* out, const char* name, size_t nameLength, const char* data,
                   size_t contentLength) {
    *out++ = '<';
    out = WriteBytes(out, name, nameLength);
    if (!contentLength) {
        out = WriteBytes(out, "/>", 2);
    } else {
        *out++ = '>';
        out = WriteEscaped(out, data, kEscaped);
        out = WriteBytes(out, "</", 2);
        out = WriteBytes(out, name, nameLength);
        *out++ = '>';
    }
    return WriteBytes(out, kCrLf, 2);
}

// Reserving ahead starts with room for a settings file, so that a new document allocates its
// index once, and stops at 128 MiB of index; a larger text grows the index as it parses.
const size_t kMinReservedSlots = 128;
const size_t kMaxReservedSlots = size_t(1) << 22;

char Byte(long value) {
    return static_cast<char>(static_cast<unsigned char>(value & 0xFF));
}

// Character references above U+FFFF keep only their low 16 bits, on purpose: existing files
// read back as they always did.
void AppendUtf8(std::string& out, long value) {
    if (value <= 127) {
        out += Byte(value);
    } else if (value <= 2047) {
        out += Byte(0xC0 | (value >> 6));
        out += Byte(0x80 | (value & 0x3F));
    } else {
        value &= 0xFFFF;
        out += Byte(0xE0 | (value >> 12));
        out += Byte(0x80 | ((value >> 6) & 0x3F));
        out += Byte(0x80 | (value & 0x3F));
    }
}

// Decodes the reference starting at text[amp] == '&' into out; returns where decoding goes on.
// Anything malformed leaves the '&' as it stands.
int DecodeReference(const char* text, int amp, int right, std::string& out) {
    if (text[amp + 1] != '#') {
        for (const Entity& entity : kEntities) {
            if (amp + entity.length <= right &&
                std::strncmp(text + amp + 1, entity.name, entity.length) == 0) {
                out += entity.ch;
                return amp + 1 + entity.length;
            }
        }
        out += '&';
        return amp + 1;
    }
    int start = amp + 2;
    int base = 10;
    if (text[start] == 'x') {
        ++start;
        base = 16;
    }
    const int maxDigits = 7;
    int length = 0;
    while (length <= maxDigits && text[start + length] && text[start + length] != ';')
        ++length;
    if (length > maxDigits || text[start + length] != ';') {
        out += '&';
        return amp + 1;
    }
    char digits[maxDigits + 1];
    std::memcpy(digits, text + start, length);
    digits[length] = '\0';
    AppendUtf8(out, std::strtol(digits, nullptr, base));
    return start + length + 1;
}

} // namespace

CMarkupSTL& CMarkupSTL::operator=(const CMarkupSTL& other) {
    // The target keeps its own error text and saved positions.
    if (this != &other) {
        docText = other.docText;
        elemIndex = other.elemIndex;
        parentPos = other.parentPos;
        mainPos = other.mainPos;
        childPos = other.childPos;
        nextFreePos = other.nextFreePos;
        nodeType = other.nodeType;
    }
    return *this;
}

// ---------------------------------------------------------------------------------------------
// Document

bool CMarkupSTL::SetDoc(const char* text) {
    parentPos = mainPos = childPos = nodeType = 0;
    nextFreePos = 1;
    savedPositions.clear();
    x_SetText(text);

    // Capacity for as many elements as the text can hold ("<a/>" takes 4 bytes), so that parsing
    // never moves the index; its size still grows by the rule of x_GetFreePos.
    const size_t length = docText.size();
    elemIndex.reserve(std::min(std::max(length / 4 + 2, kMinReservedSlots), kMaxReservedSlots));
    const size_t wanted = length / 64 + 8;
    if (elemIndex.size() < wanted)
        elemIndex.resize(wanted);
    elemIndex[0] = ElemPos();
    // Offsets are 32-bit: a larger text stays unindexed.
    if (!docText.empty() && docText.size() < static_cast<size_t>(INT_MAX)) {
        const int root = x_ParseElem(0);
        if (root > 0) {
            elemIndex[0].firstChild = root;
            return true;
        }
    }
    elemIndex[0] = ElemPos();
    nextFreePos = 1;
    return false;
}

// The text may point into docText itself.
void CMarkupSTL::x_SetText(const char* text) {
    if (!text) {
        docText.clear();
    } else if (std::greater_equal<const char*>()(text, docText.data()) &&
               std::less_equal<const char*>()(text, docText.data() + docText.size())) {
        std::string copy(text);
        docText.swap(copy);
    } else {
        docText.assign(text);
    }
}

bool CMarkupSTL::Load(const char* path) {
    FileHandle file = OpenFile(path, "rb");
    if (!file) {
        SetDoc(nullptr);
        return false;
    }
    long size = -1;
    if (std::fseek(file.get(), 0, SEEK_END) == 0)
        size = std::ftell(file.get());
    std::string text;
    if (size > 0 && std::fseek(file.get(), 0, SEEK_SET) == 0) {
        // Read by chunks rather than trusting the size: folders and devices report odd sizes.
        char chunk[65536];
        size_t got;
        while (text.size() <= static_cast<size_t>(size) &&
               (got = std::fread(chunk, 1, sizeof chunk, file.get())) > 0)
            text.append(chunk, got);
    }
    file.reset();
    if (size <= 0 || text.size() != static_cast<size_t>(size)) {
        SetDoc(nullptr);
        return false;
    }
    return SetDoc(text.c_str());
}

bool CMarkupSTL::Save(const char* path) {
    FileHandle file = OpenFile(path, "wb");
    if (!file)
        return false;
    const bool written =
        std::fwrite(docText.data(), 1, docText.size(), file.get()) == docText.size();
    return CloseFile(file) && written;
}

bool CMarkupSTL::IsWellFormed() const {
    return !elemIndex.empty() && elemIndex[0].firstChild;
}

// ---------------------------------------------------------------------------------------------
// Scanning

bool CMarkupSTL::x_FindChar(const char* text, int& pos, char c) {
    const char* found = c ? FindByte(text + pos, c) : text + pos + std::strlen(text + pos);
    pos = static_cast<int>(found - text);
    return *found != '\0';
}

bool CMarkupSTL::x_FindAny(const char* text, int& pos) {
    pos = static_cast<int>(SkipSpace(text + pos) - text);
    return text[pos] != '\0';
}

bool CMarkupSTL::x_FindToken(TokenPos& token) {
    const char* text = token.text;
    int pos = token.next;
    token.quoted = false;
    if (!x_FindAny(text, pos)) {
        token.left = token.right = token.next = pos;
        return false;
    }
    const char c = text[pos];
    if (c == '"' || c == '\'') {
        token.quoted = true;
        token.left = ++pos;
        x_FindChar(text, pos, c);
        token.right = pos - 1;
        token.next = text[pos] ? pos + 1 : pos;
        return true;
    }
    token.left = pos;
    pos = static_cast<int>(NameEnd(text + pos) - text);
    if (pos == token.left)
        ++pos;
    token.right = pos - 1;
    token.next = pos;
    return true;
}

bool CMarkupSTL::x_NameMatch(const char* token, int length, const char* name, int nameLength) {
    return NameMatch(token, length, name, nameLength);
}

std::string CMarkupSTL::x_GetToken(const TokenPos& token) const {
    int right = token.right;
    if (token.text == docText.c_str() && right >= static_cast<int>(docText.size()))
        right = static_cast<int>(docText.size()) - 1;
    if (right < token.left)
        return std::string();
    return std::string(token.text + token.left, right - token.left + 1);
}

int CMarkupSTL::x_ParseNode(TokenPos& token) const {
    const char* text = token.text;
    const int start = token.next;
    if (text[start] != '<') {
        if (!text[start])
            return NK_NONE;
        int pos = start;
        if (!x_FindAny(text, pos) || text[pos] == '<') {
            token.next = pos;
            return NK_WHITESPACE;
        }
        x_FindChar(text, pos, '<');
        token.next = pos;
        return NK_TEXT;
    }
    if (!text[start + 1] || !text[start + 2])
        return NK_NONE;

    const char* terminator = nullptr;
    int kind = NK_NONE;
    if (text[start + 1] == '?') {
        terminator = "?>";
        kind = NK_PI;
    } else if (text[start + 1] == '!' && text[start + 2] == '[') {
        terminator = "]]>";
        kind = NK_CDATA;
    } else if (text[start + 1] == '!' && text[start + 2] == '-') {
        terminator = "-->";
        kind = NK_COMMENT;
    }
    if (terminator) {
        const char* end = std::strstr(text + start, terminator);
        if (!end)
            return NK_NONE;
        token.next = static_cast<int>(end - text + std::strlen(terminator));
        return kind;
    }
    if (text[start + 1] == '!') {
        // Declaration: ends at the first '>' outside brackets.
        int depth = 0;
        token.next = start + 2;
        while (x_FindToken(token)) {
            if (token.quoted)
                continue;
            const char c = text[token.left];
            if (c == '[')
                ++depth;
            else if (c == ']')
                --depth;
            else if (c == '>' && depth == 0)
                return NK_DOCTYPE;
        }
        return NK_NONE;
    }
    return text[start + 1] == '/' ? NK_NONE : NK_ELEMENT;
}

// ---------------------------------------------------------------------------------------------
// Element index

int CMarkupSTL::x_GetFreePos() {
    if (nextFreePos >= static_cast<int>(elemIndex.size()))
        x_GrowIndex();
    return nextFreePos++;
}

// Grows the index by half its size, the new slots zeroed.
void CMarkupSTL::x_GrowIndex() {
    const size_t size = elemIndex.size();
    elemIndex.resize(size + (size / 2 ? size / 2 : 1));
}

int CMarkupSTL::x_ReleasePos() {
    --nextFreePos;
    return 0;
}

int CMarkupSTL::x_ParseError(const char* format, const char* arg) {
    if (arg) {
        const int length = std::snprintf(nullptr, 0, format, arg);
        std::string message(length > 0 ? length : 0, '\0');
        std::snprintf(&message[0], message.size() + 1, format, arg);
        errorText = message;
    } else {
        errorText = format;
    }
    x_ReleasePos();
    return -1;
}

// Parses one element (with its subtree) from the parent's scan cursor, the parent's endTagLeft.
// Returns its slot, 0 when the parent's end tag (or the end of the text inside an element) comes
// first, or -1 on error. Nesting is followed through the parent links of the index, without
// recursion or a stack of its own, so that any depth parses without allocating.
int CMarkupSTL::x_ParseElem(int parent) {
    const int outermost = parent;
    const char* text = docText.c_str();
    // The parent's scan cursor, its endTagLeft, is also kept here: the next search need not wait
    // for the value to come back from the index.
    int cursor = elemIndex[parent].endTagLeft;
    for (;;) {
        // The next tag: a plain start or end tag is read here, anything else by the full scan.
        // The full scan takes a slot even for an end tag: the index grows here just the same.
        if (nextFreePos >= static_cast<int>(elemIndex.size()))
            x_GrowIndex();
        bool open = false;
        int result;
        const char* left = FindByte(text + cursor, '<');
        if (const char* right = PlainStartTag(left)) {
            result = x_StartTagRead(x_GetFreePos(), parent, static_cast<int>(left - text),
                                    static_cast<int>(right - text), open);
            cursor = static_cast<int>(right - text) + 1;
        } else if (left[0] == '<' && left[1] == '/') {
            cursor = static_cast<int>(left - text);
            elemIndex[parent].endTagLeft = cursor;
            result = 0;
        } else {
            result = x_ParseStartTag(parent, open);
            if (result > 0)
                cursor = open ? elemIndex[result].endTagLeft : elemIndex[result].endTagRight + 1;
            else
                cursor = elemIndex[parent].endTagLeft;
        }
        if (result > 0 && open) {
            parent = result;
            continue;
        }
        // Hand the result up through every element it completes.
        for (;;) {
            if (result < 0 || parent == outermost)
                return result;
            if (result > 0) {
                x_AppendChild(parent, result);
                break;
            }
            // The end tag of parent: a plain one is read here, anything else by the full scan.
            ElemPos& closing = elemIndex[parent];
            left = FindByte(text + cursor, '<');
            if (const char* right = PlainEndTag(left, text + closing.startTagLeft + 1)) {
                closing.endTagLeft = static_cast<int>(left - text);
                closing.endTagRight = static_cast<int>(right - text);
                cursor = closing.endTagRight + 1;
                result = parent;
            } else {
                result = x_ParseEndTag(parent);
                cursor = closing.endTagRight + 1;
            }
            parent = closing.parent;
        }
    }
}

// Reads up to the start tag of the next element under parent, skipping other nodes. An element
// with content comes back `open`: its children are still to parse. While it is open, its
// endTagLeft is the scan cursor and its endTagRight its last child parsed so far.
int CMarkupSTL::x_ParseStartTag(int parent, bool& open) {
    const int slot = x_GetFreePos();
    ElemPos& elem = elemIndex[slot];
    ElemPos& outer = elemIndex[parent];
    elem = ElemPos();
    elem.startTagLeft = outer.endTagLeft;
    elem.parent = parent;

    const char* text = docText.c_str();
    TokenPos token(text, outer.endTagLeft);
    for (;;) {
        int pos = token.next;
        if (!x_FindChar(text, pos, '<')) {
            // Inside an element, the parent goes on to report its missing end tag.
            if (parent)
                return x_ReleasePos();
            return x_ParseError("Element tag not found");
        }
        elem.startTagLeft = pos;
        outer.endTagLeft = pos;
        token.next = pos + 1;
        if (!x_FindToken(token))
            return x_ParseError("Abrupt end within tag");
        if (token.quoted)
            return x_ParseError("Tag starts with quote");
        const char first = text[token.left];
        if (first == '?' || first == '!') {
            // "< ?" scans as an element node that would never be skipped: malformed too.
            token.next = pos;
            const int kind = x_ParseNode(token);
            if (kind == NK_NONE || kind == NK_ELEMENT)
                return x_ParseError("Invalid node");
            continue;
        }
        if (first == '/')
            return x_ReleasePos();
        break;
    }

    int pos = token.next;
    if (!x_FindChar(text, pos, '>'))
        return x_ParseError("End of tag not found");
    return x_StartTagRead(slot, parent, elem.startTagLeft, pos, open);
}

// Records the start tag of a new element from its '<' to its '>'; returns the element's slot.
int CMarkupSTL::x_StartTagRead(int slot, int parent, int left, int right, bool& open) {
    ElemPos& elem = elemIndex[slot];
    elemIndex[parent].endTagLeft = left;
    elem.startTagLeft = left;
    elem.startTagRight = right;
    elem.reserved = 0;
    elem.parent = parent;
    elem.firstChild = 0;
    elem.nextSibling = 0;
    if (docText.c_str()[right - 1] == '/') {
        elem.endTagLeft = right - 1;
        elem.endTagRight = right;
    } else {
        elem.endTagLeft = right + 1;
        elem.endTagRight = 0;
        open = true;
    }
    return slot;
}

void CMarkupSTL::x_AppendChild(int parent, int child) {
    ElemPos& outer = elemIndex[parent];
    if (outer.endTagRight)
        elemIndex[outer.endTagRight].nextSibling = child;
    else
        outer.firstChild = child;
    outer.endTagRight = child;
    outer.endTagLeft = elemIndex[child].endTagRight + 1;
}

// Reads the end tag of an element whose children are all parsed.
// Reads the end tag of an element whose children are all parsed, token by token.
int CMarkupSTL::x_ParseEndTag(int slot) {
    const char* text = docText.c_str();
    ElemPos& elem = elemIndex[slot];
    TokenPos tag(text, elem.startTagLeft + 1);
    x_FindToken(tag);
    const char* name = text + tag.left;
    const int nameLength = tag.right - tag.left + 1;
    // The name is copied for a message only.
    auto fail = [&](const char* format) {
        return x_ParseError(format, std::string(name, nameLength).c_str());
    };
    int pos = elem.endTagLeft;
    if (!x_FindChar(text, pos, '<'))
        return fail("End tag of %s element not found");
    elem.endTagLeft = pos;

    TokenPos token(text, pos + 1);
    int count = 0;
    bool closed = false;
    while (x_FindToken(token)) {
        ++count;
        if (token.quoted)
            continue;
        const char c = text[token.left];
        if (count == 1 && c != '/')
            return fail("Expecting end tag of element %s");
        if (count == 2 &&
            !x_NameMatch(text + token.left, token.right - token.left + 1, name, nameLength))
            return fail("End tag does not correspond to %s");
        if (c == '>') {
            closed = true;
            break;
        }
    }
    if (!closed || count < 2)
        return fail("End tag not completed for element %s");
    elem.endTagRight = token.left;
    return slot;
}

// ---------------------------------------------------------------------------------------------
// Navigation

bool CMarkupSTL::FindElem(const char* name) {
    if (elemIndex.empty())
        return false;
    const int found = x_FindElem(parentPos, mainPos, name);
    if (!found)
        return false;
    mainPos = found;
    parentPos = elemIndex[found].parent;
    childPos = 0;
    nodeType = 1;
    return true;
}

bool CMarkupSTL::FindChildElem(const char* name) {
    if (elemIndex.empty())
        return false;
    if (!mainPos)
        FindElem();
    if (!mainPos)
        return false;
    const int found = x_FindElem(mainPos, childPos, name);
    if (!found)
        return false;
    childPos = found;
    parentPos = elemIndex[mainPos].parent;
    nodeType = 1;
    return true;
}

bool CMarkupSTL::IntoElem() {
    if (!mainPos || nodeType != 1)
        return false;
    parentPos = mainPos;
    mainPos = childPos;
    childPos = 0;
    nodeType = mainPos > 0;
    return true;
}

bool CMarkupSTL::OutOfElem() {
    if (!parentPos)
        return false;
    childPos = mainPos;
    mainPos = parentPos;
    parentPos = elemIndex[parentPos].parent;
    nodeType = 1;
    return true;
}

bool CMarkupSTL::SavePos(const char* name) {
    if (!name)
        return false;
    SavedPos& saved = savedPositions[name];
    saved.parent = parentPos;
    saved.main = mainPos;
    saved.child = childPos;
    return true;
}

bool CMarkupSTL::RestorePos(const char* name) {
    if (!name)
        return false;
    const auto it = savedPositions.find(name);
    if (it == savedPositions.end())
        return false;
    const SavedPos& saved = it->second;
    // A removed element, or a position of another document (after assignment), cannot be
    // visited: each slot must be in the tree, main a child of parent and child a child of main.
    if (!x_IsLinked(saved.parent) || !x_IsLinked(saved.main) || !x_IsLinked(saved.child) ||
        (saved.main && elemIndex[saved.main].parent != saved.parent) ||
        (saved.child && (!saved.main || elemIndex[saved.child].parent != saved.main)))
        return false;
    parentPos = saved.parent;
    mainPos = saved.main;
    childPos = saved.child;
    nodeType = mainPos > 0;
    return true;
}

int CMarkupSTL::x_FindElem(int parent, int after, const char* name) const {
    int pos = after ? elemIndex[after].nextSibling : elemIndex[parent].firstChild;
    if (!name || !*name)
        return pos;
    const int nameLength = static_cast<int>(std::strlen(name));
    const char* text = docText.c_str();
    for (; pos; pos = elemIndex[pos].nextSibling) {
        TokenPos token(text, elemIndex[pos].startTagLeft + 1);
        if (x_FindToken(token) &&
            x_NameMatch(text + token.left, token.right - token.left + 1, name, nameLength))
            return pos;
    }
    return 0;
}

// True when slot is 0 or an element currently in the tree.
bool CMarkupSTL::x_IsLinked(int slot) const {
    if (slot < 0 || slot >= nextFreePos || slot >= static_cast<int>(elemIndex.size()))
        return false;
    while (slot) {
        const int parent = elemIndex[slot].parent;
        if (parent < 0 || parent >= nextFreePos)
            return false;
        int child = elemIndex[parent].firstChild;
        while (child && child != slot)
            child = elemIndex[child].nextSibling;
        if (!child)
            return false;
        slot = parent;
    }
    return true;
}

int CMarkupSTL::x_PrevSibling(int slot) const {
    int prev = 0;
    for (int pos = elemIndex[elemIndex[slot].parent].firstChild; pos && pos != slot;
         pos = elemIndex[pos].nextSibling)
        prev = pos;
    return prev;
}

int CMarkupSTL::x_LastChild(int parent) const {
    int last = elemIndex[parent].firstChild;
    while (last && elemIndex[last].nextSibling)
        last = elemIndex[last].nextSibling;
    return last;
}

// Whitespace belongs to the following markup only when a tag (or the end) comes after it.
int CMarkupSTL::x_SkipSpaceBeforeTag(int offset) const {
    const char* text = docText.c_str();
    int pos = offset;
    x_FindAny(text, pos);
    return text[pos] == '<' || !text[pos] ? pos : offset;
}

// ---------------------------------------------------------------------------------------------
// Reading

std::string CMarkupSTL::GetTagName() const {
    return x_GetTagName(mainPos);
}

std::string CMarkupSTL::x_GetTagName(int slot) const {
    if (!slot)
        return std::string();
    TokenPos token(docText.c_str(), elemIndex[slot].startTagLeft + 1);
    if (!x_FindToken(token))
        return std::string();
    return x_GetToken(token);
}

std::string CMarkupSTL::x_GetData(int slot) const {
    if (!slot)
        return std::string();
    const ElemPos& elem = elemIndex[slot];
    if (elem.firstChild || elem.IsEmptyElement())
        return std::string();
    const char* text = docText.c_str();
    int pos = elem.startTagRight + 1;
    x_FindAny(text, pos);
    if (text[pos] == '<' && pos + 11 < elem.endTagLeft &&
        std::strncmp(text + pos, "<![CDATA[", 9) == 0) {
        const std::string_view inner(text + pos + 9, elem.endTagLeft - (pos + 9));
        const size_t close = inner.find("]]>");
        if (close != std::string_view::npos)
            return std::string(inner.substr(0, close));
    }
    return x_TextFromDoc(elem.startTagRight + 1, elem.endTagLeft - 1);
}

std::string CMarkupSTL::x_GetAttrib(int slot, const char* name) const {
    if (!slot || nodeType != 1 || !name)
        return std::string();
    TokenPos token(docText.c_str(), elemIndex[slot].startTagLeft + 1);
    if (!x_FindAttrib(token, name))
        return std::string();
    return x_TextFromDoc(token.left, token.right);
}

std::string CMarkupSTL::GetAttribName(int n) const {
    if (n < 0 || !mainPos || nodeType != 1)
        return std::string();
    TokenPos token(docText.c_str(), elemIndex[mainPos].startTagLeft + 1);
    for (int i = 0; i <= n; ++i)
        if (!x_FindAttrib(token, nullptr))
            return std::string();
    return x_GetToken(token);
}

// With a name: leaves token on the quoted value of that attribute. Without: on the next
// attribute name. Unquoted values are never found; a quoted value is data whatever it starts
// with, so only an unquoted ">", "/" or "?" ends the start tag.
bool CMarkupSTL::x_FindAttrib(TokenPos& token, const char* name) const {
    const char* text = token.text;
    const int nameLength = name ? static_cast<int>(std::strlen(name)) : 0;
    int count = 0;
    int matched = -1;
    for (; x_FindToken(token); ++count) {
        const char c = text[token.left];
        if (!token.quoted && (c == '>' || c == '/' || c == '?'))
            return false;
        if (matched < 0) {
            if (token.quoted || c == '=' || count == 0)
                continue;
            if (!nameLength)
                return true;
            if (x_NameMatch(text + token.left, token.right - token.left + 1, name, nameLength))
                matched = count;
        } else if (count == matched + 2) {
            return token.quoted;
        }
    }
    return false;
}

std::string CMarkupSTL::x_GetSubDoc(int slot) const {
    if (!slot)
        return std::string();
    const ElemPos& elem = elemIndex[slot];
    const int end = x_SkipSpaceBeforeTag(elem.endTagRight + 1);
    return docText.substr(elem.startTagLeft, end - elem.startTagLeft);
}

std::string CMarkupSTL::x_TextFromDoc(int left, int right) const {
    std::string out;
    if (right >= static_cast<int>(docText.size()))
        right = static_cast<int>(docText.size()) - 1;
    if (right < left || left < 0)
        return out;
    const char* text = docText.c_str();
    out.reserve(right - left + 1);
    int pos = left;
    while (pos <= right) {
        if (text[pos] == '&') {
            pos = DecodeReference(text, pos, right, out);
            continue;
        }
        const int start = pos;
        while (pos <= right && text[pos] != '&')
            ++pos;
        out.append(text + start, pos - start);
    }
    return out;
}

std::string CMarkupSTL::x_TextToDoc(const char* text, bool attribute) {
    std::string out;
    if (!text)
        return out;
    const unsigned char bits = attribute ? kEscapedInAttribute : kEscaped;
    out.resize(EscapedLength(text, bits));
    WriteEscaped(&out[0], text, bits);
    return out;
}

// ---------------------------------------------------------------------------------------------
// Editing

// Offset where a new element under parent goes, next to relative (0: at the start or end of the
// parent's content). `after` receives the sibling it is to be linked after (0: first child).
int CMarkupSTL::x_LocateNew(int parent, int relative, bool insert, int& after) const {
    const ElemPos& outer = elemIndex[parent];
    const bool parentEmpty = parent && outer.IsEmptyElement();
    int offset;
    if (relative)
        offset = insert ? elemIndex[relative].startTagLeft : elemIndex[relative].endTagRight + 1;
    else if (parentEmpty)
        offset = outer.startTagRight;
    else if (parent)
        offset = insert ? outer.startTagRight + 1 : outer.endTagLeft;
    else
        offset = insert ? 0 : static_cast<int>(docText.size());
    if (!parentEmpty)
        offset = x_SkipSpaceBeforeTag(offset);

    if (!relative)
        after = insert ? 0 : x_LastChild(parent);
    else
        after = insert ? x_PrevSibling(relative) : relative;
    return offset;
}

void CMarkupSTL::x_LinkElem(int parent, int after, int slot) {
    elemIndex[slot].parent = parent;
    int& link = after ? elemIndex[after].nextSibling : elemIndex[parent].firstChild;
    elemIndex[slot].nextSibling = link;
    link = slot;
}

// "<p/>" was turned into "<p>" CR LF content "</p>": its tags now lie elsewhere.
void CMarkupSTL::x_OpenEmptyParent(int parent, int startTagRight, int contentLength,
                                   int nameLength) {
    ElemPos& outer = elemIndex[parent];
    outer.startTagRight = startTagRight - 1;
    outer.endTagLeft = outer.startTagRight + 3 + contentLength;
    outer.endTagRight = outer.endTagLeft + 2 + nameLength;
}

void CMarkupSTL::x_MoveToNew(int parent, int slot, bool child) {
    if (child) {
        childPos = slot;
        mainPos = parent;
        nodeType = parent != 0;
    } else {
        parentPos = parent;
        mainPos = slot;
        childPos = 0;
        nodeType = 1;
    }
}

bool CMarkupSTL::x_AddElem(const char* name, const char* data, bool insert, bool child) {
    if (!name || !*name)
        return false;
    int parent;
    int relative;
    if (child) {
        if (!mainPos)
            return false;
        parent = mainPos;
        relative = childPos;
    } else {
        parent = parentPos;
        relative = mainPos;
        if (!parent) {
            if (IsWellFormed())
                return false;
            elemIndex[0].endTagLeft = static_cast<int>(docText.size());
        }
    }

    int after;
    const int offset = x_LocateNew(parent, relative, insert, after);
    const ElemPos outer = elemIndex[parent];
    const bool parentEmpty = parent && outer.IsEmptyElement();
    const bool parentBare = parent && outer.HasEmptyContent();

    const size_t nameLength = std::strlen(name);
    const size_t contentLength = data ? EscapedLength(data, kEscaped) : 0;
    const int elemLength = static_cast<int>(ElementLength(nameLength, contentLength));
    const int slot = x_GetFreePos();
    ElemPos& elem = elemIndex[slot];
    elem = ElemPos();
    elem.startTagLeft = offset + (parentEmpty || parentBare ? 2 : 0);
    if (!contentLength) {
        elem.startTagRight = elem.startTagLeft + static_cast<int>(nameLength) + 2;
        elem.endTagLeft = elem.startTagRight - 1;
        elem.endTagRight = elem.startTagRight;
    } else {
        elem.startTagRight = elem.startTagLeft + static_cast<int>(nameLength) + 1;
        elem.endTagLeft = elem.startTagRight + 1 + static_cast<int>(contentLength);
        elem.endTagRight = elem.endTagLeft + static_cast<int>(nameLength) + 2;
    }
    x_LinkElem(parent, after, slot);

    if (parentEmpty) {
        const std::string parentName = x_GetTagName(parent);
        std::string piece(3 + elemLength, '\0');
        WriteElement(WriteBytes(&piece[0], ">\r\n", 3), name, nameLength, data, contentLength);
        piece += "</" + parentName;
        x_DocChange(outer.endTagLeft, 1, piece);
        x_Adjust(slot, static_cast<int>(piece.size()) - 1, true);
        x_OpenEmptyParent(parent, outer.startTagRight, elemLength,
                          static_cast<int>(parentName.size()));
    } else {
        // Written in place: no piece of the text is built apart.
        const int lead = parentBare ? 2 : 0;
        char* out = x_DocOpen(offset, lead + elemLength);
        if (parentBare)
            out = WriteBytes(out, kCrLf, 2);
        WriteElement(out, name, nameLength, data, contentLength);
        x_Adjust(slot, lead + elemLength, true);
    }
    x_MoveToNew(parent, slot, child);
    return true;
}

bool CMarkupSTL::x_AddSubDoc(const char* text, bool insert, bool child) {
    const int parent = child ? mainPos : parentPos;
    const int relative = child ? childPos : mainPos;
    if (parent <= 0 || !text)
        return false;

    // Only the markup from the first element on is taken.
    TokenPos token(text, 0);
    int start;
    int kind;
    do {
        start = token.next;
        kind = x_ParseNode(token);
    } while (kind != NK_ELEMENT && kind != NK_NONE);
    const std::string rest(text + start);

    int after;
    const int offset = x_LocateNew(parent, relative, insert, after);
    const ElemPos outer = elemIndex[parent];
    const bool parentEmpty = outer.IsEmptyElement();
    std::string parentName;
    std::string piece = rest;
    int at = offset;
    int replaced = 0;
    int begin = offset;
    if (parentEmpty) {
        parentName = x_GetTagName(parent);
        piece = ">" + std::string(kCrLf) + rest + "</" + parentName;
        at = outer.endTagLeft;
        replaced = 1;
        begin = offset + 2;
    }
    x_DocChange(at, replaced, piece);

    const int savedFreePos = nextFreePos;
    elemIndex[parent].endTagLeft = begin;
    const int slot = x_ParseElem(parent);
    elemIndex[parent].endTagLeft = outer.endTagLeft;
    // The element must lie within the inserted text, or the index would no longer match it.
    if (slot <= 0 || elemIndex[slot].endTagRight >= begin + static_cast<int>(rest.size())) {
        x_DocChange(at, static_cast<int>(piece.size()), parentEmpty ? "/" : "");
        nextFreePos = savedFreePos;
        return false;
    }

    x_LinkElem(parent, after, slot);
    x_Adjust(slot, static_cast<int>(piece.size()) - replaced, true);
    if (parentEmpty)
        x_OpenEmptyParent(parent, outer.startTagRight, static_cast<int>(rest.size()),
                          static_cast<int>(parentName.size()));
    x_MoveToNew(parent, slot, child);
    return true;
}

bool CMarkupSTL::x_SetData(int slot, const char* text, int cdata) {
    if (!slot || elemIndex[slot].firstChild)
        return false;
    const std::string value(text ? text : "");
    std::string content;
    if (cdata && value.find("]]>") == std::string::npos)
        content = "<![CDATA[" + value + "]]>";
    else
        content = x_TextToDoc(value.c_str());
    const int contentLength = static_cast<int>(content.size());

    ElemPos& elem = elemIndex[slot];
    int shift;
    if (elem.IsEmptyElement()) {
        const std::string name = x_GetTagName(slot);
        const std::string piece = ">" + content + "</" + name;
        x_DocChange(elem.endTagLeft, 1, piece);
        shift = static_cast<int>(piece.size()) - 1;
        elem.startTagRight -= 1;
        elem.endTagLeft = elem.startTagRight + 1 + contentLength;
        elem.endTagRight = elem.endTagLeft + 2 + static_cast<int>(name.size());
    } else {
        const int left = elem.startTagRight + 1;
        const int oldLength = elem.endTagLeft - left;
        x_DocChange(left, oldLength, content);
        shift = contentLength - oldLength;
        elem.endTagLeft += shift;
        elem.endTagRight += shift;
    }
    x_Adjust(slot, shift, true);
    return true;
}

bool CMarkupSTL::x_SetAttrib(int slot, const char* name, const char* value) {
    if (!slot || nodeType != 1 || !name || !*name)
        return false;
    const std::string attribName(name);
    const std::string escaped = x_TextToDoc(value, true);
    ElemPos& elem = elemIndex[slot];
    TokenPos token(docText.c_str(), elem.startTagLeft + 1);
    int shift;
    if (x_FindAttrib(token, attribName.c_str())) {
        // A value running past the start tag's '>' cannot be replaced without losing the tag.
        if (token.right >= elem.startTagRight)
            return false;
        const int oldLength = token.right - token.left + 1;
        x_DocChange(token.left, oldLength, escaped);
        shift = static_cast<int>(escaped.size()) - oldLength;
    } else {
        const std::string piece = " " + attribName + "=\"" + escaped + "\"";
        x_DocChange(elem.IsEmptyElement() ? elem.endTagLeft : elem.startTagRight, 0, piece);
        shift = static_cast<int>(piece.size());
    }
    elem.startTagRight += shift;
    elem.endTagLeft += shift;
    elem.endTagRight += shift;
    x_Adjust(slot, shift);
    return true;
}

bool CMarkupSTL::SetAttrib(const char* name, int value) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", value);
    return x_SetAttrib(mainPos, name, text);
}

bool CMarkupSTL::SetChildAttrib(const char* name, int value) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", value);
    return x_SetAttrib(childPos, name, text);
}

bool CMarkupSTL::RemoveElem() {
    if (!mainPos || nodeType != 1)
        return false;
    mainPos = x_RemoveElem(mainPos);
    nodeType = mainPos > 0;
    childPos = 0;
    return true;
}

bool CMarkupSTL::RemoveChildElem() {
    if (!childPos)
        return false;
    childPos = x_RemoveElem(childPos);
    return true;
}

// Returns the previous sibling of the removed element (0 when it was the first).
int CMarkupSTL::x_RemoveElem(int slot) {
    const int prev = x_PrevSibling(slot);
    const ElemPos& elem = elemIndex[slot];
    int& link = prev ? elemIndex[prev].nextSibling : elemIndex[elem.parent].firstChild;
    link = elem.nextSibling;
    const int start = elem.startTagLeft;
    const int end = x_SkipSpaceBeforeTag(elem.endTagRight + 1);
    x_DocChange(start, end - start, std::string());
    // The slot keeps its links so that the walk finds what followed it.
    x_Adjust(slot, start - end, true);
    return prev;
}

// Shifts every element after the start of slot: its descendants (unless afterSlot), the
// following siblings of slot and of each ancestor with their subtrees, and the end tags of the
// ancestors. Walks links only, without recursion.
void CMarkupSTL::x_Adjust(int slot, int shift, bool afterSlot) {
    if (!shift || !slot)
        return;
    if (!afterSlot)
        for (int child = elemIndex[slot].firstChild; child; child = elemIndex[child].nextSibling)
            x_ShiftTree(child, shift);
    for (int pos = slot; pos;) {
        for (int next = elemIndex[pos].nextSibling; next; next = elemIndex[next].nextSibling)
            x_ShiftTree(next, shift);
        pos = elemIndex[pos].parent;
        elemIndex[pos].endTagLeft += shift;
        elemIndex[pos].endTagRight += shift;
    }
}

// Shifts top and its whole subtree, in document order.
void CMarkupSTL::x_ShiftTree(int top, int shift) {
    int pos = top;
    for (;;) {
        ElemPos& elem = elemIndex[pos];
        elem.startTagLeft += shift;
        elem.startTagRight += shift;
        elem.endTagLeft += shift;
        elem.endTagRight += shift;
        if (elem.firstChild) {
            pos = elem.firstChild;
            continue;
        }
        while (pos != top && !elemIndex[pos].nextSibling)
            pos = elemIndex[pos].parent;
        if (pos == top)
            return;
        pos = elemIndex[pos].nextSibling;
    }
}

char* CMarkupSTL::x_DocOpen(int offset, int length) {
    docText.insert(static_cast<size_t>(offset), static_cast<size_t>(length), '\0');
    return &docText[static_cast<size_t>(offset)];
}

void CMarkupSTL::x_DocChange(int offset, int length, const std::string& text) {
    docText.replace(static_cast<size_t>(offset), static_cast<size_t>(length), text);
}
