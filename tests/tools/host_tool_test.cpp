// zfnisdbt receive and scan as people use them, on the simulator through the public library: a
// player that pauses for five seconds still gets every packet (and one that stays away longer
// than the ring holds loses whole calls, counted), the same stream goes out as UDP
// datagrams of seven packets, the status comes as JSON lines, ffprobe and ffmpeg take the stream
// for the programme that went in, and a scan finds exactly the channels that carry a broadcast.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tools/stream_output.h"

namespace {

constexpr size_t PACKET = 188;

std::string TempPath(const std::string& leaf) { return "/tmp/tooling_host_" + std::to_string(getpid()) + "_" + leaf; }

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs a shell command; the exit status.
int Shell(const std::string& command) {
  const int raw = std::system(command.c_str());
  return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

std::string Program() { return std::string("LD_LIBRARY_PATH=") + ZFN_LIBRARY_DIR + " " + ZFN_PROGRAM; }

// A small JSON reader: enough to check that a line is one valid JSON value and to look into it.
struct Json {
  enum Kind { Null, Bool, Number, String, Array, Object } kind = Null;
  double number = 0;
  std::string text;  // string value, or "true"/"false"
  std::vector<Json> items;
  std::vector<std::pair<std::string, Json>> members;

  const Json& operator[](const std::string& key) const {
    static const Json none;
    for (const auto& [k, v] : members)
      if (k == key) return v;
    return none;
  }
  bool Has(const std::string& key) const {
    for (const auto& m : members)
      if (m.first == key) return true;
    return false;
  }
};

class JsonParser {
 public:
  explicit JsonParser(const std::string& s) : s_(s) {}
  // False unless the whole text is one value.
  bool Parse(Json* out) {
    if (!Value(out)) return false;
    Space();
    return i_ == s_.size();
  }

 private:
  void Space() {
    while (i_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[i_]))) ++i_;
  }
  bool Literal(const char* word) {
    const std::string w = word;
    if (s_.compare(i_, w.size(), w) != 0) return false;
    i_ += w.size();
    return true;
  }
  bool Str(std::string* out) {
    if (i_ >= s_.size() || s_[i_] != '"') return false;
    for (++i_; i_ < s_.size(); ++i_) {
      const char c = s_[i_];
      if (c == '"') {
        ++i_;
        return true;
      }
      if (static_cast<unsigned char>(c) < 0x20) return false;
      if (c == '\\') {
        if (++i_ >= s_.size()) return false;
        if (s_[i_] == 'u') {
          if (i_ + 4 >= s_.size()) return false;
          i_ += 4;
          *out += '?';
          continue;
        }
        if (std::string("\"\\/bfnrt").find(s_[i_]) == std::string::npos) return false;
      }
      *out += s_[i_];
    }
    return false;
  }
  bool Value(Json* v) {
    Space();
    if (i_ >= s_.size()) return false;
    const char c = s_[i_];
    if (c == '{') {
      v->kind = Json::Object;
      ++i_;
      Space();
      if (i_ < s_.size() && s_[i_] == '}') return ++i_, true;
      for (;;) {
        Space();
        std::string key;
        if (!Str(&key)) return false;
        Space();
        if (i_ >= s_.size() || s_[i_++] != ':') return false;
        Json member;
        if (!Value(&member)) return false;
        v->members.emplace_back(key, std::move(member));
        Space();
        if (i_ < s_.size() && s_[i_] == ',') {
          ++i_;
          continue;
        }
        return i_ < s_.size() && s_[i_++] == '}';
      }
    }
    if (c == '[') {
      v->kind = Json::Array;
      ++i_;
      Space();
      if (i_ < s_.size() && s_[i_] == ']') return ++i_, true;
      for (;;) {
        Json item;
        if (!Value(&item)) return false;
        v->items.push_back(std::move(item));
        Space();
        if (i_ < s_.size() && s_[i_] == ',') {
          ++i_;
          continue;
        }
        return i_ < s_.size() && s_[i_++] == ']';
      }
    }
    if (c == '"') {
      v->kind = Json::String;
      return Str(&v->text);
    }
    if (Literal("null")) return v->kind = Json::Null, true;
    if (Literal("true")) return v->kind = Json::Bool, v->text = "true", true;
    if (Literal("false")) return v->kind = Json::Bool, v->text = "false", true;
    const char* begin = s_.c_str() + i_;
    char* end = nullptr;
    v->number = std::strtod(begin, &end);
    if (end == begin) return false;
    v->kind = Json::Number;
    i_ += static_cast<size_t>(end - begin);
    return true;
  }

  const std::string& s_;
  size_t i_ = 0;
};

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// A UDP receiver on a free port of the loopback interface, collecting datagrams on a thread.
class UdpSink {
 public:
  UdpSink() {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    const int size = 8 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    timeval t{0, 200000};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t length = sizeof a;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &length);
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] {
      std::vector<char> buffer(65536);
      while (!stop_.load()) {
        const ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
        if (n >= 0) datagrams_.emplace_back(buffer.data(), static_cast<size_t>(n));
      }
    });
  }
  ~UdpSink() { Stop(); }
  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  int Port() const { return port_; }
  const std::vector<std::string>& Datagrams() const { return datagrams_; }

 private:
  int fd_ = -1, port_ = 0;
  std::atomic<bool> stop_{false};
  std::vector<std::string> datagrams_;
  std::thread thread_;
};

// One run for all receive checks (each test case is a process of its own): five seconds of the
// simulated programme, no noise, to standard output, read by a player
// that starts reading only after five seconds; the same stream to UDP; the status as JSON lines.
// The first call of 128 packets may hold the receiver's start-up; the checks of content skip it.
TEST(ReceiveCommand, PausingPlayerGetsEveryPacketAlsoOverUdpJsonStatusAndRealPlayersTakeIt) {
  UdpSink udp;
  const std::string out = TempPath("slow.ts"), err = TempPath("err"), statusPath = TempPath("status");
  Shell("(" + Program() + " receive --simulate --channel 13 --seconds 5 --output - --json --udp 127.0.0.1:" +
        std::to_string(udp.Port()) + " 2>" + err + "; echo $? >" + statusPath + ") | (sleep 5; cat >" + out + ")");
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  udp.Stop();
  const std::string ts = ReadAll(out), stderrText = ReadAll(err);
  const int status = std::atoi(ReadAll(statusPath).c_str());
  for (const std::string& p : {out, err, statusPath}) std::remove(p.c_str());
  ASSERT_EQ(0, status) << stderrText;
  ASSERT_EQ(0u, ts.size() % PACKET);
  ASSERT_GE(ts.size() / PACKET, 384u) << stderrText;
  for (size_t at = 128 * PACKET; at < ts.size(); at += PACKET) {
    ASSERT_EQ(0x47, static_cast<uint8_t>(ts[at])) << "packet " << at / PACKET;
  }

  {
    SCOPED_TRACE("every line that starts with '{' is one JSON object: status lines, then the summary");
    std::vector<Json> lines;
    Json summary;
    for (const std::string& line : Lines(stderrText)) {
      if (line.empty() || line[0] != '{') continue;
      Json j;
      ASSERT_TRUE(JsonParser(line).Parse(&j)) << line;
      if (j.Has("summary")) summary = j;
      else lines.push_back(j);
    }
    ASSERT_GE(lines.size(), 4u) << stderrText;
    for (const Json& line : lines) {
      for (const char* key : {"seconds", "present", "lock", "quality", "state", "mode", "guard", "modulation",
                              "code_rate", "interleave", "snr_db", "carrier_offset_hz", "packets", "dropped",
                              "services"}) {
        EXPECT_TRUE(line.Has(key)) << key;
      }
    }
    // The last line that names the service tells the broadcast (status word 2 gives the layer
    // with the refinements on).
    const Json* named = nullptr;
    for (const Json& line : lines) {
      if (line["state"].text == "tracking" && line["services"].items.size() == 1) named = &line;
    }
    ASSERT_NE(nullptr, named) << stderrText;
    EXPECT_EQ("QPSK", (*named)["modulation"].text);
    EXPECT_EQ("2/3", (*named)["code_rate"].text);
    EXPECT_EQ(4, (*named)["interleave_length"].number);
    EXPECT_EQ(3, (*named)["mode"].number);
    EXPECT_EQ("1/8", (*named)["guard"].text);
    EXPECT_EQ("Test pattern", (*named)["services"].items[0]["name"].text);

    SCOPED_TRACE("nothing was dropped: the player got every packet the library delivered");
    ASSERT_EQ(Json::Object, summary.kind) << stderrText;
    EXPECT_EQ(0, summary["dropped"].number);
    EXPECT_EQ(static_cast<double>(ts.size() / PACKET), summary["packets"].number);
    EXPECT_EQ(static_cast<double>(ts.size() / PACKET), summary["written"].number);
  }
  {
    SCOPED_TRACE("UDP carries the same stream in datagrams of seven packets");
    ASSERT_FALSE(udp.Datagrams().empty());
    std::string joined;
    for (const std::string& d : udp.Datagrams()) {
      ASSERT_EQ(7 * PACKET, d.size());
      joined += d;
    }
    EXPECT_EQ(ts.size() / PACKET / 7, udp.Datagrams().size());
    EXPECT_EQ(ts.substr(0, joined.size()), joined);
  }
  // ffprobe finds the programme's video and audio, and ffmpeg decodes the received video to
  // frames that are, checksum for checksum, frames of the programme that went in.
  if (Shell("command -v ffprobe >/dev/null && command -v ffmpeg >/dev/null") != 0) {
    GTEST_SKIP() << "ffprobe/ffmpeg not installed (scripts/setup.sh installs them): real players not tried";
  }
  const std::string received = TempPath("received.ts"), probe = TempPath("probe"), mine = TempPath("mine.md5"),
                    theirs = TempPath("theirs.md5");
  std::ofstream(received, std::ios::binary) << ts.substr(128 * PACKET);
  ASSERT_EQ(0, Shell("ffprobe -v error -show_entries stream=codec_type,codec_name -of csv=p=0 " + received + " >" + probe));
  const std::string streams = ReadAll(probe);
  EXPECT_NE(std::string::npos, streams.find("h264,video")) << streams;
  EXPECT_NE(std::string::npos, streams.find("aac,audio")) << streams;
  ASSERT_EQ(0, Shell("ffmpeg -v error -i " + received + " -map 0:v -f framemd5 " + mine));
  ASSERT_EQ(0, Shell(std::string("ffmpeg -v error -i ") + ZFN_SOURCE_DIR +
                     "/simulator/fixtures/programme.ts -map 0:v -f framemd5 " + theirs));
  auto checksums = [](const std::string& text) {
    std::vector<std::string> sums;
    for (const std::string& line : Lines(text)) {
      if (!line.empty() && line[0] != '#') sums.push_back(line.substr(line.rfind(',') + 1));
    }
    return sums;
  };
  const std::vector<std::string> decoded = checksums(ReadAll(mine)), sent = checksums(ReadAll(theirs));
  const std::set<std::string> programme(sent.begin(), sent.end());
  ASSERT_GE(decoded.size(), 10u);
  // The stream was cut when the receiver closed: the last frame may be incomplete.
  size_t unknown = 0;
  for (size_t k = 0; k + 1 < decoded.size(); ++k) unknown += programme.count(decoded[k]) == 0;
  EXPECT_EQ(0u, unknown) << "of " << decoded.size() << " decoded frames";
  for (const std::string& p : {received, probe, mine, theirs}) std::remove(p.c_str());
}

// A reader that stays away longer than the ring holds: whole calls are dropped and counted, what
// was taken is written in order once the reader comes back, and nothing is lost without a count.
TEST(StreamOutput, AReaderFarBehindLosesWholeCallsAndTheyAreCounted) {
  int pipeEnds[2];
  ASSERT_EQ(0, pipe(pipeEnds));
  zfn::tools::StreamOutput output;
  std::string error;
  ASSERT_TRUE(output.Start(pipeEnds[1], "", &error)) << error;
  constexpr size_t CALL = 128 * PACKET;
  const size_t calls = zfn::tools::StreamOutput::RING_BYTES / CALL + 40;
  std::vector<uint8_t> call(CALL);
  for (size_t k = 0; k < calls; ++k) {
    for (size_t p = 0; p < 128; ++p) {
      call[p * PACKET] = 0x47;
      std::memcpy(&call[p * PACKET + 4], &k, sizeof k);  // the call's number in every packet
    }
    output.Push(call.data(), call.size());
  }
  std::string got;
  std::thread reader([&] {
    std::vector<char> buffer(1 << 16);
    for (ssize_t n; (n = read(pipeEnds[0], buffer.data(), buffer.size())) > 0;) got.append(buffer.data(), static_cast<size_t>(n));
  });
  output.Finish();
  close(pipeEnds[1]);
  reader.join();
  close(pipeEnds[0]);
  EXPECT_EQ(0, output.WriteError());
  EXPECT_EQ(static_cast<int64_t>(calls * CALL), output.BytesReceived());
  EXPECT_GT(output.PacketsDropped(), 0);
  EXPECT_EQ(0, output.PacketsDropped() % 128) << "whole calls";
  EXPECT_EQ(output.BytesReceived(), output.BytesWritten() + output.PacketsDropped() * static_cast<int64_t>(PACKET));
  ASSERT_EQ(static_cast<size_t>(output.BytesWritten()), got.size());
  size_t previous = 0;
  for (size_t at = 0; at < got.size(); at += CALL) {
    size_t k = 0;
    std::memcpy(&k, &got[at + 4], sizeof k);
    if (at > 0) {
      EXPECT_GT(k, previous) << "calls stay in order";
    }
    previous = k;
  }
}

// Two channels of three carry the broadcast; the scan names exactly those, with the service.
TEST(ScanCommand, FindsExactlyTheChannelsOnAirWithTheirServiceNames) {
  const std::string out = TempPath("scan.out"), err = TempPath("scan.err");
  const int status = Shell("ZFNISDBT_SIM_SPEED=2 ZFNISDBT_SIM_CHANNELS=473143,485143 " + Program() +
                           " scan --simulate --band japan --channels 13-15 --json >" + out + " 2>" + err);
  const std::string text = ReadAll(out), progress = ReadAll(err);
  std::remove(out.c_str());
  std::remove(err.c_str());
  ASSERT_EQ(0, status) << progress;
  const std::vector<std::string> lines = Lines(text);
  ASSERT_FALSE(lines.empty());
  Json j;
  ASSERT_TRUE(JsonParser(lines.back()).Parse(&j)) << lines.back();
  EXPECT_EQ("japan", j["band"].text);
  const std::vector<Json>& channels = j["channels"].items;
  ASSERT_EQ(2u, channels.size()) << progress;
  const int expected[2][2] = {{13, 473143}, {15, 485143}};
  for (size_t k = 0; k < 2; ++k) {
    EXPECT_EQ(expected[k][0], channels[k]["channel"].number);
    EXPECT_EQ(expected[k][1], channels[k]["frequency_khz"].number);
    EXPECT_EQ("Test pattern", channels[k]["service_name"].text);
    ASSERT_EQ(1u, channels[k]["services"].items.size());
    EXPECT_EQ(1, channels[k]["services"].items[0]["id"].number);
    EXPECT_EQ(3, channels[k]["mode"].number);
    EXPECT_EQ("1/8", channels[k]["guard"].text);
  }
  EXPECT_NE(std::string::npos, progress.find("channel 14 (479143 kHz) ... nothing")) << progress;
}

// Help on standard output for every command, the version, usage errors with status 2, and a
// capture that would replace an existing file is refused.
TEST(ToolCommandLine, HelpVersionUsageAndCaptureGuard) {
  const std::string out = TempPath("cl.out"), err = TempPath("cl.err");
  const struct {
    std::string arguments;
    int status;
    const char* text;  // in standard output for status 0, else in standard error
  } cases[] = {
      {"--version", 0, "zfnisdbt "},
      {"-V", 0, "zfnisdbt "},
      {"--help", 0, "scan"},
      {"receive --help", 0, "--udp HOST:PORT"},
      {"scan --help", 0, "--band"},
      {"decode --help", 0, "usage: zfnisdbt decode"},
      {"generate --help", 0, "generate"},
      {"receive --channel 70", 2, "channel 70 is not in the japan band (13..62)"},
      {"receive --channel 13 --frequency 473143", 2, "not both"},
      {"scan --band mars", 2, "--band needs japan or brazil"},
      {"receive --gain loud", 2, "--gain needs a number"},
      {"receive --udp nowhere", 1, "--udp needs HOST:PORT"},
      {"receive --simulate --capture", 1, "BBStore0 exists"},
  };
  const std::string dir = TempPath("cwd");
  ASSERT_EQ(0, Shell("mkdir -p " + dir + " && touch " + dir + "/BBStore0"));
  for (const auto& c : cases) {
    const int status = Shell("cd " + dir + " && " + Program() + " " + c.arguments + " >" + out + " 2>" + err);
    EXPECT_EQ(c.status, status) << c.arguments;
    const std::string text = ReadAll(c.status == 0 ? out : err);
    EXPECT_NE(std::string::npos, text.find(c.text)) << c.arguments << ": " << text;
  }
  EXPECT_EQ(0u, ReadAll(dir + "/BBStore0").size()) << "the existing capture is left as it was";
  Shell("rm -rf " + dir);
  std::remove(out.c_str());
  std::remove(err.c_str());
}

}  // namespace
