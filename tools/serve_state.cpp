#include "serve_state.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>

namespace krf::tools {

void measure_range(StoredImage& image) {
    const auto [low, high] = std::minmax_element(image.grey.samples.begin(), image.grey.samples.end());
    image.lowest = low == image.grey.samples.end() ? 0 : *low;
    image.highest = high == image.grey.samples.end() ? 0 : *high;
}

namespace {

std::uint64_t bytes_of(const StoredImage& image) {
    return image.grey.samples.size() * sizeof(std::uint16_t) + image.rgb.size();
}

}  // namespace

ImageStore::ImageStore(std::size_t capacity, std::uint64_t byte_budget)
    : capacity_(std::max<std::size_t>(capacity, 1)), byte_budget_(byte_budget), id_salt_(std::random_device{}()) {}

std::shared_ptr<const StoredImage> ImageStore::add(std::shared_ptr<StoredImage> image, bool pinned) {
    const std::lock_guard lock(mutex_);
    // Ids are not secrets (the server answers only its own machine by
    // default); the salt keeps ids of an earlier run from naming images of
    // this one in a page left open across a restart.
    char id[32];
    std::snprintf(id, sizeof id, "%08x%llu", static_cast<unsigned>(id_salt_),
                  static_cast<unsigned long long>(next_number_++));
    image->id = id;
    Entry entry{std::move(image), 0};
    entry.bytes = bytes_of(*entry.image);
    if (pinned) {
        pinned_.push_back(entry);
        return entry.image;
    }
    recent_.push_front(entry);
    bytes_ += entry.bytes;
    while (recent_.size() > 1 && (recent_.size() > capacity_ || bytes_ > byte_budget_)) {
        bytes_ -= recent_.back().bytes;
        recent_.pop_back();
    }
    return entry.image;
}

std::shared_ptr<const StoredImage> ImageStore::find(const std::string& id) {
    const std::lock_guard lock(mutex_);
    for (const Entry& entry : pinned_) {
        if (entry.image->id == id) return entry.image;
    }
    for (auto it = recent_.begin(); it != recent_.end(); ++it) {
        if (it->image->id == id) {
            recent_.splice(recent_.begin(), recent_, it);
            return recent_.front().image;
        }
    }
    return nullptr;
}

std::size_t ImageStore::count() const {
    const std::lock_guard lock(mutex_);
    return pinned_.size() + recent_.size();
}

WorkGate::WorkGate(int slots, int waiting) : slots_(std::max(slots, 1)), waiting_places_(std::max(waiting, 0)) {}

bool WorkGate::enter() {
    std::unique_lock lock(mutex_);
    if (running_ < slots_) {
        ++running_;
        return true;
    }
    if (waiting_ >= waiting_places_) return false;
    ++waiting_;
    freed_.wait(lock, [this] { return running_ < slots_; });
    --waiting_;
    ++running_;
    return true;
}

void WorkGate::leave() {
    {
        const std::lock_guard lock(mutex_);
        --running_;
    }
    freed_.notify_one();
}

int WorkGate::running() const {
    const std::lock_guard lock(mutex_);
    return running_;
}

int WorkGate::waiting() const {
    const std::lock_guard lock(mutex_);
    return waiting_;
}

ScratchFolder::ScratchFolder() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/krfilter-serve-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot create a temporary folder in " + pattern);
    path_ = pattern;
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path ScratchFolder::fresh_name(const std::string& extension) {
    return path_ / ("file-" + std::to_string(counter_.fetch_add(1)) + extension);
}

namespace {

// The writers work on files; the picture goes out of the process as bytes.
template <typename Write>
std::string encode_through_file(ScratchFolder& scratch, std::string& problem, Write write) {
    const std::filesystem::path path = scratch.fresh_name(".png");
    problem = write(path.string());
    std::string bytes;
    if (problem.empty()) {
        std::ifstream file(path, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        if (!file && !file.eof()) problem = "cannot read back the encoded picture";
    }
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    return problem.empty() ? bytes : std::string();
}

int preview_step(int height, int width) {
    const int side = std::max(height, width);
    return side <= kPreviewSide ? 1 : (side + kPreviewSide - 1) / kPreviewSide;
}

int subsampled(int length, int step) { return (length + step - 1) / step; }

// An empty 8-bit picture of every step-th row and column of `image`.
GreyImage preview_canvas(const GreyImage& image, int step) {
    GreyImage preview;
    preview.height = subsampled(image.height, step);
    preview.width = subsampled(image.width, step);
    preview.bit_depth = 8;
    preview.white = 255;
    preview.samples.resize(static_cast<std::size_t>(preview.height) * preview.width);
    return preview;
}

}  // namespace

std::string encode_png(ScratchFolder& scratch, const GreyImage& image, std::string& problem) {
    return encode_through_file(scratch, problem,
                               [&](const std::string& path) { return write_grey_image(path, image, FileFormat::png); });
}

std::string encode_rgb_png(ScratchFolder& scratch, int height, int width, const unsigned char* rgb,
                           std::string& problem) {
    return encode_through_file(scratch, problem, [&](const std::string& path) {
        return write_rgb_image(path, height, width, rgb, FileFormat::png);
    });
}

GreyImage windowed_preview(const GreyImage& image, double window, double level) {
    const int step = preview_step(image.height, image.width);
    GreyImage preview = preview_canvas(image, step);
    const double lower = level - window / 2;
    const bool inverted = image.photometric == Photometric::monochrome1;
    // One table entry per possible sample value keeps the per-sample work to
    // a lookup, whatever the image size.
    std::vector<std::uint8_t> table(65536);
    for (int v = 0; v < 65536; ++v) {
        const double scaled = std::clamp((v - lower) * 255.0 / window, 0.0, 255.0);
        const auto grey = static_cast<std::uint8_t>(std::lround(scaled));
        table[v] = inverted ? static_cast<std::uint8_t>(255 - grey) : grey;
    }
    for (int r = 0; r < preview.height; ++r) {
        const std::uint16_t* source = image.row(r * step);
        std::uint16_t* target = preview.row(r);
        for (int c = 0; c < preview.width; ++c) target[c] = table[source[static_cast<std::size_t>(c) * step]];
    }
    return preview;
}

std::vector<unsigned char> rgb_preview(const StoredImage& image, int& height, int& width) {
    const int step = preview_step(image.grey.height, image.grey.width);
    height = subsampled(image.grey.height, step);
    width = subsampled(image.grey.width, step);
    std::vector<unsigned char> rgb(static_cast<std::size_t>(height) * width * 3);
    for (int r = 0; r < height; ++r) {
        for (int c = 0; c < width; ++c) {
            const std::size_t from = (static_cast<std::size_t>(r) * step * image.grey.width + c * step) * 3;
            std::copy_n(image.rgb.data() + from, 3, rgb.data() + (static_cast<std::size_t>(r) * width + c) * 3);
        }
    }
    return rgb;
}

Difference compare(const GreyImage& after, const GreyImage& before) {
    Difference difference;
    for (std::size_t k = 0; k < after.samples.size() && k < before.samples.size(); ++k) {
        const int d = std::abs(int{after.samples[k]} - int{before.samples[k]});
        difference.changed += d != 0 ? 1 : 0;
        difference.largest = std::max(difference.largest, d);
    }
    return difference;
}

GreyImage difference_preview(const GreyImage& after, const GreyImage& before) {
    // Scaled to the 99.5th percentile of the changed samples' differences:
    // a few impulse specks that a filter removes would otherwise set the
    // scale and leave every other change invisible around mid-grey.
    std::vector<std::uint64_t> histogram(65536, 0);
    std::uint64_t changed = 0;
    for (std::size_t k = 0; k < after.samples.size() && k < before.samples.size(); ++k) {
        const int d = std::abs(int{after.samples[k]} - int{before.samples[k]});
        if (d != 0) {
            ++histogram[d];
            ++changed;
        }
    }
    int largest = 1;
    for (std::uint64_t below = 0; largest < 65535 && (below + histogram[largest]) * 1000 < changed * 995; ++largest) {
        below += histogram[largest];
    }
    const int step = preview_step(after.height, after.width);
    GreyImage preview = preview_canvas(after, step);
    for (int r = 0; r < preview.height; ++r) {
        const std::uint16_t* a = after.row(r * step);
        const std::uint16_t* b = before.row(r * step);
        std::uint16_t* target = preview.row(r);
        for (int c = 0; c < preview.width; ++c) {
            const std::size_t k = static_cast<std::size_t>(c) * step;
            const double d = int{a[k]} - int{b[k]};
            target[c] = static_cast<std::uint16_t>(std::lround(127.5 + 127.5 * std::clamp(d / largest, -1.0, 1.0)));
        }
    }
    return preview;
}

}  // namespace krf::tools
