// CMarkupSTL: an XML document kept as one text plus an index of element positions.
// Navigation reads names and attributes straight out of the text; edits splice the text and
// shift the recorded positions, so the index never needs a re-parse.
#pragma once

#include <map>
#include <string>
#include <vector>

class CMarkupSTL {
public:
    CMarkupSTL() { SetDoc(nullptr); }
    explicit CMarkupSTL(const char* text) { SetDoc(text); }
    CMarkupSTL(const CMarkupSTL& other) { *this = other; }
    CMarkupSTL& operator=(const CMarkupSTL& other);
    virtual ~CMarkupSTL() = default;

    // Document
    bool SetDoc(const char* text);
    bool Load(const char* path);
    bool Save(const char* path);
    bool IsWellFormed() const;
    const std::string& GetDoc() const { return docText; }
    const std::string& GetError() const { return errorText; }

    // Navigation
    bool FindElem(const char* name = nullptr);
    bool FindChildElem(const char* name = nullptr);
    bool IntoElem();
    bool OutOfElem();
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
    bool SavePos(const char* name);
    bool RestorePos(const char* name);

    // Reading
    std::string GetTagName() const;
    std::string GetChildTagName() const { return x_GetTagName(childPos); }
    std::string GetData() const { return x_GetData(mainPos); }
    std::string GetChildData() const { return x_GetData(childPos); }
    std::string GetAttrib(const char* name) const { return x_GetAttrib(mainPos, name); }
    std::string GetChildAttrib(const char* name) const { return x_GetAttrib(childPos, name); }
    std::string GetAttribName(int n) const;
    std::string GetSubDoc() const { return x_GetSubDoc(mainPos); }
    std::string GetChildSubDoc() const { return x_GetSubDoc(childPos); }

    // Writing
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
    bool SetData(const char* text, int cdata = 0) { return x_SetData(mainPos, text, cdata); }
    bool SetChildData(const char* text, int cdata = 0) { return x_SetData(childPos, text, cdata); }
    bool SetAttrib(const char* name, const char* value) {
        return x_SetAttrib(mainPos, name, value);
    }
    bool SetAttrib(const char* name, int value);
    bool SetChildAttrib(const char* name, const char* value) {
        return x_SetAttrib(childPos, name, value);
    }
    bool SetChildAttrib(const char* name, int value);
    bool RemoveElem();
    bool RemoveChildElem();
    bool AddSubDoc(const char* text) { return x_AddSubDoc(text, false, false); }
    bool InsertSubDoc(const char* text) { return x_AddSubDoc(text, true, false); }
    bool AddChildSubDoc(const char* text) { return x_AddSubDoc(text, false, true); }
    bool InsertChildSubDoc(const char* text) { return x_AddSubDoc(text, true, true); }

    // Escaping, usable on any text.
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
