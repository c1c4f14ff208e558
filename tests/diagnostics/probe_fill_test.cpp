// The engine's fill of the probe record, on a record of our own: rewind and fill of the carriers
// with the QPSK scaling undone, the once-a-frame values, the timing step list, and the guards
// (probe inactive, no record, a fill index that would run past the arrays).
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cmath>
#include <numeric>
#include <vector>

#include "shell/diagnostics.h"
#include "shell/matlab_probe.h"
#include "shell/receiver_state.h"
#include "tracking/probe_fill.h"

namespace zfn {
namespace {

constexpr double SENTINEL = -12345.0;
constexpr int32_t GUARD = 16;  // entries after each array that must stay untouched

// A record whose arrays have the full capacities and a guard zone behind each.
struct OwnRecord {
  std::vector<double> re = Sized(PROBE_CARRIER_CAPACITY), im = Sized(PROBE_CARRIER_CAPACITY);
  std::vector<double> channelRe = Sized(PROBE_CHANNEL_CAPACITY), channelIm = Sized(PROBE_CHANNEL_CAPACITY);
  std::vector<double> slotRe = Sized(PROBE_SLOT_CAPACITY), slotIm = Sized(PROBE_SLOT_CAPACITY);
  std::vector<double> timing = Sized(PROBE_TIMING_CAPACITY), jumps = Sized(PROBE_JUMP_CAPACITY);
  std::vector<double> rates = Sized(PROBE_RATES);
  double snr = SENTINEL, frequency = SENTINEL, state = SENTINEL, channelState = SENTINEL;
  MatlabProbe probe{};

  static std::vector<double> Sized(int32_t capacity) { return std::vector<double>(capacity + GUARD, SENTINEL); }
  static bool GuardIntact(const std::vector<double>& v) {
    for (size_t i = v.size() - GUARD; i < v.size(); ++i)
      if (v[i] != SENTINEL) return false;
    return true;
  }

  OwnRecord() {
    probe.carrierRe = re.data();
    probe.carrierIm = im.data();
    probe.snrCell = &snr;
    probe.frequencyCell = &frequency;
    probe.ratesCell = rates.data();
    probe.channelRe = channelRe.data();
    probe.channelIm = channelIm.data();
    probe.slotRe = slotRe.data();
    probe.slotIm = slotIm.data();
    probe.timingProfile = timing.data();
    probe.jumpList = jumps.data();
    probe.stateCell = &state;
    probe.channelStateCell = &channelState;
  }
  bool AllGuardsIntact() const {
    return GuardIntact(re) && GuardIntact(im) && GuardIntact(channelRe) && GuardIntact(channelIm) &&
           GuardIntact(slotRe) && GuardIntact(slotIm) && GuardIntact(timing) && GuardIntact(jumps) &&
           GuardIntact(rates);
  }
};

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
    matlabProbe = &record_.probe;
  }
  void TearDown() override {
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

  OwnRecord record_;
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

  int fd = eventfd(0, EFD_NONBLOCK);
  ASSERT_GT(fd, 0);
  record_.probe.updateEvent = fd;
  record_.probe.fillIndex = 777;  // left over: symbol 0 rewinds it

  // Symbols 150..203 of a frame before, then a whole frame; timing steps every eighth symbol.
  for (int32_t s = 150; s < 204; ++s) RunSymbol(s, ndata, s == 151 ? -1 : 0);
  EXPECT_EQ(record_.probe.fillIndex, 777) << "no carriers are stored after symbol 100";
  for (int32_t s = 0; s < 204; ++s) RunSymbol(s, ndata, (s + 1) % 16 == 0 ? 1 : 0);

  EXPECT_EQ(engine.probeTick, 54u + 204u);
  EXPECT_EQ(record_.probe.fillIndex, 101 * ndata);
  EXPECT_DOUBLE_EQ(record_.re[0], 0.0);
  EXPECT_DOUBLE_EQ(record_.re[100 * ndata + 5], 100.0f + 5.0f / 1000.0f);
  EXPECT_DOUBLE_EQ(record_.im[100 * ndata + 5], -5.0);
  EXPECT_DOUBLE_EQ(record_.snr, 12.5);
  EXPECT_NEAR(record_.frequency, 1024 * static_cast<double>(0.003f) / 6.283185307179, 1e-12);
  EXPECT_DOUBLE_EQ(record_.channelRe[431], 431.0);
  EXPECT_DOUBLE_EQ(record_.channelIm[0], 432.0);
  EXPECT_DOUBLE_EQ(record_.slotRe[719], 1000.0 + 2 * 719);
  EXPECT_DOUBLE_EQ(record_.slotIm[0], 1001.0);
  // 2 * timingSpan + 1 = 81 entries from rotateStart = 24.
  EXPECT_DOUBLE_EQ(record_.timing[0], 24.0);
  EXPECT_DOUBLE_EQ(record_.timing[80], 104.0);
  EXPECT_EQ(record_.timing[81], SENTINEL);
  EXPECT_DOUBLE_EQ(record_.channelState, 1.0);
  EXPECT_DOUBLE_EQ(record_.state, 3.0);
  // The list at symbol 100: the steps of the frame before from symbol 151 on (151 is the one with
  // -1; then 159 .. 199: 7 entries) and of this frame up to 95 (7..95: 12 entries).
  EXPECT_DOUBLE_EQ(record_.jumps[0], 7 + 12);
  EXPECT_DOUBLE_EQ(record_.jumps[1], -1.0);
  EXPECT_DOUBLE_EQ(record_.jumps[2], 0.0);
  EXPECT_DOUBLE_EQ(record_.jumps[8], 0.0);   // symbol 7: (7 + 1) mod 16 != 0
  EXPECT_DOUBLE_EQ(record_.jumps[9], 1.0);   // symbol 15
  // Emptied at the fill, then symbols 103 .. 199 of this frame: 13 entries.
  EXPECT_EQ(engine.jumpListCount, 13);
  uint64_t events = 0;
  ASSERT_EQ(read(fd, &events, sizeof events), static_cast<ssize_t>(sizeof events));
  EXPECT_EQ(events, 1u) << "one update per frame";
  close(fd);
  EXPECT_TRUE(record_.AllGuardsIntact());
}

TEST_F(ProbeFill, QpskScalingIsUndoneBeforeTheCarriersAreStored) {
  const std::vector<float> carriers = {8.0f, -8.0f, 4.0f, 2.0f};
  const std::vector<float> weights = {2.0f, 0.5f};
  record_.probe.fillIndex = 0;

  ProbeStoreCarriers(0, carriers, 2, 0.0f, weights);  // QPSK, target <= 0: times 0.125
  ProbeStoreCarriers(1, carriers, 2, 1.5f, weights);  // QPSK, target > 0: divided by the weight
  ProbeStoreCarriers(2, carriers, 6, 1.5f, weights);  // 64QAM: as equalised
  EXPECT_EQ(record_.probe.fillIndex, 6);
  const double expectedRe[] = {1.0, 0.5, 4.0, 8.0, 8.0, 4.0};
  const double expectedIm[] = {-1.0, 0.25, -4.0, 4.0, -8.0, 2.0};
  for (int i = 0; i < 6; ++i) {
    EXPECT_DOUBLE_EQ(record_.re[i], expectedRe[i]) << i;
    EXPECT_DOUBLE_EQ(record_.im[i], expectedIm[i]) << i;
  }
}

TEST_F(ProbeFill, NothingIsWrittenWhenInactiveWithoutARecordOrPastTheArrays) {
  constexpr int32_t ndata = 384;
  // A fill index carried past one frame (probe switched on in mid-frame twice): the symbol that
  // would run past the arrays is dropped.
  record_.probe.fillIndex = PROBE_CARRIER_CAPACITY - ndata + 1;
  RunSymbol(50, ndata);
  EXPECT_EQ(record_.probe.fillIndex, PROBE_CARRIER_CAPACITY - ndata + 1);
  record_.probe.fillIndex = -5;
  RunSymbol(51, ndata);
  EXPECT_EQ(record_.probe.fillIndex, -5);
  // Oversized inputs are cut to the capacities.
  std::vector<float> big(4000, 1.0f);
  frame_ = ProbeFrameInput{1.0f, 1024, 0.0f, big, big, big, big, 0, 1000, 0, BLOCK_TRACKING};
  engine.jumpListCount = 500;
  RunSymbol(100, ndata);
  EXPECT_DOUBLE_EQ(record_.jumps[0], PROBE_JUMP_STEPS);
  // A start beyond the accumulator stores no profile.
  frame_.rotateStart = 5000;
  record_.timing[0] = SENTINEL;
  RunSymbol(100, ndata);
  EXPECT_EQ(record_.timing[0], SENTINEL);
  EXPECT_TRUE(record_.AllGuardsIntact());

  // Probe inactive: no tick, no write, not even the block state.
  engine.probeActive = 0;
  const uint32_t tick = engine.probeTick;
  record_.probe.fillIndex = 0;
  record_.state = SENTINEL;
  RunSymbol(0, ndata);
  ProbeStoreBlockState(BLOCK_FRAME_SYNC);
  ProbeStoreRates(0.5f, 0.5f, 0.5f);
  EXPECT_EQ(engine.probeTick, tick);
  EXPECT_EQ(record_.probe.fillIndex, 0);
  EXPECT_EQ(record_.state, SENTINEL);
  EXPECT_EQ(record_.rates[0], SENTINEL);

  // Active with no record (the bridge unloaded and the probe switched on again): the engine runs
  // on and writes nothing; its own step list is still emptied at the fill.
  engine.probeActive = 1;
  matlabProbe = nullptr;
  for (int32_t s = 0; s <= 100; ++s) RunSymbol(s, ndata, 1);
  ProbeStoreBlockState(BLOCK_MODE_DETECT);
  ProbeStoreRates(0.5f, 0.5f, 0.5f);
  EXPECT_EQ(engine.jumpListCount, 0);
  EXPECT_EQ(record_.probe.fillIndex, 0);
  // A timing period of 0 (a bad parameter file) adds nothing and does not divide by zero.
  ProbeNoteTimingStep(7, 0, 3);
  EXPECT_EQ(engine.jumpListCount, 0);
}

TEST_F(ProbeFill, BlockStateAndRatesGoToTheirCells) {
  int fd = eventfd(0, EFD_NONBLOCK);
  ASSERT_GT(fd, 0);
  record_.probe.updateEvent = fd;
  ProbeStoreBlockState(BLOCK_COARSE_SYNC);
  EXPECT_DOUBLE_EQ(record_.state, 1.0);
  uint64_t events = 0;
  ASSERT_EQ(read(fd, &events, sizeof events), static_cast<ssize_t>(sizeof events));
  // In tracking the frame fill reports the state; the block loop does not.
  ProbeStoreBlockState(BLOCK_TRACKING);
  EXPECT_DOUBLE_EQ(record_.state, 1.0);
  EXPECT_LT(read(fd, &events, sizeof events), 0);
  close(fd);

  ProbeStoreRates(0.25f, 0.125f, 0.5f);
  EXPECT_DOUBLE_EQ(record_.rates[0], 0.25);
  EXPECT_DOUBLE_EQ(record_.rates[1], 0.125);
  EXPECT_DOUBLE_EQ(record_.rates[2], 0.5);

  // A record without an event (descriptor 0): the state is stored, nothing is signalled.
  record_.probe.updateEvent = 0;
  ProbeStoreBlockState(BLOCK_NO_SIGNAL);
  EXPECT_DOUBLE_EQ(record_.state, -2.0);
}

}  // namespace
}  // namespace zfn
