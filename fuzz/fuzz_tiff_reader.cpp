// TIFF files as the tool reads them: any damage is a refusal with one line of reason.
#include "file_reader_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    krf::fuzz::read_as_file(bytes, size);
    return 0;
}
