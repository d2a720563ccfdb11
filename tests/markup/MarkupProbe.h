// Test access to the element index of CMarkupSTL.
#pragma once

#include "MarkupSTL.h"

#include <array>
#include <string>
#include <vector>

class MarkupProbe : public CMarkupSTL {
public:
    using CMarkupSTL::CMarkupSTL;

    // startTagLeft, startTagRight, endTagLeft, endTagRight, then parent, firstChild and
    // nextSibling as positions in document order (-1: none).
    using Node = std::array<int, 7>;

    // The indexed elements in document order, walked without recursion.
    std::vector<Node> Tree() const {
        std::vector<int> slots, order(elemIndex.size(), -1);
        for (int pos = elemIndex[0].firstChild; pos && slots.size() <= elemIndex.size();) {
            order[pos] = static_cast<int>(slots.size());
            slots.push_back(pos);
            if (elemIndex[pos].firstChild) {
                pos = elemIndex[pos].firstChild;
                continue;
            }
            while (pos && !elemIndex[pos].nextSibling)
                pos = elemIndex[pos].parent;
            pos = pos ? elemIndex[pos].nextSibling : 0;
        }
        auto ordinal = [&](int slot) { return slot ? order[slot] : -1; };
        std::vector<Node> nodes;
        for (int slot : slots) {
            const ElemPos& e = elemIndex[slot];
            nodes.push_back({e.startTagLeft, e.startTagRight, e.endTagLeft, e.endTagRight,
                             ordinal(e.parent), ordinal(e.firstChild), ordinal(e.nextSibling)});
        }
        return nodes;
    }

    // The edited index must be what a fresh parse of the edited text gives.
    bool MatchesFreshParse() const { return MarkupProbe(GetDoc().c_str()).Tree() == Tree(); }

    const ElemPos& Elem(int slot) const { return elemIndex[slot]; }
    size_t IndexSize() const { return elemIndex.size(); }
    int NextFree() const { return nextFreePos; }
    int Main() const { return mainPos; }
    int Child() const { return childPos; }
    int NodeType() const { return nodeType; }
    std::string TextFromDoc(int left, int right) const { return x_TextFromDoc(left, right); }
};
