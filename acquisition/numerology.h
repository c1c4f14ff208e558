#pragma once
// OFDM numerology of one ISDB-T segment at 64/63 MHz (ARIB STD-B31 clause 3.12, table 3-1 scaled to
// one segment), by mode (0..2 = Mode 1..3) and guard (0..3 = 1/32, 1/16, 1/8, 1/4).
#include <array>
#include <cstdint>

namespace zfn {

constexpr int32_t MODE_COUNT = 3;
constexpr int32_t GUARD_COUNT = 4;

// Index mode*4 + guard. Lengths in complex samples at the working rate.
constexpr std::array<int32_t, 12> NFFT_BY_MODE_GUARD = {256, 256, 256, 256, 512, 512, 512, 512, 1024, 1024, 1024, 1024};
constexpr std::array<int32_t, 12> NGUARD_BY_MODE_GUARD = {8, 16, 32, 64, 16, 32, 64, 128, 32, 64, 128, 256};
constexpr std::array<int32_t, 12> NMARGIN_BY_MODE_GUARD = {4, 8, 16, 32, 8, 16, 32, 64, 16, 32, 64, 128};
// 204-symbol frames in about one second.
constexpr std::array<int32_t, 12> STAT_FRAMES_BY_MODE_GUARD = {19, 18, 17, 16, 9, 9, 9, 8, 5, 5, 4, 4};

// By mode.
constexpr std::array<int32_t, 3> NCARRIER_BY_MODE = {108, 216, 432};  // carriers of a segment
constexpr std::array<int32_t, 3> NDATA_BY_MODE = {96, 192, 384};      // data carriers of a segment
constexpr std::array<int32_t, 3> NSPAN_BY_MODE = {180, 360, 720};     // segment + ncarrier/3 each side
constexpr std::array<int32_t, 3> NTRACK_BY_MODE = {6, 6, 12};
constexpr std::array<int32_t, 3> PILOT_START_BY_MODE = {72, 144, 288};  // ncarrier - (nspan - ncarrier)/2
constexpr std::array<int32_t, 3> SETTLE_SYMBOLS_BY_MODE = {16320, 8160, 4080};
constexpr std::array<int32_t, 3> CLOCK_FRAMES_BY_MODE = {16, 8, 4};
constexpr std::array<int32_t, 3> CARRIER_SEARCH_HALF_BY_MODE = {27, 54, 108};  // ncarrier/4

// Carriers of the segment (0 .. ncarrier-1) that carry neither data nor scattered pilots: continual
// pilot, TMCC and AC carriers of a differential segment (ARIB STD-B31 tables 3-10 to 3-12). -1 ends.
constexpr int32_t FIXED_CARRIERS_MODE1[] = {35, 49, 79, -1};
constexpr int32_t FIXED_CARRIERS_MODE2[] = {23, 98, 101, 118, 136, 178, -1};
constexpr int32_t FIXED_CARRIERS_MODE3[] = {7, 89, 101, 131, 206, 209, 226, 244, 286, 349, 377, 407, -1};
constexpr const int32_t* FIXED_CARRIERS_BY_MODE[3] = {FIXED_CARRIERS_MODE1, FIXED_CARRIERS_MODE2, FIXED_CARRIERS_MODE3};

// Transform bins followed by the timing tracker, in the order of trackSin and trackCos.
constexpr int32_t TRACK_BINS_MODE1[] = {237, 251, 25, 168, 194, 85};
constexpr int32_t TRACK_BINS_MODE2[] = {502, 505, 10, 28, 427, 70};
constexpr int32_t TRACK_BINS_MODE3[] = {815, 897, 1014, 1017, 10, 28, 161, 191, 909, 939, 70, 133};
constexpr const int32_t* TRACK_BINS_BY_MODE[3] = {TRACK_BINS_MODE1, TRACK_BINS_MODE2, TRACK_BINS_MODE3};

// Initial state r[0..10] of the pilot PRBS (generator x^11 + x^9 + 1, ARIB STD-B31 clause 3.13.1),
// started at the first carrier of the segment below the received one.
constexpr uint8_t PILOT_PRBS_INIT[3][11] = {
    {0, 0, 1, 0, 1, 1, 1, 1, 0, 1, 0},
    {0, 0, 0, 0, 1, 0, 1, 1, 0, 0, 0},
    {1, 1, 1, 0, 0, 1, 1, 0, 1, 1, 0},
};
// Reciprocal of the scattered pilot amplitude 4/3.
constexpr float PILOT_SIGN_SCALE = 0.75f;

// Builds the numerology of *modeGuard: fields, both DFT descriptors, the pilot tables and the
// per-mode arrays carved from the work arena (which the caller has rewound to arenaAfterInit).
// firstTime 0 frees the previous descriptors first. 1 success, 0 a DFT descriptor call failed.
int32_t SetUpNumerology(int32_t firstTime);

}  // namespace zfn
