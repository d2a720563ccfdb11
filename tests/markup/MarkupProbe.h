// Test access to the element index of CMarkupSTL.
#pragma once

#include "MarkupSTL.h"

#include <string>
#include <vector>

class MarkupProbe : public CMarkupSTL {
public:
    MarkupProbe() = default;
    explicit MarkupProbe(const char* text) : CMarkupSTL(text) {}

    // One element as the index records it; links are positions in document order (-1: none).
    struct Node {
        int startTagLeft, startTagRight, endTagLeft, endTagRight;
        int parent, firstChild, nextSibling;
        bool operator==(const Node& o) const {
            return startTagLeft == o.startTagLeft && startTagRight == o.startTagRight &&
                   endTagLeft == o.endTagLeft && endTagRight == o.endTagRight &&
                   parent == o.parent && firstChild == o.firstChild && nextSibling == o.nextSibling;
        }
    };

    // The indexed elements in document order, walked without recursion.
    std::vector<Node> Tree() const {
        std::vector<Node> nodes;
        std::vector<int> order(elemIndex.size(), -1);
        auto ordinal = [&](int slot) { return slot ? order[slot] : -1; };
        std::vector<int> slots;
        int pos = elemIndex.empty() ? 0 : elemIndex[0].firstChild;
        while (pos && slots.size() <= elemIndex.size()) {
            order[pos] = static_cast<int>(slots.size());
            slots.push_back(pos);
            if (elemIndex[pos].firstChild) {
                pos = elemIndex[pos].firstChild;
                continue;
            }
            while (pos && !elemIndex[pos].nextSibling)
                pos = elemIndex[pos].parent;
            if (pos)
                pos = elemIndex[pos].nextSibling;
        }
        for (int slot : slots) {
            const ElemPos& e = elemIndex[slot];
            nodes.push_back({e.startTagLeft, e.startTagRight, e.endTagLeft, e.endTagRight,
                             ordinal(e.parent), ordinal(e.firstChild), ordinal(e.nextSibling)});
        }
        return nodes;
    }

    const ElemPos& Elem(int slot) const { return elemIndex[slot]; }
    size_t IndexSize() const { return elemIndex.size(); }
    int NextFree() const { return nextFreePos; }
    int Parent() const { return parentPos; }
    int Main() const { return mainPos; }
    int Child() const { return childPos; }
    int NodeType() const { return nodeType; }
    std::string TextFromDoc(int left, int right) const { return x_TextFromDoc(left, right); }
};
