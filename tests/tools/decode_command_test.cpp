// zfnisdbt decode as a user runs it: a capture from our transmitter comes back as the transport
// stream that went in, the JSON summary parses and says what was received, and bad input files get
// their message and exit status.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "simulator/transmitter.h"

namespace {

constexpr size_t BLOCK_BYTES = 240640;
constexpr size_t PACKET = 188;

std::string TempPath(const std::string& leaf) {
  return "/tmp/tooling_decode_" + std::to_string(getpid()) + "_" + leaf;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string& path, const void* data, size_t size) {
  std::ofstream out(path, std::ios::binary);
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
}

struct Result {
  int status = -1;
  std::string out, err;
};

// Runs the program with the given arguments (already quoted where needed).
Result RunProgram(const std::string& arguments) {
  const std::string out = TempPath("stdout"), err = TempPath("stderr");
  const std::string command = std::string("LD_LIBRARY_PATH=") + ZFN_LIBRARY_DIR + " " + ZFN_PROGRAM + " decode " + arguments +
                              " >" + out + " 2>" + err;
  const int raw = std::system(command.c_str());
  Result r;
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = ReadAll(out);
  r.err = ReadAll(err);
  std::remove(out.c_str());
  std::remove(err.c_str());
  return r;
}

std::string LastLine(const std::string& text) {
  std::string t = text;
  while (!t.empty() && t.back() == '\n') t.pop_back();
  const size_t nl = t.rfind('\n');
  return nl == std::string::npos ? t : t.substr(nl + 1);
}

// A flat JSON object of numbers, strings and nulls: key -> value as written (strings unquoted).
// false if the text is not such an object.
bool ParseFlatJson(const std::string& text, std::map<std::string, std::string>* fields) {
  size_t i = 0;
  auto skip = [&] { while (i < text.size() && (text[i] == ' ' || text[i] == '\n')) ++i; };
  auto string = [&](std::string* s) {
    if (i >= text.size() || text[i] != '"') return false;
    const size_t end = text.find('"', i + 1);
    if (end == std::string::npos) return false;
    *s = text.substr(i + 1, end - i - 1);
    i = end + 1;
    return true;
  };
  skip();
  if (i >= text.size() || text[i++] != '{') return false;
  for (;;) {
    skip();
    std::string key, value;
    if (!string(&key)) return false;
    skip();
    if (i >= text.size() || text[i++] != ':') return false;
    skip();
    if (i < text.size() && text[i] == '"') {
      if (!string(&value)) return false;
    } else if (text.compare(i, 4, "null") == 0) {
      value = "null";
      i += 4;
    } else {
      char* end = nullptr;
      std::strtod(text.c_str() + i, &end);
      if (end == text.c_str() + i) return false;
      value = text.substr(i, static_cast<size_t>(end - (text.c_str() + i)));
      i = static_cast<size_t>(end - text.c_str());
    }
    (*fields)[key] = value;
    skip();
    if (i < text.size() && text[i] == ',') {
      ++i;
      continue;
    }
    if (i < text.size() && text[i] == '}') {
      ++i;
      skip();
      return i == text.size();
    }
    return false;
  }
}

// A capture of the common broadcast (Mode 3, 1/8, QPSK 2/3, I = 4) with numbered test packets and
// a little noise, made once for the suite, with the packets that went in.
class DecodeCommand : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    zfn::sim::BroadcastConfig b;
    zfn::sim::ChannelConfig c;
    c.noise = true;
    c.cnDb = 20;
    std::string error;
    auto gen = zfn::sim::SignalGenerator::Create(b, c, zfn::sim::MakeTestPatternSource(7), &error);
    ASSERT_TRUE(gen) << error;
    gen->RecordPackets(true);
    // 40 whole blocks (2.37 s) and half a block more.
    capture_ = new std::vector<uint8_t>(40 * BLOCK_BYTES + BLOCK_BYTES / 2);
    gen->GenerateBytes(capture_->data(), capture_->size());
    sent_ = new std::vector<uint8_t>(gen->TransmittedPackets());
    path_ = new std::string(TempPath("capture"));
    WriteAll(*path_, capture_->data(), 40 * BLOCK_BYTES);
  }
  static void TearDownTestSuite() {
    std::remove(path_->c_str());
    delete capture_;
    delete sent_;
    delete path_;
  }

  // The decoded stream must be the transmitted one from some packet on, within the first few
  // hundred packets (the start-up), and to its end.
  static void ExpectSentStream(const std::string& ts) {
    ASSERT_EQ(0u, ts.size() % PACKET);
    const size_t packets = ts.size() / PACKET;
    ASSERT_GE(packets, 256u);
    const std::string sent(sent_->begin(), sent_->end());
    size_t first = 0, at = std::string::npos;
    for (; first < packets && first < 400; ++first) {
      at = sent.find(ts.substr(first * PACKET, PACKET));
      if (at != std::string::npos && at % PACKET == 0) break;
    }
    ASSERT_LT(first, 400u) << "no transmitted packet among the first 400 decoded";
    const size_t rest = ts.size() - first * PACKET;
    ASSERT_LE(at + rest, sent.size());
    for (size_t k = 0; k < rest / PACKET; ++k) {
      ASSERT_EQ(sent.substr(at + k * PACKET, PACKET), ts.substr((first + k) * PACKET, PACKET))
          << "decoded packet " << first + k;
    }
    EXPECT_GE(rest / PACKET, packets / 2);
  }

  static std::vector<uint8_t>* capture_;
  static std::vector<uint8_t>* sent_;
  static std::string* path_;
};

std::vector<uint8_t>* DecodeCommand::capture_ = nullptr;
std::vector<uint8_t>* DecodeCommand::sent_ = nullptr;
std::string* DecodeCommand::path_ = nullptr;

TEST_F(DecodeCommand, StreamComesBackAndTheSummaryTellsTheBroadcast) {
  const std::string ts = TempPath("out.ts");
  const Result r = RunProgram(*path_ + " --output " + ts + " --json");
  ASSERT_EQ(0, r.status) << r.err;
  ExpectSentStream(ReadAll(ts));
  std::remove(ts.c_str());

  std::map<std::string, std::string> f;
  ASSERT_TRUE(ParseFlatJson(LastLine(r.out), &f)) << r.out;
  for (const char* key : {"signal_seconds", "cpu_seconds", "realtime_factor", "blocks", "packets", "rs_ok",
                          "rs_corrected", "rs_failed", "final_state", "mode", "guard", "modulation", "code_rate",
                          "interleave", "snr_db"}) {
    EXPECT_TRUE(f.count(key)) << key;
  }
  EXPECT_EQ("40", f["blocks"]);
  EXPECT_EQ("tracking", f["final_state"]);
  EXPECT_EQ("3", f["mode"]);
  EXPECT_EQ("1/8", f["guard"]);
  EXPECT_EQ("QPSK", f["modulation"]);
  EXPECT_EQ("2/3", f["code_rate"]);
  EXPECT_EQ("3", f["interleave"]);
  EXPECT_NEAR(40 * 60160 / (64e6 / 63), std::stod(f["signal_seconds"]), 1e-4);
  EXPECT_GT(std::stod(f["snr_db"]), 10.0);
  // Every packet through Reed-Solomon is counted once; the delivered ones come in blocks of 128.
  const long long decoded = std::stoll(f["rs_ok"]) + std::stoll(f["rs_corrected"]) + std::stoll(f["rs_failed"]);
  const long long delivered = std::stoll(f["packets"]);
  EXPECT_EQ(0, delivered % 128);
  EXPECT_GE(decoded, delivered);
  EXPECT_LT(decoded, delivered + 128);
  EXPECT_EQ("0", f["rs_failed_streaming"]);
  EXPECT_EQ("0", f["tracking_losses"]);
  EXPECT_NE(std::string::npos, r.err.find("Mode 3, guard 1/8, QPSK 2/3"));
}

// With the stream on standard output the summary and its JSON line go to standard error, and a
// part block at the end is left undecoded with a word, not an error.
TEST_F(DecodeCommand, StreamOnStandardOutputAndAPartBlockAtTheEnd) {
  const std::string odd = TempPath("odd");
  WriteAll(odd, capture_->data(), capture_->size());
  const Result r = RunProgram(odd + " --output - --json");
  std::remove(odd.c_str());
  ASSERT_EQ(0, r.status) << r.err;
  ExpectSentStream(r.out);
  EXPECT_NE(std::string::npos, r.err.find("the last 120320 bytes are not a whole block"));
  std::map<std::string, std::string> f;
  ASSERT_TRUE(ParseFlatJson(LastLine(r.err), &f)) << r.err;
  EXPECT_EQ("40", f["blocks"]);
  EXPECT_EQ("120320", f["trailing_bytes"]);
}

TEST_F(DecodeCommand, BadInputsGetTheirMessageAndStatus) {
  const std::string empty = TempPath("empty"), dir = TempPath("dir"), shortFile = TempPath("short");
  WriteAll(empty, "", 0);
  ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
  WriteAll(shortFile, capture_->data(), BLOCK_BYTES - 4);
  struct Case {
    std::string arguments;
    int status;
    const char* message;
  };
  const Case cases[] = {
      {TempPath("missing"), 1, "cannot open"},
      {empty, 1, "is empty"},
      {dir, 1, "is a directory"},
      {shortFile, 1, "is truncated: 240636 bytes, less than one block"},
      {"- < " + empty, 1, "'standard input' is empty"},
      {"- < " + shortFile + " --output " + TempPath("never.ts"), 1, "'standard input' is truncated: 240636 bytes"},
      {*path_ + " --output /nonexistent_dir/x.ts", 1, "cannot write"},
      {shortFile + " --output " + shortFile, 1, "is truncated"},
      {*path_ + " --output " + *path_, 1, "is the input itself"},
      {"", 2, "no input file"},
      {*path_ + " --speed 3", 2, "unknown option '--speed'"},
      {*path_ + " --output", 2, "--output needs"},
  };
  for (const Case& c : cases) {
    const Result r = RunProgram(c.arguments);
    EXPECT_EQ(c.status, r.status) << c.arguments << ": " << r.err;
    EXPECT_NE(std::string::npos, r.err.find(c.message)) << c.arguments << ": " << r.err;
    EXPECT_EQ("", r.out) << c.arguments;
  }
  EXPECT_NE(0, access(TempPath("never.ts").c_str(), F_OK)) << "an output with nothing decoded into it is removed";
  struct stat st {};
  ASSERT_EQ(0, stat(path_->c_str(), &st));
  EXPECT_EQ(static_cast<off_t>(40 * BLOCK_BYTES), st.st_size) << "the capture is left as it was";
  std::remove(empty.c_str());
  std::remove(shortFile.c_str());
  rmdir(dir.c_str());
}

// A signal the engine cannot lock to (only noise) decodes to no stream and says so, without failing.
TEST_F(DecodeCommand, NoiseGivesNoLockAndNoStream) {
  std::vector<uint8_t> noise(6 * BLOCK_BYTES);
  uint64_t s = 12345;
  for (auto& b : noise) {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    b = static_cast<uint8_t>(127 + static_cast<int>(s % 57) - 28);
  }
  const std::string path = TempPath("noise");
  WriteAll(path, noise.data(), noise.size());
  const Result r = RunProgram(path + " --json");
  std::remove(path.c_str());
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("no lock"));
  std::map<std::string, std::string> f;
  ASSERT_TRUE(ParseFlatJson(LastLine(r.out), &f)) << r.out;
  EXPECT_EQ("0", f["packets"]);
  EXPECT_EQ("null", f["mode"]);
  EXPECT_NE("tracking", f["final_state"]);
}

}  // namespace
