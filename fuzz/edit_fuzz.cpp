// Edits and moves decoded from the input; the document's index must stay equal to a fresh parse.
#include "markup_edits.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const EditOutcome outcome = ReplayMarkupEdits(data, size);
    if (!outcome.fault.empty()) {
        std::fprintf(stderr, "edit fault: %s\n", outcome.fault.c_str());
        std::abort();
    }
    return 0;
}
