// DICOM files as the tool reads them: through the decoder process the tool
// starts for every file, with its limits, so what this checks is the tool's
// side (the parent survives every file, turns a dead, silent or runaway
// decoder into a refusal, and decodes whatever report arrives) and, through
// the decoder's sanitizer reports, the decoder's own checks. Decoding
// in-process would be some ten times faster, but the toolkit stops its process
// (an assertion) on some damaged files, and each of those would be reported
// here as a finding; the decoder's coverage was never visible to the fuzzer
// anyway, since it runs in another process either way.
#include "file_reader_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    krf::fuzz::read_as_file(bytes, size);
    return 0;
}
