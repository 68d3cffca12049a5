// `krfilter serve`: a local web page whose parameter dialogs are built from
// the catalogue, as a host application builds its own, with a small JSON
// interface behind it for the page and for scripts.
#include <httplib.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <new>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "commands.h"
#include "filter_params.h"
#include "filter_runner.h"
#include "image_io.h"
#include "phantom.h"
#include "serve_state.h"
#include "web_assets.h"

namespace krf::tools {

namespace {

using nlohmann::json;

constexpr std::uint64_t kUploadBytes = std::uint64_t{256} << 20;  // stated on the page and in the README
constexpr int kLargestSide = 16384;
constexpr std::size_t kKeptImages = 16;
// Samples of the kept images, beyond which the least recently used go even
// before there are 16 of them: two images at the largest size.
constexpr std::uint64_t kKeptBytes = std::uint64_t{1} << 30;
constexpr int kPhantomSide = 1024;
constexpr int kPhantomWhite = 4095;

// The page groups the dialogs as the library's documentation groups the
// filters. A filter the table does not know is listed under "other", so a
// new catalogue entry still gets its dialog.
struct FamilyEntry {
    const char* filter;
    const char* family;
};
constexpr const char* kTone = "Tone curves, histograms and display";
constexpr const char* kNeighbourhood = "Neighbourhood filters";
constexpr const char* kMultiScale = "Multi-scale enhancement";
constexpr const char* kCorrections = "Regional corrections";
constexpr FamilyEntry kFamilies[] = {
    {"gamma", kTone},           {"gammalog", kTone},          {"gammaporion", kTone},
    {"sigma", kTone},           {"equalize", kTone},          {"reverse", kTone},
    {"colorize", kTone},        {"linear", kTone},            {"gammalin", kTone},
    {"IsoDensity", kTone},      {"LL-UL", kTone},             {"ShannonStretching", kTone},
    {"ECE", kTone},             {"ECE2", kTone},              {"flip", kTone},
    {"mean2D", kNeighbourhood}, {"despeckle", kNeighbourhood}, {"median2D", kNeighbourhood},
    {"pseudo-median2D", kNeighbourhood}, {"SMF", kNeighbourhood}, {"ADF", kNeighbourhood},
    {"bilateral_filter", kNeighbourhood}, {"unsharp", kNeighbourhood}, {"emboss", kNeighbourhood},
    {"supereq", kNeighbourhood}, {"supereq_pre", kNeighbourhood},
    {"gaussian", kMultiScale},  {"advancedsmoothing", kMultiScale}, {"advancedsmoothing2", kMultiScale},
    {"RUM", kMultiScale},       {"testRUM", kMultiScale},
    {"rain", kCorrections},     {"SpineCompensation", kCorrections}, {"SpineCompensation2", kCorrections},
    {"SpineCompensation3", kCorrections}, {"ContrastCorrection", kCorrections},
};

const char* family_of(const char* name) {
    for (const FamilyEntry& entry : kFamilies) {
        if (std::strcmp(entry.filter, name) == 0) return entry.family;
    }
    return "Other";
}

class HttpError : public std::runtime_error {
public:
    HttpError(int status, const std::string& message) : std::runtime_error(message), status(status) {}
    int status;
};

void send_json(httplib::Response& res, const json& body, int status = 200) {
    res.status = status;
    res.set_header("Cache-Control", "no-store");
    // Messages may quote what the client sent (an upload's name), which
    // need not be valid UTF-8: such bytes are replaced, never a failure.
    res.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

void send_error(httplib::Response& res, int status, const std::string& message) {
    send_json(res, json{{"error", message}}, status);
}

void send_png(httplib::Response& res, std::string bytes) {
    res.set_header("Cache-Control", "no-store");
    res.set_content(std::move(bytes), "image/png");
}

json image_json(const StoredImage& image) {
    json info{{"id", image.id},
              {"name", image.name},
              {"origin", image.origin},
              {"width", image.grey.width},
              {"height", image.grey.height},
              {"white", image.grey.white},
              {"bit_depth", image.grey.bit_depth},
              {"colour", !image.rgb.empty()},
              {"lowest", image.lowest},
              {"highest", image.highest},
              {"notes", image.grey.notes},
              {"monochrome1", image.grey.photometric == Photometric::monochrome1}};
    if (!image.derived_from.empty()) info["derived_from"] = image.derived_from;
    return info;
}

// A name the page may offer as a download: letters, digits, '-', '_' and '.'.
std::string safe_file_name(const std::string& name) {
    std::string safe;
    for (const char c : name) {
        safe += std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.' ? c : '_';
    }
    return safe.empty() ? "image" : safe.substr(0, 120);
}

std::string stem_of(const std::string& name) {
    const std::size_t dot = name.rfind('.');
    return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

bool parse_query_number(const httplib::Request& req, const char* key, double low, double high, double& value) {
    if (!req.has_param(key)) return true;
    const std::string text = req.get_param_value(key);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} && end == text.data() + text.size() && value >= low && value <= high;
}

class Server {
public:
    Server(const ServeRequest& request, std::shared_ptr<StoredImage> opening)
        : gate_(request.max_runs > 0 ? request.max_runs : static_cast<int>(std::max(1u, std::thread::hardware_concurrency())),
                request.max_waiting),
          store_(kKeptImages, kKeptBytes) {
        auto phantom = std::make_shared<StoredImage>();
        phantom->name = "phantom";
        phantom->origin = "phantom";
        phantom->grey.height = phantom->grey.width = kPhantomSide;
        phantom->grey.white = kPhantomWhite;
        phantom->grey.samples.resize(static_cast<std::size_t>(kPhantomSide) * kPhantomSide);
        synthesize_phantom(phantom->grey.samples.data(), kPhantomSide, kPhantomSide, kPhantomWhite);
        measure_range(*phantom);
        phantom_ = store_.add(std::move(phantom), true);
        opening_ = opening ? store_.add(std::move(opening), true) : phantom_;
        catalogue_ = describe_catalogue();
        route();
    }

    httplib::Server& http() { return http_; }
    const ScratchFolder& scratch() const { return scratch_; }

private:
    // Every filter with its parameters as the catalogue states them, and
    // whether this build runs it: asked once, since trying a filter costs a
    // run and the answer cannot change while the process lives.
    json describe_catalogue() {
        json filters = json::array();
        const std::vector<const FILTERLIST*> catalogue = catalogued_filters();
        for (std::size_t i = 0; i < catalogue.size(); ++i) {
            const ParameterSet params(*catalogue[i]);
            json described = json::array();
            for (std::size_t k = 0; k < params.size(); ++k) {
                const FILTERPARAM& p = params.descriptor(k);
                // Texts as well as numbers: a float default such as 0.2 is
                // stored widened, and the dialog should show "0.2".
                described.push_back(json{{"index", k},
                                         {"name", p.name},
                                         {"type", type_name(p.type)},
                                         {"min", format_number(p.min)},
                                         {"max", format_number(p.max)},
                                         {"default", params.value_text(k)}});
            }
            filters.push_back(json{{"index", i},
                                   {"name", catalogue[i]->name},
                                   {"family", family_of(catalogue[i]->name)},
                                   {"built", filter_is_built(*catalogue[i])},
                                   {"params", described}});
            filters_.push_back(catalogue[i]);
        }
        return filters;
    }

    void route() {
        http_.Get("/", [this](const httplib::Request&, httplib::Response& res) { send_asset(res, "/index.html"); });
        http_.Get(R"(/(index\.html|app\.js|style\.css))", [this](const httplib::Request& req, httplib::Response& res) {
            send_asset(res, req.path);
        });
        http_.Get("/api/catalogue", [this](const httplib::Request&, httplib::Response& res) {
            send_json(res, json{{"filters", catalogue_},
                                {"families", {kTone, kNeighbourhood, kMultiScale, kCorrections, "Other"}},
                                {"limits", {{"upload_bytes", kUploadBytes}, {"side", kLargestSide}}},
                                {"phantom", image_json(*phantom_)},
                                {"opening", image_json(*opening_)}});
        });
        http_.Get("/api/status", [this](const httplib::Request&, httplib::Response& res) {
            send_json(res, json{{"running", gate_.running()},
                                {"waiting", gate_.waiting()},
                                {"slots", gate_.slots()},
                                {"waiting_places", gate_.waiting_places()},
                                {"images", store_.count()}});
        });
        http_.Post("/api/images", [this](const httplib::Request& req, httplib::Response& res,
                                         const httplib::ContentReader& reader) { upload(req, res, reader); });
        http_.Get(R"(/api/images/([0-9a-f]+))", [this](const httplib::Request& req, httplib::Response& res) {
            send_json(res, image_json(*image(req.matches[1])));
        });
        http_.Get(R"(/api/images/([0-9a-f]+)/preview\.png)",
                  [this](const httplib::Request& req, httplib::Response& res) { preview(req, res); });
        http_.Get(R"(/api/images/([0-9a-f]+)/difference\.png)",
                  [this](const httplib::Request& req, httplib::Response& res) { difference(req, res); });
        http_.Get(R"(/api/images/([0-9a-f]+)/file\.png)",
                  [this](const httplib::Request& req, httplib::Response& res) { download(req, res); });
        http_.Post("/api/run", [this](const httplib::Request& req, httplib::Response& res) { run(req, res); });

        http_.set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr error) {
            try {
                std::rethrow_exception(error);
            } catch (const HttpError& e) {
                send_error(res, e.status, e.what());
            } catch (const std::bad_alloc&) {
                send_error(res, 500, "out of memory");
            } catch (const std::exception& e) {
                send_error(res, 500, e.what());
            } catch (...) {
                send_error(res, 500, "unexpected failure");
            }
        });
        // Answers the library gives without a handler (no route, a body over
        // the limit) get a message too, in the same form as the others.
        http_.set_error_handler(httplib::Server::HandlerWithResponse([](const httplib::Request&, httplib::Response& res) {
            if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
            if (res.status == 413) send_error(res, 413, upload_limit_text());
            else if (res.status == 404) send_error(res, 404, "no such page");
            else send_error(res, res.status, "the request was not understood");
            return httplib::Server::HandlerResponse::Handled;
        }));
        http_.set_payload_max_length(kUploadBytes);
        // A connection holds a thread of the pool while it is kept alive:
        // idle browser connections must not starve the next request.
        http_.set_keep_alive_timeout(2);
        const std::size_t threads = static_cast<std::size_t>(gate_.slots() + gate_.waiting_places()) + 8;
        http_.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    }

    static std::string upload_limit_text() {
        return "the upload limit is " + std::to_string(kUploadBytes >> 20) + " MiB and " + std::to_string(kLargestSide) +
               " x " + std::to_string(kLargestSide) + " samples";
    }

    void send_asset(httplib::Response& res, const std::string& path) {
        for (std::size_t k = 0; k < kWebAssetCount; ++k) {
            if (path != kWebAssets[k].path) continue;
            const char* type = path.ends_with(".js")    ? "text/javascript; charset=utf-8"
                               : path.ends_with(".css") ? "text/css; charset=utf-8"
                                                        : "text/html; charset=utf-8";
            res.set_header("Cache-Control", "no-store");
            res.set_content(reinterpret_cast<const char*>(kWebAssets[k].data), kWebAssets[k].size, type);
            return;
        }
        send_error(res, 404, "no such page");
    }

    std::shared_ptr<const StoredImage> image(const std::string& id) {
        std::shared_ptr<const StoredImage> found = store_.find(id);
        if (!found) {
            throw HttpError(404, "no image " + id + " is kept (only the " + std::to_string(kKeptImages) +
                                     " most recently used are); upload it again");
        }
        return found;
    }

    void admit(GatePass& pass) {
        if (!pass.admitted()) throw HttpError(503, "the server is busy with other images; try again shortly");
    }

    void upload(const httplib::Request& req, httplib::Response& res, const httplib::ContentReader& reader) {
        if (req.has_header("Content-Length") &&
            req.get_header_value<std::uint64_t>("Content-Length") > kUploadBytes) {
            res.set_header("Connection", "close");
            throw HttpError(413, upload_limit_text());
        }
        if (req.is_multipart_form_data()) throw HttpError(400, "send the file's bytes as the request body, not a form");
        std::string name = req.has_param("name") ? req.get_param_value("name") : std::string("upload");
        GatePass pass(gate_);
        if (!pass.admitted()) res.set_header("Connection", "close");  // the body is left unread
        admit(pass);

        // The readers take a file name, so the upload goes to the scratch
        // folder first and is removed as soon as it is decoded.
        struct Removed {
            std::filesystem::path path;
            ~Removed() {
                std::error_code ignored;
                std::filesystem::remove(path, ignored);
            }
        } file{scratch_.fresh_name(".upload")};
        std::uint64_t received = 0;
        bool too_large = false;
        {
            std::ofstream out(file.path, std::ios::binary);
            const bool complete = reader([&](const char* data, std::size_t length) {
                received += length;
                if (received > kUploadBytes) {
                    too_large = true;
                    return false;
                }
                out.write(data, static_cast<std::streamsize>(length));
                return static_cast<bool>(out);
            });
            if (too_large || res.status == 413) throw HttpError(413, upload_limit_text());
            if (!complete) throw HttpError(400, "the upload was cut short");
            out.close();
            if (!out) throw HttpError(500, "cannot store the upload in the temporary folder");
        }
        if (received == 0) throw HttpError(400, "the upload is empty");

        auto stored = std::make_shared<StoredImage>();
        if (const std::string problem = read_grey_image(file.path.string(), stored->grey); !problem.empty()) {
            // The readers refuse sizes beyond their own limit (the same area
            // as ours) before allocating anything; that is a size limit too.
            const bool size = problem.starts_with("unsupported image size") && problem.ends_with("(too large)");
            throw HttpError(size ? 413 : 400, name + ": " + problem);
        }
        if (stored->grey.width > kLargestSide || stored->grey.height > kLargestSide) {
            throw HttpError(413, name + " is " + std::to_string(stored->grey.width) + " x " +
                                     std::to_string(stored->grey.height) + "; " + upload_limit_text());
        }
        stored->name = name;
        stored->origin = "upload";
        measure_range(*stored);
        send_json(res, image_json(*store_.add(std::move(stored))));
    }

    void preview(const httplib::Request& req, httplib::Response& res) {
        const std::shared_ptr<const StoredImage> shown = image(req.matches[1]);
        double window = shown->grey.white, level = shown->grey.white / 2.0;
        if (!parse_query_number(req, "window", 1, 65536, window) || !parse_query_number(req, "level", 0, 65535, level))
            throw HttpError(400, "window takes a number from 1 to 65536 and level one from 0 to 65535");
        GatePass pass(gate_);
        admit(pass);
        std::string problem, bytes;
        if (!shown->rgb.empty()) {
            int height = 0, width = 0;
            const std::vector<unsigned char> rgb = rgb_preview(*shown, height, width);
            bytes = encode_rgb_png(scratch_, height, width, rgb.data(), problem);
        } else {
            bytes = encode_png(scratch_, windowed_preview(shown->grey, window, level), problem);
        }
        if (!problem.empty()) throw HttpError(500, problem);
        send_png(res, std::move(bytes));
    }

    void difference(const httplib::Request& req, httplib::Response& res) {
        const std::shared_ptr<const StoredImage> after = image(req.matches[1]);
        if (!req.has_param("against")) throw HttpError(400, "say which image to compare with: ?against=ID");
        const std::shared_ptr<const StoredImage> before = image(req.get_param_value("against"));
        if (after->grey.height != before->grey.height || after->grey.width != before->grey.width)
            throw HttpError(400, "the two images differ in size");
        if (!after->rgb.empty() || !before->rgb.empty())
            throw HttpError(400, "a colour rendering has no grey difference");
        GatePass pass(gate_);
        admit(pass);
        std::string problem;
        std::string bytes = encode_png(scratch_, difference_preview(after->grey, before->grey), problem);
        if (!problem.empty()) throw HttpError(500, problem);
        send_png(res, std::move(bytes));
    }

    void download(const httplib::Request& req, httplib::Response& res) {
        const std::shared_ptr<const StoredImage> wanted = image(req.matches[1]);
        GatePass pass(gate_);
        admit(pass);
        std::string problem;
        std::string bytes = wanted->rgb.empty()
                                ? encode_png(scratch_, wanted->grey, problem)
                                : encode_rgb_png(scratch_, wanted->grey.height, wanted->grey.width,
                                                 wanted->rgb.data(), problem);
        if (!problem.empty()) throw HttpError(500, problem);
        res.set_header("Content-Disposition",
                       "attachment; filename=\"" + safe_file_name(stem_of(wanted->name)) + ".png\"");
        send_png(res, std::move(bytes));
    }

    // {"image": ID, "filter": catalogue index, "values": [one per parameter:
    // text as typed, a number, or null for the default], "white": optional}.
    // Filters go by index because names alone are ambiguous for parameters
    // ("Sigma" twice) and easy to mistype ("Intensity " ends in a blank).
    void run(const httplib::Request& req, httplib::Response& res) {
        json body;
        try {
            body = json::parse(req.body);
        } catch (const json::exception&) {
            throw HttpError(400, "the request body is not JSON");
        }
        if (!body.is_object() || !body.contains("image") || !body["image"].is_string() || !body.contains("filter") ||
            !body["filter"].is_number_integer())
            throw HttpError(400, "expected {\"image\": ID, \"filter\": INDEX, \"values\": [...]}");
        const auto index = body["filter"].get<std::int64_t>();
        if (index < 0 || static_cast<std::uint64_t>(index) >= filters_.size())
            throw HttpError(404, "no filter number " + std::to_string(index) + " in the catalogue (0 to " +
                                     std::to_string(filters_.size() - 1) + ")");
        const FILTERLIST& filter = *filters_[static_cast<std::size_t>(index)];
        const std::shared_ptr<const StoredImage> input = image(body["image"].get<std::string>());
        if (!input->rgb.empty()) throw HttpError(400, "a colour rendering cannot be filtered; choose a grey image");

        ParameterSet params(filter);
        std::vector<std::string> assignments;
        const json values = body.value("values", json::array());
        if (!values.is_array() || values.size() > params.size())
            throw HttpError(400, std::string(filter.name) + " takes " + std::to_string(params.size()) +
                                     " values at most, as a list in catalogue order");
        for (std::size_t k = 0; k < values.size(); ++k) {
            const json& value = values[k];
            if (value.is_null()) continue;
            if (!value.is_string() && !value.is_number())
                throw HttpError(400, "value " + std::to_string(k + 1) + " is neither text nor a number");
            // The same strict rules as the command line, by position.
            assignments.push_back("#" + std::to_string(k + 1) + "=" +
                                  (value.is_string() ? value.get<std::string>() : value.dump()));
        }
        if (const std::string problem = params.assign(assignments); !problem.empty()) throw HttpError(400, problem);
        int white = input->grey.white;
        if (body.contains("white") && !body["white"].is_null()) {
            if (!body["white"].is_number_integer() || body["white"].get<std::int64_t>() < 1 ||
                body["white"].get<std::int64_t>() > 65535)
                throw HttpError(400, "white takes a whole number from 1 to 65535");
            white = body["white"].get<int>();
        }

        GatePass pass(gate_);
        admit(pass);
        FilterRun result = run_filter(filter, params, input->grey, white);
        const bool built = result.code != -3 || catalogue_[static_cast<std::size_t>(index)]["built"].get<bool>();
        json answer{{"filter", filter.name},
                    {"code", result.code},
                    {"code_text", describe_result(result.code, built)},
                    {"parameters", params.summary()},
                    {"white", white},
                    {"milliseconds", result.milliseconds},
                    {"input", input->id}};
        if (result.code == 0) {
            auto output = std::make_shared<StoredImage>();
            output->name = stem_of(input->name) + "-" + filter.name;
            output->origin = "result";
            output->derived_from = input->id;
            output->grey = std::move(result.grey);
            output->rgb = std::move(result.rgb);
            measure_range(*output);
            if (output->rgb.empty()) {
                const Difference change = compare(output->grey, input->grey);
                answer["changed_samples"] = change.changed;
                answer["largest_change"] = change.largest;
            }
            answer["result"] = image_json(*store_.add(std::move(output)));
        }
        send_json(res, answer);
    }

    WorkGate gate_;
    ImageStore store_;
    ScratchFolder scratch_;
    httplib::Server http_;
    std::shared_ptr<const StoredImage> phantom_;
    std::shared_ptr<const StoredImage> opening_;
    std::vector<const FILTERLIST*> filters_;
    json catalogue_;
};

}  // namespace

int run_serve(const ServeRequest& request) {
    std::shared_ptr<StoredImage> opening;
    if (!request.input.empty()) {
        opening = std::make_shared<StoredImage>();
        if (const std::string problem = read_grey_image(request.input, opening->grey); !problem.empty())
            return failure(request.input + ": " + problem);
        if (request.white > 0) opening->grey.white = request.white;
        opening->name = std::filesystem::path(request.input).filename().string();
        opening->origin = "upload";
        measure_range(*opening);
    }

    // SIGINT and SIGTERM are taken by one thread, which stops the server;
    // every other thread (the pool is started below) inherits the mask, so
    // no signal interrupts a filter. The scratch folder goes with the server.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    // A browser that closes a connection mid-answer must not end the process.
    signal(SIGPIPE, SIG_IGN);

    Server server(request, std::move(opening));
    httplib::Server& http = server.http();
    int port = request.port;
    if (port == 0) {
        port = http.bind_to_any_port(request.bind);
        if (port < 0) return failure("cannot listen on " + request.bind);
    } else if (!http.bind_to_port(request.bind, port)) {
        return failure("cannot listen on " + request.bind + " port " + std::to_string(port));
    }
    const std::string host = request.bind.find(':') != std::string::npos ? "[" + request.bind + "]" : request.bind;
    std::fprintf(stderr, "krfilter serve: temporary files in %s; Ctrl-C stops\n", server.scratch().path().c_str());
    std::printf("serving on http://%s:%d/\n", host.c_str(), port);
    std::fflush(stdout);

    std::atomic<bool> stopping{false};
    std::thread stopper([&] {
        int received = 0;
        sigwait(&stop_signals, &received);
        stopping = true;
        http.stop();
    });
    const bool listened = http.listen_after_bind();
    // The listener may end on its own (a socket failure): wake the stopper.
    if (!stopping) pthread_kill(stopper.native_handle(), SIGTERM);
    stopper.join();
    std::fprintf(stderr, "krfilter serve: stopped\n");
    return listened ? 0 : kFailed;
}

}  // namespace krf::tools
