// DICOM files as the tool reads them. The toolkit underneath asserts (and so
// stops its process) on some damaged files, which is why the tool decodes in
// a child process; this target goes through that same child, so what it
// checks is the tool's side: the parent survives every file, turns a dead or
// silent child into a refusal, and decodes whatever report arrives. The
// toolkit's own code is not instrumented either way, so decoding in-process
// would add only the toolkit's assertions as findings.
#include "file_reader_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    krf::fuzz::read_as_file(bytes, size);
    return 0;
}
