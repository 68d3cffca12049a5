// Shared by the file-reader fuzz targets: the readers take a path, so each
// input is written to one scratch file per process and read back through
// the same entry point the tool uses.
#pragma once

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "image_io.h"

namespace krf::fuzz {

inline const std::string& scratch_path() {
    static const std::string path = [] {
        const char* folder = std::getenv("TMPDIR");
        return std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/krfilter-fuzz-" +
               std::to_string(getpid());
    }();
    return path;
}

extern "C" void __sanitizer_set_death_callback(void (*callback)());
extern "C" void __asan_set_error_report_callback(void (*callback)(const char*));

// The DICOM reader decodes in a child process. A child that dies of the
// toolkit's own assertion or crash is a refused file, exactly as in the tool,
// so the child gets the default signal actions back instead of the fuzzer's
// crash handlers. A sanitizer report in the child, though, is a fault in
// instrumented code: the child leaves the input beside the scratch file as
// "<scratch>-child-finding-<pid>" for scripts/fuzz.sh to report, since the
// child's own error output goes nowhere. Except running out of memory: a
// forged length makes the toolkit ask for gigabytes, which the tool's child
// meets as a failed allocation and a refused file too.
inline bool child_ran_out_of_memory = false;
inline void note_child_report(const char* report) {
    child_ran_out_of_memory = std::strstr(report, "out-of-memory") != nullptr ||
                              std::strstr(report, "allocation-size-too-big") != nullptr;
}
inline void keep_child_finding() {
    if (child_ran_out_of_memory) _exit(1);
    const std::string copy = scratch_path() + "-child-finding-" + std::to_string(getpid());
    const int from = open(scratch_path().c_str(), O_RDONLY), to = open(copy.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    char chunk[4096];
    ssize_t n = 0;
    while (from >= 0 && to >= 0 && (n = read(from, chunk, sizeof chunk)) > 0)
        if (write(to, chunk, static_cast<std::size_t>(n)) != n) break;
    _exit(1);
}
inline void child_after_fork() {
    for (const int signal_number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) std::signal(signal_number, SIG_DFL);
    __asan_set_error_report_callback(note_child_report);
    __sanitizer_set_death_callback(keep_child_finding);
}
inline const bool child_handling_installed = pthread_atfork(nullptr, nullptr, child_after_fork) == 0;

// Reads `bytes` as an image file. A file that is accepted must describe a
// whole raster; anything else must be refused with a reason.
inline void read_as_file(const std::uint8_t* bytes, std::size_t size) {
    FILE* file = std::fopen(scratch_path().c_str(), "wb");
    if (file == nullptr) std::abort();
    if (size != 0 && std::fwrite(bytes, 1, size, file) != size) std::abort();
    std::fclose(file);
    tools::GreyImage image;
    const std::string problem = tools::read_grey_image(scratch_path(), image);
    if (problem.empty()) {
        if (image.height <= 0 || image.width <= 0 ||
            image.samples.size() != static_cast<std::size_t>(image.height) * static_cast<std::size_t>(image.width) ||
            (image.bit_depth != 8 && image.bit_depth != 16) || image.white <= 0 || image.white > 65535)
            std::abort();
    } else if (problem.find('\n') != std::string::npos || !image.samples.empty()) {
        std::abort();
    }
}

}  // namespace krf::fuzz
