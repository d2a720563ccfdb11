// Edits and moves decoded from the input; the document's index must stay equal to a fresh parse.
#include "fuzz_support.h"
#include "markup_edits.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const EditOutcome outcome = ReplayMarkupEdits(data, size);
    Require(outcome.fault.empty(), "edits keep the index", outcome.fault);
    return 0;
}
