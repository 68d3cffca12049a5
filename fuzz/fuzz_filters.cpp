// Any filter name a host might pass (every catalogue name and near misses),
// on small images of any shape, with white levels at their boundaries,
// samples above white, and parameters from typical to NaN, infinite and
// huge, now and then with no parameter array at all. Every row is its own
// heap block, so a filter that reads or writes one sample past a row end is
// caught at once instead of landing in the next row.
#include <fuzzer/FuzzedDataProvider.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "krfilter/krfilter.h"

namespace {

struct Catalogue {
    std::vector<const FILTERLIST*> entries;
    Catalogue() {
        for (const FILTERLIST* f = filterlist; std::strcmp(f->name, "#") != 0; ++f) entries.push_back(f);
    }
};
const Catalogue catalogue;

// A name the dispatcher must either run or refuse: exact, or one edit away.
std::string pick_name(FuzzedDataProvider& data, const FILTERLIST*& entry) {
    entry = catalogue.entries[data.ConsumeIntegralInRange<std::size_t>(0, catalogue.entries.size() - 1)];
    std::string name = entry->name;
    switch (data.ConsumeIntegralInRange(0, 15)) {
        case 0: name.pop_back(); break;
        case 1: name += data.ConsumeIntegral<char>(); break;
        case 2: name[0] = static_cast<char>(name[0] ^ 0x20); break;  // other letter case
        case 3: name = " " + name; break;
        case 4: name.clear(); break;
        default: return name;
    }
    entry = nullptr;
    return name;
}

// Cost grows with these counts, not with the image: cap them so that one
// input stays within milliseconds. (Forty million histogram bins take seconds
// and hundreds of megabytes, by design rather than by fault.)
int largest_sensible(const char* name) {
    if (std::strcmp(name, "numIter") == 0) return 40;
    if (std::strcmp(name, "NBins") == 0) return 1 << 18;
    return INT_MAX;
}

// One 8-byte slot per parameter, wide enough for any type a filter reads.
void fill_parameter(FuzzedDataProvider& data, const FILTERPARAM& p, double* slot) {
    const double nan = std::numeric_limits<double>::quiet_NaN(), inf = std::numeric_limits<double>::infinity();
    double value = p.def;
    switch (data.ConsumeIntegralInRange(0, 11)) {
        case 0: value = p.min; break;
        case 1: value = p.max; break;
        case 2: value = nan; break;
        case 3: value = data.ConsumeBool() ? inf : -inf; break;
        case 4: value = data.ConsumeBool() ? 1e300 : -1e300; break;
        case 5: value = data.ConsumeFloatingPointInRange(-2.0 * std::fabs(p.max) - 2, 2.0 * std::fabs(p.max) + 2); break;
        case 6: value = data.ConsumeFloatingPoint<double>(); break;
        case 7: value = data.ConsumeIntegralInRange(-3, 3); break;
        default: break;  // the default, the usual case
    }
    *slot = 0.0;
    if (p.type == PARAM_INT) {
        int v = 0;
        if (data.ConsumeIntegralInRange(0, 7) == 0) {
            v = data.ConsumeIntegral<int>();  // any int, INT_MIN and INT_MAX included
        } else if (!std::isnan(value)) {
            v = static_cast<int>(std::fmax(INT_MIN, std::fmin(INT_MAX, value)));
        }
        v = std::min(v, largest_sensible(p.name));
        std::memcpy(slot, &v, sizeof v);
    } else if (p.type == PARAM_FLOAT) {
        const float v = std::fabs(value) > FLT_MAX && std::isfinite(value) ? (value > 0 ? FLT_MAX : -FLT_MAX)
                                                                            : static_cast<float>(value);
        std::memcpy(slot, &v, sizeof v);
    } else {
        *slot = value;
    }
}

// Rows that own their samples, each a separate allocation.
struct RowImage {
    std::vector<std::unique_ptr<unsigned short[]>> blocks;
    std::vector<unsigned short*> rows;
    RowImage(int height, int width) {
        for (int r = 0; r < height; ++r) {
            blocks.emplace_back(new unsigned short[static_cast<std::size_t>(width)]);
            rows.push_back(blocks.back().get());
        }
        rows.push_back(nullptr);  // a valid array pointer even for height 0
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    FuzzedDataProvider data(bytes, size);
    const FILTERLIST* entry = nullptr;
    std::string name = pick_name(data, entry);

    // Shapes: mostly small and positive; zero and negative sizes are legal inputs too.
    int height = data.ConsumeIntegralInRange(-2, 24), width = data.ConsumeIntegralInRange(-2, 24);
    if (data.ConsumeIntegralInRange(0, 7) == 0) {  // a long thin strip
        (data.ConsumeBool() ? height : width) = data.ConsumeIntegralInRange(1, 2);
        (height <= 2 ? width : height) = data.ConsumeIntegralInRange(25, 200);
    }
    static const int kWhites[] = {0, 1, 2, 255, 256, 1023, 4095, 4096, 32767, 65534, 65535};
    int white = kWhites[data.ConsumeIntegralInRange<std::size_t>(0, std::size(kWhites) - 1)];
    if (data.ConsumeIntegralInRange(0, 7) == 0) white = data.ConsumeIntegral<unsigned short>();

    const int rows_made = std::max(height, 0), columns_made = std::max(width, 0);
    RowImage in(rows_made, columns_made), out(rows_made, columns_made);
    const int above_white_odds = data.ConsumeIntegralInRange(0, 3);  // 0: none above white
    for (int r = 0; r < rows_made; ++r)
        for (int c = 0; c < columns_made; ++c) {
            const auto raw = data.ConsumeIntegral<unsigned short>();
            const bool above = above_white_odds != 0 && raw % 8 < static_cast<unsigned>(above_white_odds);
            in.rows[r][c] = above ? raw : static_cast<unsigned short>(white == 0 ? 0 : raw % (white + 1));
            out.rows[r][c] = 0x5a5a;
        }

    // Parameters for the catalogue entry the name came from, or for any entry
    // when the name is a near miss; some spare slots past the end.
    const FILTERLIST* shape = entry != nullptr ? entry : catalogue.entries[0];
    std::vector<double> slots(16, 0.0);
    std::vector<void*> pointers;
    int k = 0;
    for (const FILTERPARAM* p = shape->params; std::strcmp(p->name, "#") != 0 && k < 15; ++p, ++k)
        fill_parameter(data, *p, &slots[k]);
    for (double& slot : slots) pointers.push_back(&slot);
    void** params = data.ConsumeIntegralInRange(0, 15) == 0 ? nullptr : pointers.data();

    // KRFILTER_FUZZ_TRACE=1 shows what an input asks for, to reproduce a finding by hand.
    static const bool trace = std::getenv("KRFILTER_FUZZ_TRACE") != nullptr;
    if (trace) {
        std::fprintf(stderr, "\"%s\" %d x %d white %d params", name.c_str(), height, width, white);
        if (params == nullptr) std::fprintf(stderr, " none");
        for (int i = 0; params != nullptr && i < k; ++i) {
            const FILTERPARAM& p = shape->params[i];
            if (p.type == PARAM_INT) std::fprintf(stderr, " %d", *static_cast<int*>(params[i]));
            else if (p.type == PARAM_FLOAT) std::fprintf(stderr, " %g", static_cast<double>(*static_cast<float*>(params[i])));
            else std::fprintf(stderr, " %g", *static_cast<double*>(params[i]));
        }
        std::fprintf(stderr, "\n");
    }
    if (data.ConsumeBool()) {
        FilterProcessing(in.rows.data(), static_cast<unsigned long>(width), static_cast<unsigned long>(height), 16,
                         static_cast<unsigned short>(white), out.rows.data(), name.data(), params);
    } else {
        CKRImage in_image(in.rows.data(), height, width, white), out_image(out.rows.data(), height, width, white);
        DoFilter(&in_image, &out_image, name.data(), params);
    }
    return 0;
}
