// "gammaporion": a tone curve anchored at a landmark that a centre-surround
// template finds: the place where a disc's mean differs most from the mean
// of the ring around it (a lead marker, a dense implant, a hole in a
// collimator). The landmark's level stays fixed and the exponent spreads the
// levels around it, so the structure a radiographer placed the marker beside
// keeps its brightness while its contrast changes.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "tone/tone.h"

namespace krf::tone {
namespace {

using Wide = std::int64_t;

// floor(sqrt(n)) for n >= 0, exact where the double square root may not be.
Wide integer_sqrt(Wide n) {
    Wide root = static_cast<Wide>(std::sqrt(static_cast<double>(n)));
    while (root > 0 && root * root > n) --root;
    while ((root + 1) * (root + 1) <= n) ++root;
    return root;
}

// A disc as rows of runs: half[dy + radius] is the half-width of the row at
// offset dy, so that a disc sum is one difference of row prefix sums per
// row. Every sample within the radius (dx² + dy² <= r²) belongs to it.
class Disc {
public:
    bool make(Wide radius) {
        radius_ = radius;
        count_ = 0;
        if (!half_.allocate(2 * radius + 1)) return false;
        for (Wide dy = -radius; dy <= radius; ++dy) {
            half_[dy + radius] = integer_sqrt(radius * radius - dy * dy);
            count_ += 2 * half_[dy + radius] + 1;
        }
        return true;
    }
    Wide radius() const { return radius_; }
    Wide count() const { return count_; }
    Wide half(Wide dy) const { return half_[dy + radius_]; }

private:
    ScratchArray<Wide> half_;
    Wide radius_ = 0;
    Wide count_ = 0;
};

// Prefix sums along the rows of a plane of block sums: plane sample (y, x) is
// the sum of the scale × scale block of the image at (top + y × scale,
// left + x × scale), samples counted at most white. Scale 1 with a window is
// the image itself, exactly; a larger scale is the reduced image the coarse
// search runs on.
class RowSums {
public:
    bool build(Rows src, Sample top_level, Wide top, Wide left, Wide rows, Wide cols, Wide scale) {
        rows_ = rows;
        cols_ = cols;
        stride_ = cols + 1;
        // Column sums of a band of `scale` rows first: each image row is then
        // read once, in order, in a loop the compiler can vectorise.
        const Wide span = cols * scale;
        ScratchArray<Wide> band;
        if (!sums_.allocate(rows * stride_) || !band.allocate(span)) return false;
        for (Wide y = 0; y < rows; ++y) {
            std::fill(band.get(), band.get() + span, Wide{0});
            for (Wide k = 0; k < scale; ++k) {
                const Sample* in = src[top + y * scale + k] + left;
                for (Wide x = 0; x < span; ++x) band[x] += std::min(in[x], top_level);
            }
            Wide* row = sums_.get() + y * stride_;
            for (Wide x = 0; x < cols; ++x) {
                Wide block = 0;
                for (Wide j = 0; j < scale; ++j) block += band[x * scale + j];
                row[x + 1] = row[x] + block;
            }
        }
        return true;
    }
    Wide rows() const { return rows_; }
    Wide cols() const { return cols_; }
    const Wide* row(Wide y) const { return sums_.get() + y * stride_; }

    Wide disc_sum(const Disc& disc, Wide y, Wide x) const {
        Wide sum = 0;
        for (Wide dy = -disc.radius(); dy <= disc.radius(); ++dy) {
            const Wide* row = sums_.get() + (y + dy) * stride_;
            sum += row[x + disc.half(dy) + 1] - row[x - disc.half(dy)];
        }
        return sum;
    }

private:
    ScratchArray<Wide> sums_;
    Wide rows_ = 0;
    Wide cols_ = 0;
    Wide stride_ = 0;
};

struct Position {
    Wide y = 0;
    Wide x = 0;
};

// The centre in [y0, y1] × [x0, x1] (plane coordinates, rings inside the
// plane) where the disc's mean differs most from the ring's. Sums for a whole
// row of centres are built one disc row at a time, so each step walks two
// prefix rows in order instead of jumping between rows per centre. False when
// the two row accumulators cannot be allocated.
bool best_centre(const RowSums& plane, const Disc& inner, const Disc& outer, Wide y0, Wide y1, Wide x0, Wide x1,
                 Position* best) {
    const Wide count = x1 - x0 + 1;
    ScratchArray<Wide> disc_sums, outer_sums;
    if (!disc_sums.allocate(count) || !outer_sums.allocate(count)) return false;
    Wide* disc = disc_sums.get();
    Wide* out = outer_sums.get();
    const double inner_count = static_cast<double>(inner.count());
    const double ring_count = static_cast<double>(outer.count() - inner.count());
    double best_score = -1.0;
    for (Wide y = y0; y <= y1; ++y) {
        std::fill(disc, disc + count, Wide{0});
        std::fill(out, out + count, Wide{0});
        for (Wide dy = -outer.radius(); dy <= outer.radius(); ++dy) {
            const Wide* row = plane.row(y + dy);
            const Wide* right = row + x0 + outer.half(dy) + 1;
            const Wide* left = row + x0 - outer.half(dy);
            for (Wide i = 0; i < count; ++i) out[i] += right[i] - left[i];
            if (dy < -inner.radius() || dy > inner.radius()) continue;
            const Wide* inner_right = row + x0 + inner.half(dy) + 1;
            const Wide* inner_left = row + x0 - inner.half(dy);
            for (Wide i = 0; i < count; ++i) disc[i] += inner_right[i] - inner_left[i];
        }
        for (Wide i = 0; i < count; ++i) {
            const double score = std::fabs(static_cast<double>(disc[i]) / inner_count -
                                           static_cast<double>(out[i] - disc[i]) / ring_count);
            if (score > best_score) {
                best_score = score;
                *best = {y, x0 + i};
            }
        }
    }
    return true;
}

bool fits(Wide outer, Wide height, Wide width) { return 2 * outer + 1 <= height && 2 * outer + 1 <= width; }

}  // namespace

LandmarkTemplate landmark_template(int height, int width, int radius, int radius_ext) noexcept {
    // Markers and implants keep their size relative to the field, not in
    // pixels, so the template follows the image: 0, 1, 2 (all the catalogue
    // offers) give discs of 1, 2, 3 units with rings 1, 2, 3 units wide.
    const Wide unit = std::max<Wide>(2, std::min(height, width) / 128);
    const Wide inner = (std::max(radius, 0) + Wide{1}) * unit;
    return {inner, inner + (std::max(radius_ext, 0) + Wide{1}) * unit};
}

int locate_landmark(Rows src, int height, int width, int white, LandmarkTemplate shape, Landmark* found) noexcept {
    if (shape.inner < 1 || shape.outer <= shape.inner || !fits(shape.outer, height, width))
        return kLandmarkTemplateTooLarge;
    const Sample top_level = static_cast<Sample>(std::clamp(white, 0, 65535));

    // Coarse search on block sums: blocks a quarter of the disc's radius or
    // the ring's width (whichever is smaller) leave both about four pixels
    // across, still a disc and a ring, and the search costs 1 / scale² of a
    // full one. The full-resolution refinement around the coarse winner
    // restores the exact position.
    Wide scale = std::max<Wide>(1, std::min(shape.inner, shape.outer - shape.inner) / 4);
    Disc inner, outer;
    auto reduced = [&](Wide s) {
        const Wide r = std::max<Wide>(1, shape.inner / s);
        return LandmarkTemplate{r, std::max(r + 1, shape.outer / s)};
    };
    if (scale > 1 && !fits(reduced(scale).outer, height / scale, width / scale)) scale = 1;
    Position centre{shape.outer, shape.outer};
    if (scale > 1) {
        const LandmarkTemplate coarse = reduced(scale);
        RowSums plane;
        if (!inner.make(coarse.inner) || !outer.make(coarse.outer) ||
            !plane.build(src, top_level, 0, 0, height / scale, width / scale, scale)) {
            return kNoBuffer;
        }
        Position c;
        if (!best_centre(plane, inner, outer, coarse.outer, plane.rows() - 1 - coarse.outer, coarse.outer,
                         plane.cols() - 1 - coarse.outer, &c)) {
            return kNoBuffer;
        }
        centre = {c.y * scale + (scale - 1) / 2, c.x * scale + (scale - 1) / 2};
    }

    // Full resolution: every centre within two blocks of the coarse winner,
    // or every centre of the image when there was no coarse search.
    const Wide reach = scale > 1 ? 2 * scale : std::max<Wide>(height, width);
    const Wide y0 = std::max(shape.outer, centre.y - reach), y1 = std::min(height - 1 - shape.outer, centre.y + reach);
    const Wide x0 = std::max(shape.outer, centre.x - reach), x1 = std::min(width - 1 - shape.outer, centre.x + reach);
    RowSums window;
    if (!inner.make(shape.inner) || !outer.make(shape.outer) ||
        !window.build(src, top_level, y0 - shape.outer, x0 - shape.outer, y1 - y0 + 1 + 2 * shape.outer,
                      x1 - x0 + 1 + 2 * shape.outer, 1)) {
        return kNoBuffer;
    }
    Position best;
    if (!best_centre(window, inner, outer, shape.outer, y1 - y0 + shape.outer, shape.outer, x1 - x0 + shape.outer,
                     &best)) {
        return kNoBuffer;
    }
    const Wide disc = window.disc_sum(inner, best.y, best.x);
    found->row = static_cast<int>(best.y - shape.outer + y0);
    found->column = static_cast<int>(best.x - shape.outer + x0);
    found->level = static_cast<int>((2 * disc + inner.count()) / (2 * inner.count()));
    return 0;
}

int landmark_gamma(Rows src, Rows dst, int height, int width, int white, int radius, int radius_ext,
                   double gamma) noexcept {
    Landmark mark{};
    const int located = locate_landmark(src, height, width, white, landmark_template(height, width, radius, radius_ext),
                                        &mark);
    if (located == kLandmarkTemplateTooLarge) {
        // The host still gets a defined image: the input as it came.
        for (int r = 0; r < height && width > 0; ++r)
            if (src[r] != dst[r]) std::memcpy(dst[r], src[r], static_cast<std::size_t>(width) * sizeof(Sample));
        return located;
    }
    if (located != 0) return located;
    // The catalogue's default of 0 would flatten every level onto the
    // landmark's; it stands for a moderate spread instead.
    const double g = std::isfinite(gamma) && gamma > 0.0 ? gamma : kDefaultLandmarkGamma;
    return run_table(src, dst, height, width, white, [&](Sample* table) {
        const double level = mark.level, w = white;
        for (int i = 0; i <= white; ++i) {
            const double v = i <= mark.level ? (mark.level == 0 ? 0.0 : level * std::pow(i / level, g))
                                             : w - (w - level) * std::pow((w - i) / (w - level), g);
            table[i] = to_table_entry(v + 0.5);
        }
        return 0;
    });
}

}  // namespace krf::tone
