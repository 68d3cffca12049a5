// krfilter: the library's catalogue and filters from the command line.
//
// Exit status: 0 success; 1 a file could not be read or written, or the
// filter returned a non-zero code; 2 the command line was wrong.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "demo.h"

namespace {

using namespace krf::tools;

const char* const kDescription =
    "krfilter: the filter library's catalogue and filters on PNG, TIFF and DICOM files.\n"
    "Values are parsed strictly by the catalogue type; parameters not given keep their catalogue\n"
    "defaults; #N=VALUE sets the N-th parameter. Exit status: 0 success, 1 a file problem or a\n"
    "non-zero filter code, 2 a wrong command line.";

struct CommandLine {
    std::string command;  // the subcommand that was given
    std::string name;
    std::vector<std::string> positional;  // run, batch: INPUT OUTPUT PARAM=VALUE ...; demo: DIR
    std::string white;
    bool dry_run = false;
    bool force = false;
    int jobs = 0;
    int size = 1024;
    std::string input;
    std::string bind = "127.0.0.1";
    int port = 8080;
    int max_runs = 0;
    int max_waiting = 8;
};

int usage_error(const CLI::App& app, const std::string& message) {
    std::fprintf(stderr, "krfilter: %s\n%s", message.c_str(), app.help().c_str());
    return kUsage;
}

// Each subcommand's words in our own terms; CLI11 gives --help everywhere and
// the option syntax (--white N, --white=N), the checks below give the same
// messages as the tool always did.
int run_parsed(const CommandLine& cl, const CLI::App& app) {
    const CLI::App* sub = app.get_subcommand(cl.command);
    if (cl.command == "list") return list_filters();
    if (cl.command == "info") return show_info(cl.name);
    int white = 0;
    if (const std::string problem = parse_white(cl.white, white); !problem.empty()) return argument_error(problem);
    if (cl.command == "run") {
        if (cl.name.empty() || cl.positional.size() < 2) return usage_error(*sub, "run needs NAME INPUT OUTPUT");
        RunRequest request{cl.name, cl.positional[0], cl.positional[1], {}, white, cl.dry_run};
        request.assignments.assign(cl.positional.begin() + 2, cl.positional.end());
        return run_command(request);
    }
    if (cl.command == "batch") {
        if (cl.name.empty() || cl.positional.size() < 2)
            return usage_error(*sub, "batch needs NAME INPUT_DIR OUTPUT_DIR");
        const int jobs = cl.jobs > 0 ? cl.jobs : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
        BatchRequest request{cl.name, cl.positional[0], cl.positional[1], {}, white, jobs, cl.force};
        request.assignments.assign(cl.positional.begin() + 2, cl.positional.end());
        if (cl.jobs < 0) return argument_error("--jobs takes a whole number from 1 up");
        return run_batch(request);
    }
    if (cl.command == "serve") {
        if (cl.port < 0 || cl.port > 65535) return usage_error(*sub, "--port takes a whole number from 0 to 65535");
        if (cl.max_runs < 0 || cl.max_waiting < 0) return usage_error(*sub, "--max-runs and --max-waiting take 0 or more");
        return run_serve(ServeRequest{cl.bind, cl.port, cl.input, white, cl.max_runs, cl.max_waiting});
    }
    // demo
    if (cl.positional.size() > 1) return usage_error(*sub, "demo takes one folder");
    DemoOptions options;
    if (!cl.positional.empty()) options.folder = cl.positional[0];
    if (cl.size < 16 || cl.size > 8192) return usage_error(*sub, "--size takes a whole number from 16 to 8192");
    options.size = cl.size;
    options.input = cl.input;
    options.white_override = white;
    return run_demo(options);
}

int parse_and_run(int argc, char** argv) {
    CommandLine cl;
    CLI::App app(kDescription, "krfilter");
    app.require_subcommand(0, 1);
    app.fallthrough(false);

    CLI::App* list = app.add_subcommand("list", "the filter catalogue, and which filters this build of the library runs");
    CLI::App* info = app.add_subcommand("info", "one filter's parameters: types, ranges, defaults, how to set them");
    info->add_option("NAME", cl.name, "filter name, exact and case-sensitive")->required();

    CLI::App* run = app.add_subcommand(
        "run", "reads an 8- or 16-bit greyscale PNG, TIFF or DICOM file, runs the filter and writes OUTPUT\n"
               "(.png, .tif, .tiff or .dcm) with the input's bit depth");
    run->add_option("NAME", cl.name, "filter name");
    run->add_option("INPUT OUTPUT PARAM=VALUE", cl.positional, "input file, output file, then parameter values");
    run->add_option("--white", cl.white, "white level (default: PNG sBIT, TIFF MaxSampleValue, DICOM BitsStored, or the bit depth)");
    run->add_flag("--dry-run", cl.dry_run, "check the command and the input, print what would run, write nothing");

    CLI::App* batch = app.add_subcommand(
        "batch", "runs the filter over every PNG, TIFF and DICOM file of INPUT_DIR into OUTPUT_DIR, keeping each\n"
                 "file's name and format; outputs already complete are skipped");
    batch->add_option("NAME", cl.name, "filter name");
    batch->add_option("INPUT_DIR OUTPUT_DIR PARAM=VALUE", cl.positional, "folders, then parameter values");
    batch->add_option("--white", cl.white, "white level for every file (default: each file's own)");
    batch->add_option("--jobs,-j", cl.jobs, "files processed at a time (default: the number of processors)");
    batch->add_flag("--force", cl.force, "process files whose output is already complete, too");

    CLI::App* demo = app.add_subcommand(
        "demo", "runs every filter of this build on a radiograph (a synthetic one, or --input FILE) and writes\n"
                "pictures, a contact sheet and index.html into DIR (default ./demo-out)");
    demo->add_option("DIR", cl.positional, "output folder");
    demo->add_option("--size", cl.size, "side of the synthetic radiograph, 16 to 8192 (default 1024)");
    demo->add_option("--input", cl.input, "a PNG, TIFF or DICOM radiograph to use instead of the synthetic one");
    demo->add_option("--white", cl.white, "white level of the input (default: the file's own, 4095 for the synthetic one)");

    CLI::App* serve = app.add_subcommand(
        "serve", "a local web page that builds each filter's dialog from the catalogue and runs it on an image:\n"
                 "a synthetic radiograph, --input FILE, or one uploaded in the page (prints the address it serves on)");
    serve->add_option("--port", cl.port, "TCP port, 0 for any free one (default 8080)");
    serve->add_option("--bind", cl.bind, "address to listen on (default 127.0.0.1: this machine only)");
    serve->add_option("--input", cl.input, "a PNG, TIFF or DICOM radiograph the page opens on");
    serve->add_option("--white", cl.white, "white level of the input (default: the file's own)");
    // Tests shrink the pool to provoke a full queue; not meant for users.
    serve->add_option("--max-runs", cl.max_runs)->group("");
    serve->add_option("--max-waiting", cl.max_waiting)->group("");

    // Unknown words are collected instead of refused by CLI11, so that the
    // messages below can name them as the tool always did.
    app.allow_extras();
    for (CLI::App* sub : {list, info, run, batch, demo, serve}) sub->allow_extras();

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        for (CLI::App* sub : {list, info, run, batch, demo, serve})
            if (sub->parsed()) return usage_error(*sub, e.what());
        return usage_error(app, e.what());
    }
    if (!app.remaining().empty() && app.get_subcommands().empty())
        return usage_error(app, "unknown command \"" + app.remaining().front() + "\"");
    if (app.get_subcommands().empty()) return usage_error(app, "no command given");
    const CLI::App* sub = app.get_subcommands().front();
    cl.command = sub->get_name();
    if (!sub->remaining().empty()) {
        const std::string word = sub->remaining().front();
        if (sub == list) return usage_error(*list, "list takes no arguments");
        if (sub == serve) return usage_error(*serve, "serve takes no arguments besides its options");
        return usage_error(*sub, word.rfind("-", 0) == 0 ? "unknown option " + word : "unexpected \"" + word + "\"");
    }
    return run_parsed(cl, app);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return parse_and_run(argc, argv);
    } catch (const std::bad_alloc&) {
        return failure("out of memory");
    } catch (const std::exception& e) {
        return failure(e.what());
    }
}
