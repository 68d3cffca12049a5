// `krfilter batch NAME INPUT_DIR OUTPUT_DIR`: one filter over every image of
// a folder, several files at a time. The library is re-entrant, so the tool
// runs files on threads of its own; each output keeps its input's name and
// format and appears complete or not at all.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "filter_params.h"
#include "filter_runner.h"
#include "image_formats.h"
#include "image_io.h"

namespace krf::tools {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Set by the first Ctrl-C (or a termination request): no new file starts,
// files under way finish, so nothing is left half-written. The handler is
// reset by the first signal, so a second Ctrl-C ends the process at once.
std::atomic<bool> interrupted{false};
void on_interrupt(int) { interrupted.store(true); }

enum class Outcome { done, skipped, failed, not_started };

struct Job {
    fs::path input;
    fs::path output;
    FileFormat format = FileFormat::unknown;
    std::string problem;  // set before the run when the entry cannot be used at all
    Outcome outcome = Outcome::not_started;
    double seconds = 0;
};

FileFormat format_of_entry(const fs::path& path) {
    const FileFormat by_name = format_for_output(path.string());
    if (by_name != FileFormat::unknown) return by_name;
    // DICOM archives often keep files without an extension: look inside.
    return format_of_content(path.string());
}

// The folder's entries in name order. Entries that cannot be examined (a
// symbolic link loop, no permission) become failed jobs with their reason;
// subfolders and files that are no image are left out.
std::vector<Job> collect_jobs(const fs::path& input, const fs::path& output, std::string& problem) {
    std::vector<Job> jobs;
    std::error_code error;
    fs::directory_iterator it(input, error), end;
    if (error) {
        problem = "cannot read the folder " + input.string() + ": " + error.message();
        return jobs;
    }
    for (; it != end; it.increment(error)) {
        if (error) {
            problem = "cannot read the folder " + input.string() + ": " + error.message();
            return {};
        }
        const fs::path path = it->path();
        const std::string name = path.filename().string();
        if (name.rfind(formats::kTemporaryPrefix, 0) == 0) continue;
        Job job;
        job.input = path;
        job.output = output / path.filename();
        std::error_code status_error;
        const fs::file_status status = fs::status(path, status_error);
        if (status_error) {
            job.problem = status_error.message();
            jobs.push_back(std::move(job));
            continue;
        }
        if (!fs::is_regular_file(status)) continue;
        job.format = format_of_entry(path);
        if (job.format == FileFormat::unknown) continue;
        jobs.push_back(std::move(job));
    }
    std::sort(jobs.begin(), jobs.end(), [](const Job& a, const Job& b) { return a.input < b.input; });
    return jobs;
}

// An output written by an earlier run: complete (outputs only ever appear
// whole) and not older than its input.
bool already_complete(const Job& job) {
    struct stat in {}, out {};
    if (stat(job.output.c_str(), &out) != 0 || !S_ISREG(out.st_mode)) return false;
    if (stat(job.input.c_str(), &in) != 0) return false;
    return out.st_mtim.tv_sec > in.st_mtim.tv_sec ||
           (out.st_mtim.tv_sec == in.st_mtim.tv_sec && out.st_mtim.tv_nsec >= in.st_mtim.tv_nsec);
}

std::string process(const BatchRequest& request, const FILTERLIST& filter, Job& job) {
    GreyImage input;
    if (std::string problem = read_grey_image(job.input.string(), input); !problem.empty()) return problem;
    ParameterSet params(filter);
    params.assign(request.assignments);  // checked once before any file started
    const int white = request.white > 0 ? request.white : input.white;
    const FilterRun run = run_filter(filter, params, input, white);
    if (run.code != 0) {
        const bool built = run.code != -3 || filter_is_built(filter);
        return std::string(filter.name) + " failed with code " + std::to_string(run.code) + ": " +
               describe_result(run.code, built);
    }
    if (result_place(filter) == ResultPlace::input_rgb)
        return run.rgb.empty() ? "the filter left no RGB buffer"
                               : write_rgb_image(job.output.string(), input.height, input.width, run.rgb.data(),
                                                 job.format);
    return write_grey_image(job.output.string(), run.grey, job.format);
}

std::string clock_text(double seconds) {
    const long s = std::lround(std::max(seconds, 0.0));
    char text[32];
    std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    return text;
}

// One line per file when the output is not a terminal; on a terminal a bar
// with the rate and the time left, redrawn in place, and failures above it.
class Progress {
public:
    Progress(std::size_t total, bool terminal) : total_(total), terminal_(terminal), start_(Clock::now()) {}

    void report(const Job& job, const std::string& problem) {
        const std::lock_guard<std::mutex> lock(mutex_);
        ++finished_;
        const std::string name = job.input.filename().string();
        if (terminal_) {
            if (job.outcome == Outcome::failed) std::fprintf(stderr, "\r\033[KFAILED %s: %s\n", name.c_str(), problem.c_str());
            draw();
        } else if (job.outcome == Outcome::failed) {
            std::printf("FAILED  %s: %s\n", name.c_str(), problem.c_str());
        } else {
            std::printf("%-7s %s (%.0f ms)\n", job.outcome == Outcome::done ? "done" : "skipped", name.c_str(),
                        job.seconds * 1000);
        }
        std::fflush(stdout);
    }
    void finish() {
        if (terminal_) std::fputs("\r\033[K", stderr);
    }
    double elapsed() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }

private:
    void draw() {
        constexpr int kWidth = 30;
        const double seconds = elapsed();
        const double rate = seconds > 0 ? static_cast<double>(finished_) / seconds : 0;
        const double left = rate > 0 ? static_cast<double>(total_ - finished_) / rate : 0;
        const int filled = total_ == 0 ? kWidth : static_cast<int>(kWidth * finished_ / total_);
        std::fprintf(stderr, "\r\033[K[%s%s] %zu/%zu  %.1f files/s  %s left", std::string(filled, '#').c_str(),
                     std::string(kWidth - filled, '.').c_str(), finished_, total_, rate, clock_text(left).c_str());
        std::fflush(stderr);
    }

    std::mutex mutex_;
    std::size_t total_;
    std::size_t finished_ = 0;
    bool terminal_;
    Clock::time_point start_;
};

// Temporaries left by a run that was killed outright (a second Ctrl-C, a
// power cut): the folder is this batch's output, so they are removed.
void remove_stale_temporaries(const fs::path& folder) {
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        if (it->path().filename().string().rfind(formats::kTemporaryPrefix, 0) == 0) {
            std::error_code ignored;
            fs::remove(it->path(), ignored);
        }
    }
}

}  // namespace

int run_batch(const BatchRequest& request) {
    std::string problem;
    const FILTERLIST* filter = lookup(request.filter, problem);
    if (filter == nullptr) return argument_error(problem);
    {
        ParameterSet params(*filter);
        if (problem = params.assign(request.assignments); !problem.empty()) return argument_error(problem);
    }
    if (request.jobs < 1) return argument_error("--jobs takes a whole number from 1 up");

    const fs::path input = request.input_folder, output = request.output_folder;
    std::error_code error;
    if (!fs::is_directory(input, error)) return failure(request.input_folder + " is not a folder");
    fs::create_directories(output, error);
    if (error || !fs::is_directory(output)) return failure("cannot create the folder " + request.output_folder);
    if (fs::equivalent(input, output, error)) return argument_error("the output folder must differ from the input folder");
    if (access(output.c_str(), W_OK | X_OK) != 0) return failure("cannot write into the folder " + request.output_folder);
    remove_stale_temporaries(output);

    std::vector<Job> jobs = collect_jobs(input, output, problem);
    if (!problem.empty()) return failure(problem);

    struct sigaction action {};
    action.sa_handler = on_interrupt;
    action.sa_flags = SA_RESETHAND;
    struct sigaction old_int {}, old_term {};
    sigaction(SIGINT, &action, &old_int);
    sigaction(SIGTERM, &action, &old_term);

    Progress progress(jobs.size(), isatty(STDERR_FILENO) == 1);
    std::vector<std::string> problems(jobs.size());
    std::atomic<std::size_t> next{0};
    auto worker = [&] {
        for (std::size_t i = next++; i < jobs.size() && !interrupted.load(); i = next++) {
            Job& job = jobs[i];
            const auto start = Clock::now();
            if (!job.problem.empty()) {
                problems[i] = job.problem;
                job.outcome = Outcome::failed;
            } else if (!request.force && already_complete(job)) {
                job.outcome = Outcome::skipped;
            } else {
                try {
                    problems[i] = process(request, *filter, job);
                } catch (const std::exception& e) {  // out of memory for one file must not end the others
                    problems[i] = e.what();
                }
                job.outcome = problems[i].empty() ? Outcome::done : Outcome::failed;
            }
            job.seconds = std::chrono::duration<double>(Clock::now() - start).count();
            progress.report(job, problems[i]);
        }
    };
    const std::size_t threads = std::min<std::size_t>(static_cast<std::size_t>(request.jobs), std::max<std::size_t>(jobs.size(), 1));
    std::vector<std::thread> pool;
    for (std::size_t t = 1; t < threads; ++t) pool.emplace_back(worker);
    worker();
    for (std::thread& t : pool) t.join();
    progress.finish();
    sigaction(SIGINT, &old_int, nullptr);
    sigaction(SIGTERM, &old_term, nullptr);

    std::size_t done = 0, skipped = 0, failed = 0, not_started = 0;
    for (const Job& job : jobs) {
        done += job.outcome == Outcome::done;
        skipped += job.outcome == Outcome::skipped;
        failed += job.outcome == Outcome::failed;
        not_started += job.outcome == Outcome::not_started;
    }
    std::printf("batch %s: %zu done, %zu skipped (already complete), %zu failed", filter->name, done, skipped, failed);
    if (not_started > 0) std::printf(", %zu not started (interrupted)", not_started);
    std::printf(" in %.1f s\n", progress.elapsed());
    for (std::size_t i = 0; i < jobs.size(); ++i)
        if (jobs[i].outcome == Outcome::failed)
            std::printf("  failed: %s: %s\n", jobs[i].input.filename().c_str(), problems[i].c_str());
    if (interrupted.load()) return 130;
    return failed > 0 ? kFailed : 0;
}

}  // namespace krf::tools
