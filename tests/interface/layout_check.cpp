// Compiled for the host target by the test build and for a 32-bit target by
// the catalogue_layout_32bit test: the records hosts depend on keep their layout.
#include <cstddef>

#include "krfilter/krfilter.h"

static_assert(sizeof(void*) == 4 || sizeof(void*) == 8);
constexpr bool k32 = sizeof(void*) == 4;

static_assert(sizeof(FILTERLIST) == (k32 ? 64 : 72));
static_assert(offsetof(FILTERLIST, params) == 56);
static_assert(sizeof(FILTERPARAM) == (k32 ? 40 : 48));
static_assert(offsetof(FILTERPARAM, type) == sizeof(void*));
static_assert(offsetof(FILTERPARAM, size) == sizeof(void*) + 8);
static_assert(offsetof(FILTERPARAM, min) == (k32 ? 16 : 24));
static_assert(sizeof(ParamType) == 4);

static_assert(offsetof(CKRImage, rows) == 0);
static_assert(offsetof(CKRImage, rgb) == sizeof(void*));
static_assert(offsetof(CKRImage, height) == 2 * sizeof(void*));
static_assert(offsetof(CKRImage, width) == 2 * sizeof(void*) + 4);
static_assert(offsetof(CKRImage, white) == 2 * sizeof(void*) + 8);
static_assert(offsetof(CKRImage, ownership) == 2 * sizeof(void*) + 12);
static_assert(offsetof(CKRImage, reserved) == 2 * sizeof(void*) + 16);
static_assert(sizeof(CKRImage) == (k32 ? 28 : 40));
