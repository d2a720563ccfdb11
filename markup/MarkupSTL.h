// CMarkupSTL: an XML document kept as one text plus an index of element positions.
// Navigation reads names and attributes straight out of the text; edits splice the text and
// shift the recorded positions, so the index never needs a re-parse.
#pragma once

#include <map>
#include <string>
#include <vector>

// The cursor is three slots: the parent, the main position (an element under the parent) and
// the child position (an element under the main one); 0 means none. A failed call leaves the
// document and the cursor as they were. Copies are independent; not safe across threads.
class CMarkupSTL {
public:
    // An empty document; or `text` parsed as by SetDoc.
    CMarkupSTL() { SetDoc(nullptr); }
    explicit CMarkupSTL(const char* text) { SetDoc(text); }
    CMarkupSTL(const CMarkupSTL& other) { *this = other; }
    // Copies the text, the index and the cursor; the target keeps its own error text and saved
    // positions.
    CMarkupSTL& operator=(const CMarkupSTL& other);
    virtual ~CMarkupSTL() = default;

    // Document
    // Replaces the document with `text` (null: empty) and indexes it; the cursor goes back to
    // the start and saved positions are dropped. True when the text holds a well-formed root
    // element; otherwise the text is kept unindexed and GetError tells why. Text after the root
    // element is kept but not indexed.
    bool SetDoc(const char* text);
    // SetDoc of the whole file. False, with an empty document, for a null path or a file that
    // cannot be opened, is empty or cannot be read in full.
    bool Load(const char* path);
    // Writes the text as it stands (no mark is added) to `path`, creating or truncating it. True
    // when every byte reached the file; false for a null path or a write error.
    bool Save(const char* path);
    // True when a root element is indexed.
    bool IsWellFormed() const;
    // The whole text. The last parse error message, kept until the next error.
    const std::string& GetDoc() const { return docText; }
    const std::string& GetError() const { return errorText; }

    // Navigation
    // Moves the main position to the next element under the parent whose tag matches `name`
    // (any for null or empty; "a" also matches "a b" and "a[1]"). Clears the child position.
    bool FindElem(const char* name = nullptr);
    // Moves the child position to the next matching element under the main position, first
    // finding a main element when there is none.
    bool FindChildElem(const char* name = nullptr);
    // The main position becomes the parent and the child position the main one. Needs a main
    // element.
    bool IntoElem();
    // The reverse of IntoElem. Needs a parent.
    bool OutOfElem();
    // Clear the child position; also the main one; also the parent (back to the document).
    void ResetChildPos() { childPos = 0; }
    void ResetMainPos() {
        childPos = 0;
        mainPos = 0;
        nodeType = 0;
    }
    void ResetPos() {
        parentPos = 0;
        ResetMainPos();
    }
    // Keeps the cursor under `name`, replacing an earlier one; false for a null name.
    bool SavePos(const char* name);
    // Restores the cursor kept under `name`. False for a null or unknown name, or when one of
    // its elements was removed since.
    bool RestorePos(const char* name);

    // Reading
    // Empty when there is no such element or value. Tag names and attribute names as
    // they stand; data and attribute values with entities and character references decoded.
    // An element with child elements has no data; the data of a CDATA section is taken as is.
    // A sub-document is the element's text, with the whitespace after it when a tag follows.
    std::string GetTagName() const;
    std::string GetChildTagName() const { return x_GetTagName(childPos); }
    std::string GetData() const { return x_GetData(mainPos); }
    std::string GetChildData() const { return x_GetData(childPos); }
    // Only quoted values are found: "<e v=1/>" has no attribute "v".
    std::string GetAttrib(const char* name) const { return x_GetAttrib(mainPos, name); }
    std::string GetChildAttrib(const char* name) const { return x_GetAttrib(childPos, name); }
    // The name of the `n`th attribute (from 0) of the main element.
    std::string GetAttribName(int n) const;
    std::string GetSubDoc() const { return x_GetSubDoc(mainPos); }
    std::string GetChildSubDoc() const { return x_GetSubDoc(childPos); }

    // Writing
    // Each returns true on success and moves the main (or child) position to what was
    // added. A new element is written as "<name>data</name>" or "<name/>", then CR LF; data is
    // escaped. An element goes after (Add) or before (Insert) the main position, or under the
    // main element next to the child position (Child forms). False for a null or empty name, for
    // a second root, or for a child without a main element.
    bool AddElem(const char* name, const char* data = nullptr) {
        return x_AddElem(name, data, false, false);
    }
    bool InsertElem(const char* name, const char* data = nullptr) {
        return x_AddElem(name, data, true, false);
    }
    bool AddChildElem(const char* name, const char* data = nullptr) {
        return x_AddElem(name, data, false, true);
    }
    bool InsertChildElem(const char* name, const char* data = nullptr) {
        return x_AddElem(name, data, true, true);
    }
    // Replaces the content of an element without child elements with `text`, escaped, or as a
    // CDATA section when `cdata` is non-zero and `text` holds no "]]>". False when the element
    // has children or there is none.
    bool SetData(const char* text, int cdata = 0) { return x_SetData(mainPos, text, cdata); }
    bool SetChildData(const char* text, int cdata = 0) { return x_SetData(childPos, text, cdata); }
    // Sets or adds the attribute (value escaped, quotes included; an int as "%d"). False for a
    // null or empty name, no element, or an existing value that runs past the tag's ">".
    bool SetAttrib(const char* name, const char* value) {
        return x_SetAttrib(mainPos, name, value);
    }
    bool SetAttrib(const char* name, int value);
    bool SetChildAttrib(const char* name, const char* value) {
        return x_SetAttrib(childPos, name, value);
    }
    bool SetChildAttrib(const char* name, int value);
    // Removes the main (child) element with its subtree and the whitespace after it when a
    // tag follows; the position moves to the previous sibling, or to none.
    bool RemoveElem();
    bool RemoveChildElem();
    // Adds the first element of `text` (what comes before it is dropped) with its subtree, placed
    // as AddElem places an element; GetError tells why a text does not parse. False when there is
    // no parent (no root, or at document level for the non-child forms) or when the element
    // does not end within `text`.
    bool AddSubDoc(const char* text) { return x_AddSubDoc(text, false, false); }
    bool InsertSubDoc(const char* text) { return x_AddSubDoc(text, true, false); }
    bool AddChildSubDoc(const char* text) { return x_AddSubDoc(text, false, true); }
    bool InsertChildSubDoc(const char* text) { return x_AddSubDoc(text, true, true); }

    // Escaping, usable on any text.
    // "&", "<" and ">" as entities; with `attribute` also "'" and '"'. Empty for null.
    static std::string x_TextToDoc(const char* text, bool attribute = false);

protected:
    struct ElemPos {
        int startTagLeft = 0;
        int startTagRight = 0;
        int endTagLeft = 0;
        int endTagRight = 0;
        int reserved = 0;
        int parent = 0;
        int firstChild = 0;
        int nextSibling = 0;
        bool IsEmptyElement() const { return startTagRight == endTagLeft + 1; }
        bool HasEmptyContent() const { return startTagRight + 1 == endTagLeft; }
    };

    struct TokenPos {
        explicit TokenPos(const char* t, int start = 0) : next(start), text(t) {}
        int left = 0;
        int right = -1;
        int next;
        const char* text;
        bool quoted = false;
    };

    struct SavedPos {
        int parent = 0;
        int main = 0;
        int child = 0;
    };

    enum NodeKind {
        NK_NONE = 0,
        NK_ELEMENT = 1,
        NK_TEXT = 2,
        NK_WHITESPACE = 4,
        NK_CDATA = 8,
        NK_PI = 16,
        NK_COMMENT = 32,
        NK_DOCTYPE = 64,
    };

    std::string docText;
    std::string errorText;
    std::vector<ElemPos> elemIndex;
    int parentPos = 0;
    int mainPos = 0;
    int childPos = 0;
    int nextFreePos = 1;
    int nodeType = 0;
    std::map<std::string, SavedPos> savedPositions;

    // Parsing (the token and node scanners are shared by every reader of tags).
    void x_SetText(const char* text);
    int x_ParseElem(int parent);
    int x_ParseStartTag(int parent, bool& open);
    int x_StartTagRead(int slot, int parent, int left, int right, bool& open);
    int x_ParseEndTag(int slot);
    void x_AppendChild(int parent, int child);
    int x_ParseNode(TokenPos& token) const;
    static bool x_FindChar(const char* text, int& pos, char c);
    static bool x_FindAny(const char* text, int& pos);
    static bool x_FindToken(TokenPos& token);
    static bool x_NameMatch(const char* token, int length, const char* name, int nameLength);
    std::string x_GetToken(const TokenPos& token) const;
    int x_GetFreePos();
    void x_GrowIndex();
    int x_ReleasePos();
    int x_ParseError(const char* format, const char* arg = nullptr);

    // Navigation and reading
    int x_FindElem(int parent, int after, const char* name) const;
    bool x_FindAttrib(TokenPos& token, const char* name) const;
    bool x_IsLinked(int slot) const;
    int x_PrevSibling(int slot) const;
    int x_LastChild(int parent) const;
    int x_SkipSpaceBeforeTag(int offset) const;
    std::string x_GetTagName(int slot) const;
    std::string x_GetData(int slot) const;
    std::string x_GetAttrib(int slot, const char* name) const;
    std::string x_GetSubDoc(int slot) const;
    std::string x_TextFromDoc(int left, int right) const;

    // Editing
    int x_LocateNew(int parent, int relative, bool insert, int& after) const;
    void x_LinkElem(int parent, int after, int slot);
    void x_OpenEmptyParent(int parent, int startTagRight, int contentLength, int nameLength);
    void x_MoveToNew(int parent, int slot, bool child);
    bool x_AddElem(const char* name, const char* data, bool insert, bool child);
    bool x_AddSubDoc(const char* text, bool insert, bool child);
    bool x_SetData(int slot, const char* text, int cdata);
    bool x_SetAttrib(int slot, const char* name, const char* value);
    int x_RemoveElem(int slot);
    void x_Adjust(int slot, int shift, bool afterSlot = false);
    void x_ShiftTree(int top, int shift);
    void x_DocChange(int offset, int length, const std::string& text);
    char* x_DocOpen(int offset, int length);
};
