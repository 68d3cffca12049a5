// Fractions become integers the way the processor's truncating conversion
// (cvttsd2si / cvttss2si) makes them: toward zero inside the 32-bit range,
// and the "integer indefinite" INT32_MIN for NaN, infinities and anything
// outside it. A plain cast would be undefined there; with this, degenerate
// parameters and data give one reproducible result instead of a trap or a
// corrected one. Shared by every family that truncates.
#pragma once

#include <cstdint>

namespace krf {

constexpr std::int32_t truncate_to_int32(double value) noexcept {
    if (value > -2147483649.0 && value < 2147483648.0) return static_cast<std::int32_t>(value);
    return INT32_MIN;
}

// The low 16 bits of that conversion: what a 16-bit store of it keeps.
constexpr std::uint16_t truncate_to_low16(double value) noexcept {
    return static_cast<std::uint16_t>(static_cast<std::uint32_t>(truncate_to_int32(value)) & 0xFFFFu);
}

}  // namespace krf
