// What `krfilter serve` keeps between requests and the pictures it draws:
// the images in memory, the gate that bounds concurrent work, the scratch
// folder, and the 8-bit renderings for the page.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "image_io.h"

namespace krf::tools {

// An image the page can show, run a filter on or download.
struct StoredImage {
    std::string id;
    std::string name;    // for the page and the download's file name
    std::string origin;  // "phantom", "upload" or "result"
    GreyImage grey;
    std::vector<unsigned char> rgb;  // three bytes a sample when the image is a colour rendering
    int lowest = 0;                  // smallest and largest sample, for an automatic window
    int highest = 0;
    std::string derived_from;  // the input's id, for a result
};

// Fills `lowest` and `highest` from the samples.
void measure_range(StoredImage& image);

// Images by id. Pinned images (the opening picture) stay; the others are
// dropped least recently used first once more than `capacity` of them are
// kept or their samples exceed `byte_budget` (the newest always stays). A
// request that already holds an image keeps it alive until it is done.
class ImageStore {
public:
    ImageStore(std::size_t capacity, std::uint64_t byte_budget);
    // Gives the image a fresh id and keeps it.
    std::shared_ptr<const StoredImage> add(std::shared_ptr<StoredImage> image, bool pinned = false);
    // Null when no such image is kept (never was, or was dropped).
    std::shared_ptr<const StoredImage> find(const std::string& id);
    std::size_t count() const;

private:
    struct Entry {
        std::shared_ptr<const StoredImage> image;
        std::uint64_t bytes;
    };
    mutable std::mutex mutex_;
    std::size_t capacity_;
    std::uint64_t byte_budget_;
    std::uint64_t bytes_ = 0;
    std::uint64_t next_number_ = 1;
    std::uint32_t id_salt_;
    std::vector<Entry> pinned_;
    std::list<Entry> recent_;  // most recently used first
};

// Bounds the heavy work (decoding uploads, filter runs, encoding pictures):
// at most `slots` at a time, at most `waiting` more queued for a slot, and
// anything beyond is refused at once so a burst cannot pile up memory.
class WorkGate {
public:
    WorkGate(int slots, int waiting);
    // Waits for a slot and returns true, or returns false at once when every
    // slot and waiting place is taken.
    bool enter();
    void leave();
    int slots() const { return slots_; }
    int waiting_places() const { return waiting_places_; }
    int running() const;
    int waiting() const;

private:
    const int slots_;
    const int waiting_places_;
    mutable std::mutex mutex_;
    std::condition_variable freed_;
    int running_ = 0;
    int waiting_ = 0;
};

// One admission through a WorkGate, released when it goes out of scope.
class GatePass {
public:
    explicit GatePass(WorkGate& gate) : gate_(gate), admitted_(gate.enter()) {}
    ~GatePass() {
        if (admitted_) gate_.leave();
    }
    GatePass(const GatePass&) = delete;
    GatePass& operator=(const GatePass&) = delete;
    bool admitted() const { return admitted_; }

private:
    WorkGate& gate_;
    bool admitted_;
};

// A private folder for the files the image readers and writers need; it and
// everything in it is removed when the object goes.
class ScratchFolder {
public:
    ScratchFolder();  // throws std::runtime_error when no folder can be made
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }
    // A fresh file name inside the folder (the file is not created).
    std::filesystem::path fresh_name(const std::string& extension);

private:
    std::filesystem::path path_;
    std::atomic<std::uint64_t> counter_{0};
};

// The bytes of a PNG file of `image` (its own bit depth), or of an 8-bit RGB
// picture; empty with `problem` set when writing failed.
std::string encode_png(ScratchFolder& scratch, const GreyImage& image, std::string& problem);
std::string encode_rgb_png(ScratchFolder& scratch, int height, int width, const unsigned char* rgb,
                           std::string& problem);

// Pictures for the page never exceed this side; larger images are shown
// with every n-th row and column.
constexpr int kPreviewSide = 4096;

// 8-bit rendering through a window: samples at or below level - window / 2
// are black, at or above level + window / 2 white, linear between; drawn the
// other way round for a MONOCHROME1 image.
GreyImage windowed_preview(const GreyImage& image, double window, double level);
// The colour rendering subsampled as the grey previews are.
std::vector<unsigned char> rgb_preview(const StoredImage& image, int& height, int& width);

struct Difference {
    std::uint64_t changed = 0;  // samples that differ
    int largest = 0;            // largest absolute difference
};
Difference compare(const GreyImage& after, const GreyImage& before);
// after - before drawn around mid-grey: brighter where the result is higher,
// darker where lower; all but the largest 0.5 % of the changes stay short of
// black and white.
GreyImage difference_preview(const GreyImage& after, const GreyImage& before);

}  // namespace krf::tools
