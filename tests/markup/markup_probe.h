// A CMarkupSTL that exposes its index, for the tests and the edit fuzz target.
#pragma once

#include "MarkupSTL.h"

#include <array>
#include <vector>

class MarkupProbe : public CMarkupSTL {
public:
    using CMarkupSTL::CMarkupSTL;
    using CMarkupSTL::elemIndex, CMarkupSTL::nextFreePos, CMarkupSTL::mainPos, CMarkupSTL::childPos,
        CMarkupSTL::nodeType, CMarkupSTL::x_TextFromDoc;

    // Tag offsets, then where parent, firstChild and nextSibling start (-1: none).
    using Node = std::array<int, 7>;

    // The indexed elements in document order, walked without recursion; a cycle in the links
    // stops the walk after more nodes than there are slots.
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
