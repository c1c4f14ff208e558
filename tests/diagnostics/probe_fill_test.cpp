// The engine's fill of the probe record, on a record of our own: rewind and fill of the carriers
// with the QPSK scaling undone, the once-a-frame values, the timing step list, and the guards
// (probe inactive, no record, a fill index that would run past the arrays).
#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <numeric>
#include <vector>

#include "shell/diagnostics.h"
#include "shell/matlab_probe.h"
#include "shell/receiver_state.h"
#include "tests/support/common/probe_arrays.h"
#include "tracking/probe_fill.h"

namespace zfn {
namespace {

constexpr double SENTINEL = -12345.0;
constexpr int32_t GUARD = 16;  // entries after each array that must stay untouched

// Carriers of one symbol: entry k of symbol s is (s + k/1000, -k).
std::vector<float> Carriers(int32_t symbol, int32_t ndata) {
  std::vector<float> c(2 * ndata);
  for (int32_t k = 0; k < ndata; ++k) {
    c[2 * k] = static_cast<float>(symbol) + static_cast<float>(k) / 1000.0f;
    c[2 * k + 1] = -static_cast<float>(k);
  }
  return c;
}

class ProbeFill : public ::testing::Test {
 protected:
  void SetUp() override {
    engine.probeActive = 1;
    engine.probeTick = 0;
    engine.probeDecimation = 1;
    engine.probeRewind = 1;
    engine.jumpListCount = 0;
    matlabProbe = &arrays_.record;
    record_.updateEvent = event_;
  }
  void TearDown() override {
    close(event_);
    matlabProbe = nullptr;
    engine.probeActive = 0;
    engine.jumpListCount = 0;
  }

  // One symbol as the driver runs it: tick, timing step, carriers, frame values.
  void RunSymbol(int32_t symbolIndex, int32_t ndata, int32_t timingStep = 0, int32_t timingPeriod = 8) {
    ProbeBeginSymbol(symbolIndex);
    ProbeNoteTimingStep(symbolIndex, timingPeriod, timingStep);
    const std::vector<float> carriers = Carriers(symbolIndex, ndata);
    ProbeStoreCarriers(symbolIndex, carriers, 4, 0.0f, {});
    ProbeFinishFrame(symbolIndex, frame_);
  }

  // The update events signalled since the last call.
  uint64_t Events() const {
    uint64_t events = 0;
    return read(event_, &events, sizeof events) == static_cast<ssize_t>(sizeof events) ? events : 0;
  }

  int event_ = eventfd(0, EFD_NONBLOCK);
  zfn_test::ProbeArrays arrays_{GUARD, SENTINEL};
  MatlabProbe& record_ = arrays_.record;
  ProbeFrameInput frame_{};
};

TEST_F(ProbeFill, AFrameFillsSymbolsZeroToHundredAndTheFrameValuesOnce) {
  constexpr int32_t ndata = 384, ncarrier = 432, nspan = 720;
  std::vector<float> planes(2 * ncarrier), slot(2 * nspan), acc(257);
  std::iota(planes.begin(), planes.end(), 0.0f);
  std::iota(slot.begin(), slot.end(), 1000.0f);
  std::iota(acc.begin(), acc.end(), 0.0f);
  frame_ = ProbeFrameInput{12.5f, 1024, 0.003f, std::span<const float>(planes).first(ncarrier),
                           std::span<const float>(planes).subspan(ncarrier), slot, acc, 64 - 40, 40,
                           1, BLOCK_TRACKING};

  ASSERT_GT(event_, 0);
  record_.fillIndex = 777;  // left over: symbol 0 rewinds it

  // Symbols 150..203 of a frame before, then a whole frame; timing steps every eighth symbol.
  for (int32_t s = 150; s < 204; ++s) RunSymbol(s, ndata, s == 151 ? -1 : 0);
  EXPECT_EQ(record_.fillIndex, 777) << "no carriers are stored after symbol 100";
  for (int32_t s = 0; s < 204; ++s) RunSymbol(s, ndata, (s + 1) % 16 == 0 ? 1 : 0);

  EXPECT_EQ(engine.probeTick, 54u + 204u);
  EXPECT_EQ(record_.fillIndex, 101 * ndata);
  EXPECT_DOUBLE_EQ(record_.carrierRe[0], 0.0);
  EXPECT_DOUBLE_EQ(record_.carrierRe[100 * ndata + 5], 100.0f + 5.0f / 1000.0f);
  EXPECT_DOUBLE_EQ(record_.carrierIm[100 * ndata + 5], -5.0);
  EXPECT_DOUBLE_EQ(*record_.snrCell, 12.5);
  EXPECT_NEAR(*record_.frequencyCell, 1024 * static_cast<double>(0.003f) / 6.283185307179, 1e-12);
  EXPECT_DOUBLE_EQ(record_.channelRe[431], 431.0);
  EXPECT_DOUBLE_EQ(record_.channelIm[0], 432.0);
  EXPECT_DOUBLE_EQ(record_.slotRe[719], 1000.0 + 2 * 719);
  EXPECT_DOUBLE_EQ(record_.slotIm[0], 1001.0);
  // 2 * timingSpan + 1 = 81 entries from rotateStart = 24.
  EXPECT_DOUBLE_EQ(record_.timingProfile[0], 24.0);
  EXPECT_DOUBLE_EQ(record_.timingProfile[80], 104.0);
  EXPECT_EQ(record_.timingProfile[81], SENTINEL);
  EXPECT_DOUBLE_EQ(*record_.channelStateCell, 1.0);
  EXPECT_DOUBLE_EQ(*record_.stateCell, 3.0);
  // The list at symbol 100: the steps of the frame before from symbol 151 on (151 is the one with
  // -1; then 159 .. 199: 7 entries) and of this frame up to 95 (7..95: 12 entries).
  EXPECT_DOUBLE_EQ(record_.jumpList[0], 7 + 12);
  EXPECT_DOUBLE_EQ(record_.jumpList[1], -1.0);
  EXPECT_DOUBLE_EQ(record_.jumpList[2], 0.0);
  EXPECT_DOUBLE_EQ(record_.jumpList[8], 0.0);   // symbol 7: (7 + 1) mod 16 != 0
  EXPECT_DOUBLE_EQ(record_.jumpList[9], 1.0);   // symbol 15
  // Emptied at the fill, then symbols 103 .. 199 of this frame: 13 entries.
  EXPECT_EQ(engine.jumpListCount, 13);
  EXPECT_EQ(Events(), 1u) << "one update per frame";
  EXPECT_TRUE(arrays_.GuardsIntact());
}

TEST_F(ProbeFill, QpskScalingIsUndoneBeforeTheCarriersAreStored) {
  const std::vector<float> carriers = {8.0f, -8.0f, 4.0f, 2.0f};
  const std::vector<float> weights = {2.0f, 0.5f};
  record_.fillIndex = 0;

  ProbeStoreCarriers(0, carriers, 2, 0.0f, weights);  // QPSK, target <= 0: times 0.125
  ProbeStoreCarriers(1, carriers, 2, 1.5f, weights);  // QPSK, target > 0: divided by the weight
  ProbeStoreCarriers(2, carriers, 6, 1.5f, weights);  // 64QAM: as equalised
  EXPECT_EQ(record_.fillIndex, 6);
  const double expectedRe[] = {1.0, 0.5, 4.0, 8.0, 8.0, 4.0};
  const double expectedIm[] = {-1.0, 0.25, -4.0, 4.0, -8.0, 2.0};
  for (int i = 0; i < 6; ++i) {
    EXPECT_DOUBLE_EQ(record_.carrierRe[i], expectedRe[i]) << i;
    EXPECT_DOUBLE_EQ(record_.carrierIm[i], expectedIm[i]) << i;
  }
}

TEST_F(ProbeFill, NothingIsWrittenWhenInactiveWithoutARecordOrPastTheArrays) {
  constexpr int32_t ndata = 384;
  // A fill index carried past one frame (probe switched on in mid-frame twice): the symbol that
  // would run past the arrays is dropped.
  record_.fillIndex = PROBE_CARRIER_CAPACITY - ndata + 1;
  RunSymbol(50, ndata);
  EXPECT_EQ(record_.fillIndex, PROBE_CARRIER_CAPACITY - ndata + 1);
  record_.fillIndex = -5;
  RunSymbol(51, ndata);
  EXPECT_EQ(record_.fillIndex, -5);
  // Oversized inputs are cut to the capacities.
  std::vector<float> big(4000, 1.0f);
  frame_ = ProbeFrameInput{1.0f, 1024, 0.0f, big, big, big, big, 0, 1000, 0, BLOCK_TRACKING};
  engine.jumpListCount = 500;
  RunSymbol(100, ndata);
  EXPECT_DOUBLE_EQ(record_.jumpList[0], PROBE_JUMP_STEPS);
  // A start beyond the accumulator stores no profile.
  frame_.rotateStart = 5000;
  record_.timingProfile[0] = SENTINEL;
  RunSymbol(100, ndata);
  EXPECT_EQ(record_.timingProfile[0], SENTINEL);
  EXPECT_TRUE(arrays_.GuardsIntact());

  // Probe inactive: no tick, no write, not even the block state.
  engine.probeActive = 0;
  const uint32_t tick = engine.probeTick;
  record_.fillIndex = 0;
  *record_.stateCell = SENTINEL;
  RunSymbol(0, ndata);
  ProbeStoreBlockState(BLOCK_FRAME_SYNC);
  ProbeStoreRates(0.5f, 0.5f, 0.5f);
  EXPECT_EQ(engine.probeTick, tick);
  EXPECT_EQ(record_.fillIndex, 0);
  EXPECT_EQ(*record_.stateCell, SENTINEL);
  EXPECT_EQ(record_.ratesCell[0], SENTINEL);

  // Active with no record (the bridge unloaded and the probe switched on again): the engine runs
  // on and writes nothing; its own step list is still emptied at the fill.
  engine.probeActive = 1;
  matlabProbe = nullptr;
  for (int32_t s = 0; s <= 100; ++s) RunSymbol(s, ndata, 1);
  ProbeStoreBlockState(BLOCK_MODE_DETECT);
  ProbeStoreRates(0.5f, 0.5f, 0.5f);
  EXPECT_EQ(engine.jumpListCount, 0);
  EXPECT_EQ(record_.fillIndex, 0);
  // A timing period of 0 (a bad parameter file) adds nothing and does not divide by zero.
  ProbeNoteTimingStep(7, 0, 3);
  EXPECT_EQ(engine.jumpListCount, 0);
}

TEST_F(ProbeFill, BlockStateAndRatesGoToTheirCells) {
  ProbeStoreBlockState(BLOCK_COARSE_SYNC);
  EXPECT_DOUBLE_EQ(*record_.stateCell, 1.0);
  EXPECT_EQ(Events(), 1u);
  // In tracking the frame fill reports the state; the block loop does not.
  ProbeStoreBlockState(BLOCK_TRACKING);
  EXPECT_DOUBLE_EQ(*record_.stateCell, 1.0);
  EXPECT_EQ(Events(), 0u);

  ProbeStoreRates(0.25f, 0.125f, 0.5f);
  const double rates[] = {0.25, 0.125, 0.5};
  for (int i = 0; i < 3; ++i) EXPECT_DOUBLE_EQ(record_.ratesCell[i], rates[i]) << i;

  // A record without an event (descriptor 0): the state is stored, nothing is signalled.
  record_.updateEvent = 0;
  ProbeStoreBlockState(BLOCK_NO_SIGNAL);
  EXPECT_DOUBLE_EQ(*record_.stateCell, -2.0);
}

}  // namespace
}  // namespace zfn
