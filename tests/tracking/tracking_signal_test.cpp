// The tracking stage on a generated ISDB-T segment signal: constellations, SNR against C/N, the
// timing loop under a sample clock offset, the frequency loop, echoes inside the guard interval.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "shell/receiver_state.h"
#include "tracking/tracker_state.h"
#include "tracking_test_support.h"

namespace zfn {
namespace {

constexpr int64_t FIRST_SYMBOL = 4;

double ErrorDb(const test::SegmentSignal& signal, const test::SymbolWalker& walker) {
  // ProcessSymbol hands over the symbol three before the one just read.
  return 10.0 * std::log10(test::EqualiserErrorPower(signal, walker.handedOver()));
}

struct Case {
  int mode, guard, bits;
};

class CleanConstellation : public ::testing::TestWithParam<Case> {};

TEST_P(CleanConstellation, CarriersSitOnTheirPoints) {
  const Case c = GetParam();
  test::PrepareEngine(c.mode, c.guard, c.bits);
  test::ChannelModel clean;
  test::SegmentSignal signal(c.mode, c.guard, c.bits, clean);
  test::SymbolWalker walker(signal, FIRST_SYMBOL);
  walker.Run(60);
  double worst = -200.0;
  for (int i = 0; i < 8; ++i) {
    walker.Step();
    worst = std::max(worst, ErrorDb(signal, walker));
  }
  EXPECT_LT(worst, -30.0);
  EXPECT_GT(engine.snrDb, 30.0f);
  EXPECT_EQ(walker.timingSum(), 0);
}

INSTANTIATE_TEST_SUITE_P(AllModes, CleanConstellation,
                         ::testing::Values(Case{0, 2, 2}, Case{0, 0, 4}, Case{0, 3, 6}, Case{1, 1, 2},
                                           Case{1, 2, 4}, Case{1, 3, 6}, Case{2, 2, 2}, Case{2, 0, 4},
                                           Case{2, 3, 6}));

}  // namespace
}  // namespace zfn
