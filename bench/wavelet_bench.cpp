// Wavelet shrinkage on the standard workload. The peer of "advancedsmoothing"
// is the same decomposition (four levels of the symlet of order 8, periodic
// extension), soft thresholding and reconstruction in PyWavelets, run by a
// Python process that this benchmark starts once and then asks for one pass
// per iteration. "advancedsmoothing2" has no peer; its cost is memory, and the
// benchmark reports the peak resident size of a fresh process (the
// command-line tool) running it once on the same image.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "image_io.h"
#include "workload.h"

namespace krf::bench {
namespace {

namespace fs = std::filesystem;

float thresholds[4] = {0.2f, 0.5f, 2.0f, 4.0f};  // the catalogue's defaults

void shrinkage(benchmark::State& state, const char* name) {
    void* p[] = {&thresholds[0], &thresholds[1], &thresholds[2], &thresholds[3]};
    Raster out(input_height(), input_width());
    for (auto _ : state) {
        benchmark::DoNotOptimize(run_standard(name, out, p));
        benchmark::ClobberMemory();
    }
}

fs::path scratch_folder() {
    const fs::path folder = fs::temp_directory_path() / ("krfilter-wavelet-bench-" + std::to_string(getpid()));
    fs::create_directories(folder);
    return folder;
}

// The Python peer with its two pipes; started on first use, ended with the
// benchmark program.
class PythonPeer {
public:
    bool start() {
        if (to_ != nullptr) return true;
        const Raster& in = standard_input();
        raster_ = scratch_folder() / "standard.u16";
        std::ofstream(raster_, std::ios::binary)
            .write(reinterpret_cast<const char*>(in.samples.data()),
                   static_cast<std::streamsize>(in.samples.size() * sizeof(std::uint16_t)));
        const fs::path script = fs::path(__FILE__).parent_path() / "pywt_peer.py";
        int down[2], up[2];
        if (pipe(down) != 0 || pipe(up) != 0) return false;
        child_ = fork();
        if (child_ == 0) {
            dup2(down[0], 0);
            dup2(up[1], 1);
            close(down[1]);
            close(up[0]);
            const std::string h = std::to_string(input_height()), w = std::to_string(input_width());
            const std::string white = std::to_string(input_white());
            // Debian's interpreter, where python3-pywt installs the module.
            execl("/usr/bin/python3", "python3", script.c_str(), raster_.c_str(), h.c_str(), w.c_str(),
                  white.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(down[0]);
        close(up[1]);
        to_ = fdopen(down[1], "w");
        from_ = fdopen(up[0], "r");
        return child_ > 0 && to_ != nullptr && from_ != nullptr;
    }
    bool run_once() {
        char answer[16] = {};
        return std::fputs("run\n", to_) >= 0 && std::fflush(to_) == 0 && std::fgets(answer, sizeof answer, from_) &&
               std::string(answer) == "done\n";
    }
    ~PythonPeer() {
        if (to_ != nullptr) std::fclose(to_);
        if (from_ != nullptr) std::fclose(from_);
        if (child_ > 0) waitpid(child_, nullptr, 0);
        std::error_code ignored;
        if (!raster_.empty()) fs::remove_all(raster_.parent_path(), ignored);
    }

private:
    pid_t child_ = -1;
    FILE* to_ = nullptr;
    FILE* from_ = nullptr;
    fs::path raster_;
};

void pywavelets_peer(benchmark::State& state) {
    static PythonPeer peer;
    if (!peer.start() || !peer.run_once()) {
        state.SkipWithError("the PyWavelets peer did not start (python3-pywt, python3-numpy installed?)");
        return;
    }
    for (auto _ : state)
        if (!peer.run_once()) state.SkipWithError("the PyWavelets peer stopped");
}

// Peak resident size, in MiB, of the command-line tool running
// "advancedsmoothing2" once on the standard input (read from a PNG file).
double peak_resident_mib_of_one_run() {
    const fs::path tool = fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "krfilter";
    const fs::path folder = scratch_folder();
    tools::GreyImage image;
    image.height = input_height();
    image.width = input_width();
    image.white = input_white();
    image.samples = standard_input().samples;
    const fs::path in = folder / "standard.png", out = folder / "smoothed.png";
    if (!tools::write_grey_image(in, image).empty()) return -1.0;
    const pid_t child = fork();
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        execl(tool.c_str(), "krfilter", "run", "advancedsmoothing2", in.c_str(), out.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    const bool ok = child > 0 && wait4(child, &status, 0, &usage) == child && WIFEXITED(status) &&
                    WEXITSTATUS(status) == 0;
    std::error_code ignored;
    fs::remove_all(folder, ignored);
    return ok ? usage.ru_maxrss / 1024.0 : -1.0;  // ru_maxrss is in KiB
}

void undecimated(benchmark::State& state) {
    static const double peak_mib = peak_resident_mib_of_one_run();
    shrinkage(state, "advancedsmoothing2");
    state.counters["peak_MiB"] = peak_mib;
}

const bool registered =
    add({"advancedsmoothing defaults", [](benchmark::State& s) { shrinkage(s, "advancedsmoothing"); },
         "PyWavelets sym8 4 levels (f32)", pywavelets_peer}) &&
    add({"advancedsmoothing2 defaults", undecimated, "", nullptr});

}  // namespace
}  // namespace krf::bench
