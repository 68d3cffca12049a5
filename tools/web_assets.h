// The files of the `krfilter serve` page, compiled into the binary from
// tools/web by web/embed_assets.cmake.
#pragma once

#include <cstddef>

namespace krf::tools {

struct WebAsset {
    const char* path;  // "/index.html"
    const unsigned char* data;
    std::size_t size;
};

extern const WebAsset kWebAssets[];
extern const std::size_t kWebAssetCount;

}  // namespace krf::tools
