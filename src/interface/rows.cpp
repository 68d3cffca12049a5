#include "interface/rows.h"

#include "platform/memory.h"

namespace krf {

int allocate_rows(Rows* rows, int height, int width) noexcept {
    const int count = height < 0 ? 0 : height;
    *rows = static_cast<Rows>(zalloc(count, sizeof(Sample*)));
    if (*rows == nullptr) return kNoRowArray;
    // A negative width is an empty row: the filters' loops never enter it.
    const int samples = width < 0 ? 0 : width;
    for (int r = 0; r < count; ++r) {
        (*rows)[r] = static_cast<Sample*>(zalloc(samples, sizeof(Sample)));
        if ((*rows)[r] == nullptr) return kNoBuffer;
    }
    return 0;
}

void free_rows(Rows rows, int height) noexcept {
    if (rows == nullptr) return;
    for (int r = height - 1; r >= 0; --r) zfree(rows[r]);
    zfree(rows);
}

}  // namespace krf
