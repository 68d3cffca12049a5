/* A host program built twice, natively against libkrfilter.so and with
 * mingw-w64 against krfilter.dll, whose printout must be identical: the
 * record layouts, the whole catalogue, and a checksum of every dispatched
 * filter's output on a few images and parameter sets. On Windows it also
 * proves that "advancedsmoothing2" waits on the named semaphore.
 *
 * usage: compare_host [--semaphore] */
#include <float.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "krfilter/krfilter.h"

#if defined(_WIN32)
#include <windows.h>
#endif

/* Deterministic samples: a smooth field, edges and noise, some above white. */
static unsigned short sample_at(unsigned seed, int r, int c, int white) {
    uint32_t x = seed * 2654435761u ^ (uint32_t)(r * 7919 + c * 104729);
    x ^= x >> 13;
    x *= 0x5bd1e995u;
    x ^= x >> 15;
    const int smooth = (r * 37 + c * 23) % (white + 1);
    const int noise = (int)(x % 97) - 48;
    int v = (c % 17 == 3) ? white : smooth + noise;
    if (x % 211 == 0) v = white + 50; /* above white: filters must cope */
    if (v < 0) v = 0;
    if (v > 65535) v = 65535;
    return (unsigned short)v;
}

static uint64_t fnv1a(uint64_t hash, const void* data, size_t size) {
    const unsigned char* p = (const unsigned char*)data;
    for (size_t i = 0; i < size; ++i) hash = (hash ^ p[i]) * 1099511628211ull;
    return hash;
}

typedef struct {
    int height, width, white;
    unsigned short* in;
    unsigned short* out;
    unsigned short** in_rows;
    unsigned short** out_rows;
} Image;

/* The output starts as a marker, so that samples a filter leaves unwritten show in the checksum. */
static Image make_image(int height, int width, int white, unsigned seed) {
    const size_t samples = (size_t)height * width;
    Image m = {height, width, white, (unsigned short*)calloc(samples, 2), (unsigned short*)calloc(samples, 2),
               (unsigned short**)calloc((size_t)height, sizeof(unsigned short*)),
               (unsigned short**)calloc((size_t)height, sizeof(unsigned short*))};
    for (int r = 0; r < height; ++r) {
        m.in_rows[r] = m.in + (size_t)r * width;
        m.out_rows[r] = m.out + (size_t)r * width;
        for (int c = 0; c < width; ++c) m.in_rows[r][c] = sample_at(seed, r, c, white);
    }
    for (size_t i = 0; i < samples; ++i) m.out[i] = 0xBEEF;
    return m;
}

static void free_image(Image* m) {
    free(m->in);
    free(m->out);
    free(m->in_rows);
    free(m->out_rows);
}

/* One value per parameter behind a pointer of its catalogue type. */
typedef union {
    int i;
    float f;
    double d;
} Value;

static void set_value(Value* v, ParamType type, double x) {
    if (type == PARAM_INT) v->i = (int)x;
    else if (type == PARAM_FLOAT) v->f = (float)x;
    else v->d = x;
}

/* Parameter set 0: the catalogue defaults; set 1: a quarter of the way
 * through each range, whole numbers held to 31 so that no run is long. */
static double value_for(const FILTERPARAM* p, int set) {
    if (set == 0) return p->def;
    double x = p->min + (p->max - p->min) * 0.25;
    if (p->type == PARAM_INT) {
        if (x > 31) x = 31;
        x = (double)(int)x;
    }
    return x;
}

static int is_dispatched(const char* name) {
    unsigned short pixel = 0, result = 0;
    unsigned short* in_rows[1] = {&pixel};
    unsigned short* out_rows[1] = {&result};
    /* An unknown name answers -3 before it looks at the parameters, so
     * "rain" (which reads its parameters without checking) gets real ones. */
    double values[16] = {0};
    void* params[16];
    for (int k = 0; k < 16; ++k) params[k] = &values[k];
    char copy[64];
    snprintf(copy, sizeof copy, "%s", name);
    return FilterProcessing(in_rows, 1, 1, 16, 4095, out_rows, copy, params) != -3;
}

/* Doubles by their bit patterns: the two C runtimes spell numbers alike, but
 * not necessarily every digit of every value. */
static unsigned long long bits_of(double x) {
    unsigned long long bits;
    memcpy(&bits, &x, sizeof bits);
    return bits;
}

static void print_catalogue(void) {
    printf("layout FILTERLIST %u name@%u params@%u reserved@%u\n", (unsigned)sizeof(FILTERLIST),
           (unsigned)offsetof(FILTERLIST, name), (unsigned)offsetof(FILTERLIST, params),
           (unsigned)offsetof(FILTERLIST, reserved));
    printf("layout FILTERPARAM %u type@%u size@%u min@%u max@%u def@%u\n", (unsigned)sizeof(FILTERPARAM),
           (unsigned)offsetof(FILTERPARAM, type), (unsigned)offsetof(FILTERPARAM, size),
           (unsigned)offsetof(FILTERPARAM, min), (unsigned)offsetof(FILTERPARAM, max),
           (unsigned)offsetof(FILTERPARAM, def));
    for (const FILTERLIST* f = filterlist; strcmp(f->name, "#") != 0; ++f) {
        printf("filter \"%s\" reserved %u dispatched %d\n", f->name, f->reserved, is_dispatched(f->name));
        for (const FILTERPARAM* p = f->params; strcmp(p->name, "#") != 0; ++p)
            printf("  \"%s\" type %d size %d min %016llx max %016llx default %016llx\n", p->name, (int)p->type,
                   p->size, bits_of(p->min), bits_of(p->max), bits_of(p->def));
    }
}

static void run_filters(void) {
    static const int sizes[][3] = {{17, 23, 4095}, {40, 33, 65535}, {3, 300, 1023}};
    for (size_t s = 0; s < sizeof sizes / sizeof sizes[0]; ++s) {
        for (const FILTERLIST* f = filterlist; strcmp(f->name, "#") != 0; ++f) {
            if (!is_dispatched(f->name)) continue;
            for (int set = 0; set < 2; ++set) {
                Image m = make_image(sizes[s][0], sizes[s][1], sizes[s][2], (unsigned)(s * 31 + 7));
                Value values[16];
                void* params[16];
                int count = 0;
                for (const FILTERPARAM* p = f->params; strcmp(p->name, "#") != 0 && count < 16; ++p, ++count) {
                    memset(&values[count], 0, sizeof values[count]);
                    set_value(&values[count], p->type, value_for(p, set));
                    params[count] = &values[count];
                }
                char name[64];
                snprintf(name, sizeof name, "%s", f->name);
                const int code = FilterProcessing(m.in_rows, (unsigned long)m.width, (unsigned long)m.height, 16,
                                                  (unsigned short)m.white, m.out_rows, name, params);
                const size_t bytes = (size_t)m.height * m.width * 2;
                printf("run %-20s %dx%d white %d set %d: code %d out %016llx in %016llx\n", f->name, m.height,
                       m.width, m.white, set, code, (unsigned long long)fnv1a(14695981039346656037ull, m.out, bytes),
                       (unsigned long long)fnv1a(14695981039346656037ull, m.in, bytes));
                free_image(&m);
            }
        }
    }
}

#if defined(_WIN32)
/* The filter must wait while the host holds the only slot of the semaphore
 * named "advancedsmoothing2", and run once the host gives it back. */
static volatile LONG filter_finished = 0;

static DWORD WINAPI smooth_in_thread(LPVOID arg) {
    Image* m = (Image*)arg;
    float thresholds[4] = {0.2f, 0.5f, 2.0f, 4.0f};
    void* params[4] = {&thresholds[0], &thresholds[1], &thresholds[2], &thresholds[3]};
    char name[] = "advancedsmoothing2";
    FilterProcessing(m->in_rows, (unsigned long)m->width, (unsigned long)m->height, 16, 4095, m->out_rows, name,
                     params);
    InterlockedExchange(&filter_finished, 1);
    return 0;
}

static int check_semaphore(void) {
    if (!is_dispatched("advancedsmoothing2")) {
        printf("semaphore: advancedsmoothing2 is not dispatched\n");
        return 1;
    }
    HANDLE slot = CreateSemaphoreW(NULL, 1, 1, L"advancedsmoothing2");
    if (slot == NULL || WaitForSingleObject(slot, INFINITE) != WAIT_OBJECT_0) {
        printf("semaphore: cannot take the slot\n");
        return 1;
    }
    Image m = make_image(32, 32, 4095, 3);
    HANDLE thread = CreateThread(NULL, 0, smooth_in_thread, &m, 0, NULL);
    Sleep(1500);
    const LONG early = InterlockedCompareExchange(&filter_finished, 0, 0);
    ReleaseSemaphore(slot, 1, NULL);
    WaitForSingleObject(thread, INFINITE);
    const LONG late = InterlockedCompareExchange(&filter_finished, 0, 0);
    CloseHandle(thread);
    CloseHandle(slot);
    free_image(&m);
    if (early == 0 && late == 1) {
        printf("semaphore: the filter waited for the slot and ran once it was free\n");
        return 0;
    }
    printf("semaphore: the filter did not wait (finished before release: %ld, after: %ld)\n", (long)early, (long)late);
    return 1;
}
#endif

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--semaphore") == 0) {
#if defined(_WIN32)
        return check_semaphore();
#else
        printf("semaphore: this build has no Windows semaphore to check\n");
        return 1;
#endif
    }
    print_catalogue();
    run_filters();
    return 0;
}
