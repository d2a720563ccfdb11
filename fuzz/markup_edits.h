// Edits and moves on a CMarkupSTL document, decoded from bytes; shared by the edit fuzz target
// and the markup tests, which replay the target's corpus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct EditOutcome {
    int edits = 0;     // edits that changed the text
    std::string fault; // empty, or the step that broke a rule with expected and actual
};

// The first byte chooses the document. Even: a well-formed one built from the next bytes, whose
// index must equal a fresh parse of the text after every step, and which a failed edit must
// leave as it was. Odd: the bytes up to the next NUL as the text, where edits only have to keep
// every indexed offset inside the text. The remaining bytes choose up to 64 steps.
EditOutcome ReplayMarkupEdits(const uint8_t* data, size_t size);
