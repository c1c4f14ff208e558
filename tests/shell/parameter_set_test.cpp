// The parameter set: defaults, the values forced per mode, and the three text files with their
// scan rules.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "shell/block_ring.h"
#include "shell/diagnostics.h"
#include "shell/receiver_state.h"
#include "shell/sync_driver.h"
#include "shell/stages.h"

namespace zfn {
namespace {

// Runs each case in a fresh directory of its own, since the files are read from the current one.
class ParameterFiles : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(getcwd(oldDir_, sizeof oldDir_), nullptr);
    dir_ = testing::TempDir() + "zfn_params_XXXXXX";
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    engine.modeGuard = &engine.modeGuardRecord;
    LoadParameterSet(PARAM_DEFAULTS);
  }
  void TearDown() override {
    for (const char* f : {"ParaSet.txt", "ParaSetCE.txt", "ParaSetOther.txt"}) std::remove(f);
    ASSERT_EQ(chdir(oldDir_), 0);
    rmdir(dir_.c_str());
  }
  static void Write(const char* name, const std::string& text) { std::ofstream(name, std::ios::binary) << text; }
  char oldDir_[4096];
  std::string dir_;
};

// A well-formed file of label and value lines.
std::string Pairs(const std::vector<std::string>& values) {
  std::string out;
  for (size_t i = 0; i < values.size(); ++i) out += "label " + std::to_string(i) + "\n" + values[i] + "\n";
  return out;
}

// The seven timing values of a tracking stage, in file order.
std::vector<double> Stage(int s) {
  return {static_cast<double>(engine.stageStartSymbol[s]), engine.stageSpanFraction[s], engine.stageLoopGain[s],
          static_cast<double>(engine.stageUpdatePeriod[s]), engine.stageStepFraction[s],
          static_cast<double>(engine.stageSpare[s]), static_cast<double>(engine.stageDeadZone[s])};
}
using Values = std::vector<double>;

// Debug command 3 asks for the parameter files or the defaults; the request is honoured between
// blocks. Missing files change nothing; well-formed ones set every field.
TEST_F(ParameterFiles, MissingFilesChangeNothingAndWellFormedFilesSetEveryField) {
  ASSERT_EQ(SyncDriverOpen(nullptr, nullptr), 1);
  const std::vector<uint8_t> block(RAW_BLOCK_BYTES);
  auto request = [&block](int32_t files) {
    EXPECT_EQ(DebugCommand(3, files), 1);
    EXPECT_EQ(engine.paramReloadRequest, files == 1 ? 1 : 2);
    EXPECT_EQ(SyncDriverFeed(block.data(), block.size()), 1);
    EXPECT_EQ(engine.paramReloadRequest, 0);
    EXPECT_EQ(engine.paramFilesActive, files);
  };
  engine.pilotGainScaleA = 1.5f;
  request(1);
  EXPECT_EQ((std::vector<float>{engine.pilotGainScaleA, static_cast<float>(engine.stageUpdatePeriod[1]), engine.stageLoopGain[0]}),
            (std::vector<float>{1.5f, 32.0f, 10.0f}));
  EXPECT_EQ(std::bit_cast<uint32_t>(engine.freqLoopGain), 0x31ABCC77u);

  std::vector<std::string> timing;
  for (int s = 0; s < 3; ++s) {
    for (const char* v : {"100", "0.25", "3.5", "16", "0.5", "7", "2"}) timing.push_back(v);
    timing[s * 7] = std::to_string(100 * (s + 1));
  }
  Write("ParaSet.txt", Pairs(timing));
  std::vector<std::string> ce;
  for (int i = 0; i < 18; ++i) ce.push_back(std::to_string(i) + ".5");
  for (const char* v : {"0.75", "1.25", "1234", "3.0", "0.001", "0.9", "0.3", "0.1", "0.15", "0.4", "0.45", "0.55"})
    ce.push_back(v);
  Write("ParaSetCE.txt", Pairs(ce));
  Write("ParaSetOther.txt", "a\n1.0\n\n\nb\n4.0\n");
  request(1);
  for (int s = 0; s < 3; ++s) EXPECT_EQ(Stage(s), (Values{100.0 * (s + 1), 0.25, 3.5, 16, 0.5, 7, 2}));
  EXPECT_EQ((std::vector<float>{engine.spareTapSets[17], engine.pilotGainScaleB, engine.qpskSoftTarget, engine.tapFloorC,
                                engine.freqLoopGain}),
            (std::vector<float>{17.5f, 1.25f, 3.0f, 0.55f, 0.25f}));

  // Back to defaults: stage 2, the pilot gain scales and guardScanStart have none and stay.
  request(0);
  SyncDriverClose();
  EXPECT_EQ(engine.stageStartSymbol[0], 0);
  EXPECT_EQ(Stage(2), (Values{0, 0.25, 3.5, 16, 0.5, 7, 2}));
  EXPECT_EQ((std::vector<float>{engine.pilotGainScaleA, engine.qpskSoftTarget}), (std::vector<float>{0.75f, 4.0f}));
  EXPECT_EQ(engine.guardScanStart, 1234);
}

// The scan rules. A value with text in it ("2,5") is taken up to the text, and the rest becomes
// the next label: from there label lines are scanned as values (and fail, repeating the last value
// of their type) and value lines are skipped as labels, until the pairs line up again; past the
// end of the file every value repeats the last one read of its type. Values beyond any meaning
// are cut, and what is not a finite number does not scan. freqLoopGain is a / b of
// ParaSetOther.txt: a missing b repeats a, nothing read is 0 / 0, b = 0 is not refused, and a
// label of more than 99 characters spills into the value read.
TEST_F(ParameterFiles, ScanRules) {
  Write("ParaSet.txt", Pairs({"11", "0.5", "2,5", "12", "0.75", "13", "14"}));
  LoadParameterSet(PARAM_FROM_FILES);
  EXPECT_EQ(Stage(0), (Values{11, 0.5, 2, 11, 12, 0, 0}));
  EXPECT_EQ(Stage(1), (Values{13, 14, 14, 13, 14, 13, 13}));
  EXPECT_EQ(Stage(2), (Values{13, 14, 14, 13, 14, 13, 13}));
  Write("ParaSet.txt", Pairs({"99999999999999999999", "1e39", "-1e300", "-2147483649", "nan", "7", "inf"}));
  LoadParameterSet(PARAM_FROM_FILES);
  EXPECT_EQ(Stage(0), (Values{1e6, 1e6, -1e6, -1e6, -1e6, 7, 7}));
  for (const auto& [text, gain] : {std::pair<std::string, float>{"a\n3.0\nb\n", 1.0f}, {"", NAN},
                                   {"a\n1.0\nb\n0\n", INFINITY}, {std::string(150, 'x') + "\n8.0\nb\n2.0\n", 0.0f},
                                   {std::string(99, 'y') + "\n8.0\nb\n2.0\n", 4.0f}}) {
    Write("ParaSetOther.txt", text);
    LoadParameterSet(PARAM_FROM_FILES);
    EXPECT_TRUE(engine.freqLoopGain == gain || (std::isnan(gain) && std::isnan(engine.freqLoopGain)))
        << engine.freqLoopGain << " for " << text.substr(0, 12);
  }
}

// Lines of 300000 characters, one without a newline, and numbers of any length are read safely
// (random bytes are the parameter-file fuzz target's). A FIFO in place of a file would block the
// reader until someone writes: it is not read.
TEST_F(ParameterFiles, LongLinesAndAFifoAreReadSafely) {
  Write("ParaSet.txt", std::string(300000, '7'));
  Write("ParaSetCE.txt", "\n" + std::string(300000, '9') + "\n");
  ASSERT_EQ(mkfifo("ParaSetOther.txt", 0600), 0);
  LoadParameterSet(PARAM_FROM_FILES);
}

TEST_F(ParameterFiles, ByModeOverridesStagesZeroAndOne) {
  Write("ParaSet.txt", Pairs({"1", "0.3", "2.0", "4", "0.9", "5", "6", "7", "0.3", "2.0", "4", "0.9", "5", "6", "9",
                              "0.2", "3.0", "64", "0.05", "1", "2"}));
  LoadParameterSet(PARAM_FROM_FILES);
  engine.modeGuardRecord = {2, 1};  // index 9
  LoadParameterSet(PARAM_BY_MODE);
  EXPECT_EQ(engine.stageStartSymbol[0] + engine.stageStartSymbol[2], 0);
  EXPECT_EQ(engine.stageStartSymbol[1], 5000);
  EXPECT_EQ(engine.stageStepFraction[0], 0.0625f);
  EXPECT_EQ(engine.stageDeadZone[1], 0);
  EXPECT_EQ(engine.stageSpanFraction[1], 0.125f);
  EXPECT_EQ(engine.stageUpdatePeriod[2], 64) << "stage 2 from the file persists";
  engine.modeGuardRecord = {1, 3};  // index 7
  LoadParameterSet(PARAM_BY_MODE);
  EXPECT_EQ(engine.stageStepFraction[0], 0.03125f);
  EXPECT_EQ(engine.stageDeadZone[1], 1);
  LoadParameterSet(7);  // unknown source: nothing
  EXPECT_EQ(engine.stageDeadZone[1], 1);
}

}  // namespace
}  // namespace zfn
