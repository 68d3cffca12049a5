// The subcommands of the krfilter tool, one source file each; the command
// line itself is parsed in krfilter_cli.cpp.
#pragma once

#include <string>
#include <vector>

#include "krfilter/krfilter.h"

namespace krf::tools {

// Exit statuses: 0 success; 1 a file could not be read or written, or a
// filter returned a non-zero code; 2 the command line was wrong.
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// "krfilter: MESSAGE" on standard error; each returns its exit status.
int argument_error(const std::string& message);  // a wrong filter name or parameter: the message says what is valid
int failure(const std::string& message);

// A filter by its exact name, or null and a message naming the closest
// catalogue entries.
const FILTERLIST* lookup(const std::string& name, std::string& problem);

// Whole number in low ... high, the whole text and nothing else.
bool parse_int(const std::string& text, int low, int high, int& value);
// --white: empty means "from the file"; otherwise 1 ... 65535. Returns an
// empty string or the message for the user.
std::string parse_white(const std::string& text, int& white);

int list_filters();                        // list_info_commands.cpp
int show_info(const std::string& name);    // list_info_commands.cpp

struct RunRequest {
    std::string filter;
    std::string input;
    std::string output;
    std::vector<std::string> assignments;
    int white = 0;  // 0: from the file
    bool dry_run = false;
};
int run_command(const RunRequest& request);  // run_command.cpp

struct BatchRequest {
    std::string filter;
    std::string input_folder;
    std::string output_folder;
    std::vector<std::string> assignments;
    int white = 0;  // 0: from each file
    int jobs = 1;
    bool force = false;
};
int run_batch(const BatchRequest& request);  // batch_command.cpp

struct ServeRequest {
    std::string bind = "127.0.0.1";
    int port = 8080;     // 0: any free port
    std::string input;   // the picture the page opens on, instead of the phantom
    int white = 0;       // the input's white level; 0: from the file
    int max_runs = 0;    // heavy requests at a time; 0: one per processor
    int max_waiting = 8; // heavy requests queued beyond those before 503
};
int run_serve(const ServeRequest& request);  // serve_command.cpp

}  // namespace krf::tools
