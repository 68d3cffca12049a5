// Shared by the file-reader fuzz targets: the readers take a path, so each
// input is written to one scratch file per process and read back through
// the same entry point the tool uses.
#pragma once

#include <glob.h>
#include <unistd.h>

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

// The DICOM reader decodes in a process of its own, whose error output goes
// nowhere. Its sanitizer reports (the decoder is instrumented like
// everything else here) are written beside the scratch file instead, and a
// report after an input makes that input a finding of this process.
// Except running out of memory: a forged length makes the toolkit ask for
// gigabytes, which the decoder meets as a failed allocation and the tool as
// a refused file.
inline std::string child_report_prefix() { return scratch_path() + "-decoder-report"; }
inline const bool child_reports_routed = [] {
    for (const char* variable : {"ASAN_OPTIONS", "UBSAN_OPTIONS"}) {
        const char* now = std::getenv(variable);
        std::string options = now != nullptr ? now : "";
        // Symbolizing would start a program, which the decoder forbids itself.
        options += (options.empty() ? "" : ":") + std::string("symbolize=0:log_path=") + child_report_prefix();
        setenv(variable, options.c_str(), 1);  // read by the decoder processes only: ours started already
    }
    return true;
}();

inline void fail_on_child_report() {
    glob_t found{};
    if (glob((child_report_prefix() + ".*").c_str(), 0, nullptr, &found) != 0) return;
    bool finding = false;
    for (std::size_t i = 0; i < found.gl_pathc; ++i) {
        std::FILE* report = std::fopen(found.gl_pathv[i], "r");
        std::string text;
        char chunk[4096];
        std::size_t n = 0;
        while (report != nullptr && (n = std::fread(chunk, 1, sizeof chunk, report)) > 0) text.append(chunk, n);
        if (report != nullptr) std::fclose(report);
        std::remove(found.gl_pathv[i]);
        if (text.find("out-of-memory") != std::string::npos || text.find("out of memory") != std::string::npos ||
            text.find("allocation-size-too-big") != std::string::npos)
            continue;
        std::fprintf(stderr, "sanitizer report of the DICOM decoder process:\n%s\n", text.c_str());
        finding = true;
    }
    globfree(&found);
    if (finding) std::abort();
}

// Reads `bytes` as an image file. A file that is accepted must describe a
// whole raster; anything else must be refused with a reason.
inline void read_as_file(const std::uint8_t* bytes, std::size_t size) {
    FILE* file = std::fopen(scratch_path().c_str(), "wb");
    if (file == nullptr) std::abort();
    if (size != 0 && std::fwrite(bytes, 1, size, file) != size) std::abort();
    std::fclose(file);
    tools::GreyImage image;
    const std::string problem = tools::read_grey_image(scratch_path(), image);
    fail_on_child_report();
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
