// A host process lives for thousands of images. Every dispatched filter runs
// on the real radiographs round after round in this one process; after the
// first round (which settles the allocator and the lookup tables) the
// resident memory must stay where it is. KRFILTER_SOAK=1 asks for 1,000
// rounds, KRFILTER_SOAK=N for N; the default is a short check.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/filter_sweep.h"
#include "support/radiographs.h"
#include "support/test_images.h"

namespace {

using krf::test::Image;

// Resident memory in bytes, from the kernel's own count for this process.
long long resident_bytes() {
    FILE* statm = std::fopen("/proc/self/statm", "r");
    if (statm == nullptr) return -1;
    long long size = 0, resident = -1;
    if (std::fscanf(statm, "%lld %lld", &size, &resident) != 2) resident = -1;
    std::fclose(statm);
    return resident < 0 ? -1 : resident * sysconf(_SC_PAGESIZE);
}

int rounds_asked() {
    const char* soak = std::getenv("KRFILTER_SOAK");
    if (soak == nullptr || *soak == '\0') return 3;
    const int asked = std::atoi(soak);
    return asked > 1 ? asked : 1000;
}

struct Radiograph {
    std::string name;
    Image image{0, 0};
    int white = 0;
};

std::vector<Radiograph> real_radiographs() {
    std::vector<Radiograph> found;
    for (const auto& file : std::filesystem::directory_iterator(KRFILTER_DATA_DIR)) {
        if (file.path().extension() != ".png") continue;
        Radiograph r{file.path().filename().string(), krf::test::radiograph(file.path().filename().string()), 0};
        // These files carry no sBIT: their white level is the all-ones value
        // of the bits their samples use (1023 for a 10-bit exposure), not 65535.
        const auto& samples = r.image.samples();
        const int brightest = samples.empty() ? 0 : *std::max_element(samples.begin(), samples.end());
        while (r.white < brightest) r.white = r.white * 2 + 1;
        found.push_back(std::move(r));
    }
    return found;
}

TEST(Soak, ResidentMemoryDoesNotGrowOverRounds) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the address sanitizer holds freed memory in quarantine; resident memory is measured "
                    "in the release build, leaks are found here by LeakSanitizer";
#else
    const std::vector<Radiograph> radiographs = real_radiographs();
    ASSERT_FALSE(radiographs.empty()) << "no PNG radiographs in " << KRFILTER_DATA_DIR;
    const int rounds = rounds_asked();
    long long after_first = 0, highest = 0;
    std::vector<int> first_codes;  // a later round must answer as the first did
    const auto start = std::chrono::steady_clock::now();
    for (int round = 1; round <= rounds; ++round) {
        std::size_t call = 0;
        for (const Radiograph& r : radiographs) {
            Image out(r.image.height(), r.image.width());
            for (const char* name : krf::test::dispatched_filters()) {
                Image in = r.image;  // "rain" corrects its input in place
                krf::test::CatalogueParameters params(*krf::test::catalogue_entry_named(name),
                                                      krf::test::ParameterChoice::defaults);
                const int code = krf::test::run_filter(name, in, out, r.white, params.data());
                if (round == 1) {
                    first_codes.push_back(code);
                } else {
                    EXPECT_EQ(code, first_codes[call]) << name << " on " << r.name << " in round " << round;
                }
                ++call;
            }
        }
        const long long now = resident_bytes();
        ASSERT_GT(now, 0);
        if (round == 1) after_first = now;
        highest = std::max(highest, now);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double mib = 1024.0 * 1024.0;
    std::printf("soak: %d rounds of %zu filters on %zu radiographs in %.0f s; resident after round 1 %.1f MiB, "
                "highest later %.1f MiB\n",
                rounds, krf::test::dispatched_filters().size(), radiographs.size(), seconds, after_first / mib,
                highest / mib);
    for (const Radiograph& r : radiographs)
        std::printf("soak: %s %d x %d, white %d\n", r.name.c_str(), r.image.width(), r.image.height(), r.white);
    // A few pages of slack for the C library's own bookkeeping; a leak of
    // even one small buffer per call would pass this within a few rounds.
    EXPECT_LE(highest - after_first, 4 * 1024 * 1024) << "resident memory grew after the first round";
#endif
}

}  // namespace
