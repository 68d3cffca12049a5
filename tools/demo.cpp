#include "demo.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "contact_sheet.h"
#include "filter_params.h"
#include "filter_runner.h"
#include "image_io.h"
#include "phantom.h"

namespace krf::tools {

namespace {

// Catalogue defaults that show nothing on the phantom (an identity, a copy)
// or nothing useful, and the value the demo uses instead. `param` counts
// from 0 in catalogue order.
struct DemoValue {
    const char* filter;
    std::size_t param;
    double value;
    const char* reason;
};

constexpr DemoValue kDemoValues[] = {
    {"gamma", 0, 0.6, "Gamma 1 is the identity"},
    {"gammalog", 0, 1000, "1 sends every level below white to black on a 12-bit image"},
    {"sigma", 0, 0.15, "a steepness of 0 divides by zero and leaves a hard threshold"},
    {"mean2D", 0, 7, "a window of 0 is a copy"},
    {"despeckle", 0, 5, "a window of 0 is a copy"},
    {"despeckle", 1, 200, "threshold 0 replaces every sample by the mean; 200 catches only the specks"},
    {"median2D", 0, 5, "oddnum 1 is a copy"},
    {"pseudo-median2D", 0, 5, "dimwnd 1 is a one-sample window"},
    {"bilateral_filter", 0, 0.7, "SpatialSigma 0 is a one-sample window, a copy"},
    {"linear", 1, 0.4, "Bri 0 with Contr 0 is the identity"},
    {"gammalin", 0, 0.6, "Gamma 1 over the full window is the identity"},
    {"SpineCompensation2", 1, 100, "a strength of 0 percent leaves the image unchanged"},
    {"flip", 0, 1, "both flags 0 make a copy"},
    {"advancedsmoothing", 0, 5, "the default thresholds shrink only sub-level noise, invisible on the display"},
    {"advancedsmoothing", 1, 5, "the default thresholds shrink only sub-level noise, invisible on the display"},
    {"advancedsmoothing", 2, 5, "the default thresholds shrink only sub-level noise, invisible on the display"},
    {"advancedsmoothing2", 0, 5, "the default thresholds shrink only sub-level noise, invisible on the display"},
    {"advancedsmoothing2", 1, 5, "the default thresholds shrink only sub-level noise, invisible on the display"},
    {"advancedsmoothing2", 2, 5, "the default thresholds shrink only sub-level noise, invisible on the display"},
    {"RUM", 0, 2, "intensity 31 saturates the phantom's noise"},
    {"RUM", 1, 15, "a mean window of 1 leaves no detail to enhance"},
    {"RUM", 2, 7, "a deviation window of 1 gives zero gain, the identity"},
    {"RUM", 3, 2000, "the gain peaks near the phantom's deviation (65535 scale)"},
    {"testRUM", 1, 7, "a deviation window of 1 gives an all-zero deviation map"},
    {"gaussian", 0, 15, "5 taps at sigma 0.75 barely soften the phantom"},
    {"gaussian", 1, 4, "5 taps at sigma 0.75 barely soften the phantom"},
};

struct Outcome {
    const FILTERLIST* filter = nullptr;
    std::string parameters;
    std::vector<std::string> notes;  // why a demo value replaces a default
    int code = 0;
    bool built = true;
    double milliseconds = 0;
    std::string image_file;    // full-depth result
    std::string display_file;  // 8-bit result for the page
    RgbCanvas thumbnail;
};

std::string html_escape(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
        case '<': escaped += "&lt;"; break;
        case '>': escaped += "&gt;"; break;
        case '&': escaped += "&amp;"; break;
        case '"': escaped += "&quot;"; break;
        default: escaped += c;
        }
    }
    return escaped;
}

// Filter names are file names here; anything unusual becomes '_'.
std::string file_stem(const char* name) {
    std::string stem = name;
    for (char& c : stem) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') c = '_';
    }
    return stem;
}

std::string result_text(const Outcome& o) {
    if (!o.built) return "not built (code -3)";
    if (o.code == 0) return "0";
    return std::to_string(o.code) + ": " + describe_result(o.code, true);
}

void write_page(const std::filesystem::path& folder, const std::string& input_html, const std::vector<Outcome>& outcomes,
                const std::string& failed_writes) {
    std::ostringstream page;
    page << "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>krfilter demo</title>\n"
         << "<style>body{font-family:sans-serif;background:#202020;color:#e8e8e8}"
         << "table{border-collapse:collapse}td,th{border:1px solid #555;padding:6px;vertical-align:top}"
         << "img{width:320px;image-rendering:auto}a{color:#9cf}.fail{color:#f99}small{color:#aaa}</style>\n"
         << "</head><body>\n<h1>krfilter demo</h1>\n"
         << "<p>Input: " << input_html << ". Every filter of this build ran once with its catalogue defaults or the "
         << "demo value noted beside it. Pictures are 8-bit display versions; the links lead to the full-depth "
         << "files. Overview: <a href=\"contact-sheet.png\">contact sheet</a>.</p>\n";
    if (!failed_writes.empty()) page << "<p class=\"fail\">" << html_escape(failed_writes) << "</p>\n";
    page << "<table>\n<tr><th>filter</th><th>parameters</th><th>result code</th><th>input</th><th>output</th></tr>\n";
    std::string not_built;
    for (const Outcome& o : outcomes) {
        if (!o.built) {
            not_built += (not_built.empty() ? "" : ", ") + html_escape(o.filter->name);
            continue;
        }
        page << "<tr><td>" << html_escape(o.filter->name) << "</td><td>" << html_escape(o.parameters);
        for (const std::string& note : o.notes) page << "<br><small>demo value: " << html_escape(note) << "</small>";
        page << "</td><td" << (o.code == 0 ? "" : " class=\"fail\"") << ">" << html_escape(result_text(o))
             << "<br><small>" << static_cast<long long>(o.milliseconds + 0.5) << " ms</small>"
             << "</td><td><a href=\"input.png\"><img src=\"input-display.png\" alt=\"input\"></a></td><td>";
        if (!o.display_file.empty()) {
            page << "<a href=\"" << o.image_file << "\"><img src=\"" << o.display_file << "\" alt=\""
                 << html_escape(o.filter->name) << "\"></a>";
        } else {
            page << "no output";
        }
        page << "</td></tr>\n";
    }
    page << "</table>\n";
    if (!not_built.empty()) {
        page << "<p>Catalogued but not built in this library (they answer code -3): " << not_built << ".</p>\n";
    }
    page << "</body></html>\n";

    const std::filesystem::path final_path = folder / "index.html";
    const std::filesystem::path temp_path = folder / ".index.html.tmp";
    std::ofstream file(temp_path, std::ios::binary);
    file << page.str();
    file.close();
    std::error_code error;
    if (!file) {
        std::filesystem::remove(temp_path, error);
        throw std::runtime_error("cannot write " + final_path.string());
    }
    std::filesystem::rename(temp_path, final_path, error);
    if (error) throw std::runtime_error("cannot write " + final_path.string() + ": " + error.message());
}

}  // namespace

int run_demo(const DemoOptions& options) {
    namespace fs = std::filesystem;
    const fs::path folder = options.folder;
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
        std::fprintf(stderr, "krfilter: cannot create %s: %s\n", options.folder.c_str(), error.message().c_str());
        return 1;
    }
    constexpr int kThumbnail = 160;
    std::string failed_writes;
    auto save = [&](const std::string& file, const std::string& problem) {
        if (problem.empty()) return true;
        std::fprintf(stderr, "krfilter: %s: %s\n", (folder / file).c_str(), problem.c_str());
        failed_writes += "Could not write " + file + ": " + problem + ". ";
        return false;
    };

    GreyImage input;
    std::string input_html, input_title;
    if (options.input.empty()) {
        input.height = input.width = options.size;
        input.bit_depth = 16;
        input.white = options.white_override > 0 ? options.white_override : options.white;
        input.samples.resize(static_cast<std::size_t>(options.size) * options.size);
        synthesize_phantom(input.samples.data(), options.size, options.size, input.white, 1);
        input_title = "phantom " + std::to_string(options.size) + " x " + std::to_string(options.size);
        input_html = "a synthetic radiograph of " + std::to_string(options.size) + " &times; " +
                     std::to_string(options.size) + " samples, white level " + std::to_string(input.white) +
                     " (collimated field, soft tissue, two bones with a joint, signal-dependent noise, impulse "
                     "specks, a faint defective column, a detector row with 20 % less gain)";
    } else {
        if (const std::string problem = read_grey_image(options.input, input); !problem.empty()) {
            std::fprintf(stderr, "krfilter: %s: %s\n", options.input.c_str(), problem.c_str());
            return 1;
        }
        if (options.white_override > 0) input.white = options.white_override;
        const std::string name = std::filesystem::path(options.input).filename().string();
        input_title = name + " " + std::to_string(input.width) + " x " + std::to_string(input.height);
        input_html = html_escape(name) + ", " + std::to_string(input.width) + " &times; " +
                     std::to_string(input.height) + " samples, " + std::to_string(input.bit_depth) +
                     "-bit, white level " + std::to_string(input.white) +
                     (input.notes.empty() ? std::string() : ", " + html_escape(input.notes));
    }
    // The demo's pages show the picture a reader expects: an input in
    // MONOCHROME1 sense is drawn inverted, and so are its results.
    if (!save("input.png", write_grey_image(folder / "input.png", input)) ||
        !save("input-display.png", write_grey_image(folder / "input-display.png", display_version(input)))) {
        return 1;
    }
    std::printf("krfilter demo: %s, white %d, into %s\n", input_title.c_str(), input.white, options.folder.c_str());

    std::vector<SheetTile> tiles{{"input", grey_thumbnail(input, kThumbnail)}};
    std::vector<Outcome> outcomes;
    int ran = 0;
    for (const FILTERLIST* filter : catalogued_filters()) {
        Outcome o;
        o.filter = filter;
        ParameterSet params(*filter);
        for (const DemoValue& v : kDemoValues) {
            if (std::strcmp(v.filter, filter->name) != 0 || v.param >= params.size()) continue;
            params.set(v.param, v.value);
            o.notes.push_back(std::string(params.descriptor(v.param).name) + " " + params.value_text(v.param) +
                              " (" + v.reason + ")");
        }
        // The phantom's defective row moves with its size, so the line to
        // correct cannot be a constant of the table above. A real radiograph
        // has no known defective row: the catalogue default stays.
        if (options.input.empty() &&
            (std::strcmp(filter->name, "supereq") == 0 || std::strcmp(filter->name, "supereq_pre") == 0)) {
            params.set(0, phantom_defective_row(options.size));
            o.notes.push_back(std::string(params.descriptor(0).name) + " " + params.value_text(0) +
                              " (the phantom's defective row; 0 would correct its first row)");
        }
        o.parameters = params.summary();
        FilterRun run = run_filter(*filter, params, input, input.white);
        o.code = run.code;
        o.milliseconds = run.milliseconds;
        // -3 is also what a filter says about an inverted window: ask whether
        // the dispatcher knows the name at all.
        if (run.code == -3) o.built = filter_is_built(*filter);
        if (o.built) ++ran;
        std::printf("  %-20s %s\n", filter->name, result_text(o).c_str());

        const std::string stem = file_stem(filter->name);
        if (o.built && run.code == 0) {
            bool written = false;
            if (result_place(*filter) == ResultPlace::input_rgb) {
                if (run.rgb.empty()) {
                    save(stem + ".png", "the filter left no RGB buffer");
                } else {
                    written = save(stem + ".png", write_rgb_image(folder / (stem + ".png"), input.height,
                                                                  input.width, run.rgb.data()));
                    if (written) o.display_file = o.image_file = stem + ".png";
                    o.thumbnail = rgb_thumbnail(run.rgb.data(), input.height, input.width, kThumbnail);
                }
            } else {
                written = save(stem + ".png", write_grey_image(folder / (stem + ".png"), run.grey)) &&
                          save(stem + "-display.png",
                               write_grey_image(folder / (stem + "-display.png"), display_version(run.grey)));
                if (written) {
                    o.image_file = stem + ".png";
                    o.display_file = stem + "-display.png";
                }
                o.thumbnail = grey_thumbnail(run.grey, kThumbnail);
            }
        }
        if (o.built) {
            tiles.push_back({run.code == 0 ? std::string(filter->name) : std::string(filter->name) + " code " +
                                                                              std::to_string(run.code),
                             o.thumbnail});
        }
        outcomes.push_back(std::move(o));
    }

    const std::string title =
        "krfilter demo: " + std::to_string(ran) + " filters, " + input_title + ", white " + std::to_string(input.white);
    const RgbCanvas sheet = contact_sheet(title, tiles, kThumbnail, 6);
    save("contact-sheet.png",
         write_rgb_image(folder / "contact-sheet.png", sheet.height, sheet.width, sheet.bytes.data()));
    try {
        write_page(folder, input_html, outcomes, failed_writes);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "krfilter: %s\n", e.what());
        return 1;
    }
    std::printf("%d of %zu catalogued filters are built in this library; open %s\n", ran, outcomes.size(),
                (folder / "index.html").c_str());
    return failed_writes.empty() ? 0 : 1;
}

}  // namespace krf::tools
