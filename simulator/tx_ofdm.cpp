// Layer chain of segment 0 and OFDM synthesis. See tx_ofdm.h.
#include "simulator/tx_ofdm.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

namespace zfn::sim {

namespace {
// FFTW's planner is not re-entrant; the receiver may plan on its own threads at the same time,
// which the simulator library covers by making the planner thread safe. Within this component one
// lock suffices.
std::mutex& PlannerLock() {
  static std::mutex lock;
  return lock;
}
}  // namespace

TmccContent TmccOfConfig(const BroadcastConfig& b) {
  TmccContent t;
  t.systemId = b.systemId;
  t.partialReception = b.partialReception;
  t.layerA = {b.modulation, b.codeRate, b.interleave, 1};
  // The other twelve segments: layer B at rate 3/4 with interleaving index 2, the common setting.
  t.layerB = {b.neighbourModulation, 2, 2, 12};
  t.layerC = {};
  return t;
}

// ---------------------------------------------------------------------------------------------
LayerChain::LayerChain(const BroadcastConfig& b, PacketSource* source)
    : source_(source),
      packetsPerFrame_(zfn::sim::PacketsPerFrame(b)),
      q_(BitsPerCarrier(b.modulation)),
      nd_(NumbersOfMode(b.mode).nd),
      encoder_(b.codeRate),
      bitInterleaver_(BitsPerCarrier(b.modulation), NumbersOfMode(b.mode).nd),
      mapper_(BitsPerCarrier(b.modulation)),
      timeInterleaver_(NumbersOfMode(b.mode).nd, InterleaveLength(b.interleave, b.mode),
                       InterleaveAdjustment(InterleaveLength(b.interleave, b.mode))),
      randomise_(RandomisationTable(b.mode)) {
  const int length = InterleaveLength(b.interleave, b.mode);
  interleaveFrames_ = (95 * length + InterleaveAdjustment(length)) / kFrameSymbols;
  // Byte delay adjustment: T - 11 filler units ahead of the first packet, so that the byte
  // interleaver and de-interleaver together delay by exactly one frame of packets.
  fillersLeft_ = packetsPerFrame_ - 11;
  bytes_.resize(static_cast<size_t>(packetsPerFrame_));
  coded_.resize(static_cast<size_t>(nd_ * q_) + 16);
  delayed_.resize(static_cast<size_t>(nd_ * q_));
  mapped_.resize(static_cast<size_t>(nd_));
  interleaved_.resize(static_cast<size_t>(nd_));
  // Delay lines start full of random symbols, as in a transmitter that has been on the air.
  Rng rng(b.seed ^ 0x5EEDC0DEull);
  bitInterleaver_.FillRandom(b.seed ^ 0xB17ull);
  timeInterleaver_.FillWith([&] { return mapper_.MapIndex(static_cast<unsigned>(rng.Next() >> 58) >> (6 - q_)); });
  // The byte interleaver and the byte delay adjustment hold what a transmitter on the air sent
  // before: a frame of null packets, RS-coded and energy-dispersed like any other. Units 0..10 of
  // that frame fill the interleaver's lines (2244 bytes, a whole turn of the commutator, so it
  // stands at branch 0 again); units 11..T-1 are the fillers of the delay adjustment. Undispersed
  // zeros would be no broadcast: at rates 5/6 and 7/8 a long run of them does not decode.
  for (int u = 0; u < 11; ++u) {
    std::array<uint8_t, kUnitBytes> unit;
    MakeNullUnit(u, unit.data());
    for (uint8_t byte : unit) byteInterleaver_.Push(byte);
  }
}

void LayerChain::MakeNullUnit(int positionInFrame, uint8_t* unit) {
  std::array<uint8_t, kPacketBytes> packet;
  packet.fill(0xFF);
  packet[0] = 0x47;
  packet[1] = 0x1F;
  packet[2] = 0xFF;
  packet[3] = 0x10;
  std::array<uint8_t, kUnitBytes> coded{};
  rs_.Encode(packet.data(), coded.data());
  DispersalPrbs prbs;
  for (int i = 0; i < positionInFrame * kUnitBytes; ++i) prbs.NextByte();
  for (int i = 1; i < kUnitBytes; ++i) unit[i - 1] = coded[i] ^ prbs.NextByte();
  unit[kUnitBytes - 1] = coded[0];
}

void LayerChain::MakeUnit() {
  unitPos_ = 0;
  if (fillersLeft_ > 0) {
    MakeNullUnit(static_cast<int>(packetsPerFrame_ - fillersLeft_), unit_.data());
    --fillersLeft_;
    return;
  }
  std::array<uint8_t, kPacketBytes> packet{};
  source_->Next(packet.data());
  if (record_ != nullptr) record_->insert(record_->end(), packet.begin(), packet.end());
  std::array<uint8_t, kUnitBytes> coded{};
  rs_.Encode(packet.data(), coded.data());
  // Energy dispersal restarts at the first packet of every frame; its first byte goes onto the
  // byte after the sync byte, and the generator runs on unused through each sync byte.
  if (packetCount_ % packetsPerFrame_ == 0) prbs_.Reset();
  ++packetCount_;
  for (int i = 1; i < kUnitBytes; ++i) unit_[i - 1] = coded[i] ^ prbs_.NextByte();
  prbs_.NextByte();
  unit_[kUnitBytes - 1] = coded[0];
}

uint8_t LayerChain::NextUnitByte() {
  if (unitPos_ == kUnitBytes) MakeUnit();
  return unit_[unitPos_++];
}

void LayerChain::NextSymbol(std::complex<float>* slots) {
  // One OFDM symbol carries exactly T bytes of the byte interleaver's output: 204 symbols make T
  // packets, and each symbol holds whole puncturing periods.
  for (auto& byte : bytes_) byte = byteInterleaver_.Push(NextUnitByte());
  encoder_.EncodeBytes(bytes_, coded_.data());
  bitInterleaver_.Process(coded_.data(), delayed_.data(), nd_);
  for (int c = 0; c < nd_; ++c) mapped_[c] = mapper_.Map(&delayed_[static_cast<size_t>(c * q_)]);
  timeInterleaver_.Process(mapped_.data(), interleaved_.data());
  for (int i = 0; i < nd_; ++i) slots[randomise_[i]] = interleaved_[i];
}

// ---------------------------------------------------------------------------------------------
OfdmSynthesiser::OfdmSynthesiser(const BroadcastConfig& b, double filterShiftHz, int oversample)
    : nbMapper_(BitsPerCarrier(b.neighbourModulation)), nbBits_(BitsPerCarrier(b.neighbourModulation)), rng_(b.seed) {
  const ModeNumbers mn = NumbersOfMode(b.mode);
  const bool wholeBand = oversample > 1;
  m_ = 2 * oversample * mn.n1;
  ng_ = GuardSamples(m_, b.guard);
  nd_ = mn.nd;
  const int kc = 13 * mn.nc / 2;  // band carrier at the channel centre
  const std::vector<uint8_t> w = PilotSequence(b.mode);
  constexpr float kBoost = 4.0f / 3.0f;
  const double cutoff = b.wideDeviceFilter || wholeBand ? 1e12 : b.deviceFilterHz;
  binPower_.assign(static_cast<size_t>(m_), 0.0);

  // TMCC words of even and odd frames, accumulated for the differential encoding.
  const TmccContent content = TmccOfConfig(b);
  for (int odd = 0; odd < 2; ++odd) {
    auto word = BuildTmccWord(content, odd == 1);
    for (int bit : b.tmccFlips) word[static_cast<size_t>(20 + bit)] ^= 1;
    uint8_t acc = 0;
    for (int n = 0; n < 204; ++n) {
      if (n > 0) acc ^= word[n];
      tmccCum_[odd][n] = acc;
    }
  }

  double powerSum[4] = {0, 0, 0, 0};
  std::vector<int> acBins;
  std::vector<uint8_t> acRef;
  // Segments in frequency order around segment 0; the whole band from segment 11 up to 12.
  constexpr int kNear[5] = {3, 1, 0, 2, 4};
  constexpr int kBand[13] = {11, 9, 7, 5, 3, 1, 0, 2, 4, 6, 8, 10, 12};
  const std::span<const int> segments = wholeBand ? std::span<const int>(kBand) : std::span<const int>(kNear);
  for (int seg : segments) {
    const int pos = PositionOfSegment(seg);
    const SegmentCarriers sc = CarriersOfSegment(b.mode, seg);
    for (int j = 0; j < mn.nc; ++j) {
      const int k = pos * mn.nc + j;
      const int offset = k - kc;
      if (std::abs(offset) >= m_ / 2) continue;
      if (std::fabs(offset * mn.spacingHz - filterShiftHz) > cutoff) continue;
      const int bin = BinOf(offset);
      const bool isTmcc = std::find(sc.tmcc.begin(), sc.tmcc.end(), j) != sc.tmcc.end();
      const bool isAc = std::find(sc.ac.begin(), sc.ac.end(), j) != sc.ac.end();
      if (isTmcc) {
        dbpskBins_.push_back(bin);
        dbpskRef_.push_back(w[static_cast<size_t>(k)]);
      } else if (isAc) {
        acBins.push_back(bin);
        acRef.push_back(w[static_cast<size_t>(k)]);
      }
      for (int phase = 0; phase < 4; ++phase) {
        double power = 1.0;
        if (isTmcc || isAc) {
          power = 16.0 / 9.0;
        } else if (j % 12 == 3 * phase) {
          pilotBins_[phase].push_back(bin);
          pilotValues_[phase].push_back(w[static_cast<size_t>(k)] ? -kBoost : kBoost);
          power = 16.0 / 9.0;
        } else if (seg == 0) {
          seg0DataBins_[phase].push_back(bin);
        } else {
          nbDataBins_[phase].push_back(bin);
        }
        powerSum[phase] += power;
        binPower_[static_cast<size_t>(bin)] += power / 4.0;
      }
    }
  }
  if (wholeBand) {  // the continual pilot above the last segment, band carrier 13 Nc
    const int k = 13 * mn.nc;
    const int bin = BinOf(k - kc);
    for (int phase = 0; phase < 4; ++phase) {
      pilotBins_[phase].push_back(bin);
      pilotValues_[phase].push_back(w[static_cast<size_t>(k)] ? -kBoost : kBoost);
      powerSum[phase] += 16.0 / 9.0;
    }
    binPower_[static_cast<size_t>(bin)] += 16.0 / 9.0;
  }
  tmccCount_ = static_cast<int>(dbpskBins_.size());
  dbpskBins_.insert(dbpskBins_.end(), acBins.begin(), acBins.end());
  dbpskRef_.insert(dbpskRef_.end(), acRef.begin(), acRef.end());
  segment0Power_ = nd_ + (mn.nc - nd_) * 16.0 / 9.0;
  totalPower_ = (powerSum[0] + powerSum[1] + powerSum[2] + powerSum[3]) / 4.0;

  freq_ = static_cast<std::complex<float>*>(fftwf_malloc(sizeof(std::complex<float>) * static_cast<size_t>(m_)));
  time_ = static_cast<std::complex<float>*>(fftwf_malloc(sizeof(std::complex<float>) * static_cast<size_t>(m_)));
  std::memset(static_cast<void*>(freq_), 0, sizeof(std::complex<float>) * static_cast<size_t>(m_));
  std::lock_guard<std::mutex> lock(PlannerLock());
  plan_ = fftwf_plan_dft_1d(m_, reinterpret_cast<fftwf_complex*>(freq_), reinterpret_cast<fftwf_complex*>(time_),
                            FFTW_BACKWARD, FFTW_ESTIMATE | FFTW_PRESERVE_INPUT);
}

OfdmSynthesiser::~OfdmSynthesiser() {
  {
    std::lock_guard<std::mutex> lock(PlannerLock());
    if (plan_ != nullptr) fftwf_destroy_plan(static_cast<fftwf_plan>(plan_));
  }
  fftwf_free(freq_);
  fftwf_free(time_);
}

void OfdmSynthesiser::Synthesise(int64_t frame, int n, const std::complex<float>* seg0Slots, std::complex<float>* out) {
  const int phase = n % 4;
  constexpr float kBoost = 4.0f / 3.0f;
  const auto& dataBins = seg0DataBins_[phase];
  for (size_t s = 0; s < dataBins.size(); ++s) freq_[dataBins[s]] = seg0Slots[s];

  // Neighbours: random symbols of layer B's modulation, bits drawn 60 at a time.
  const auto& nbBins = nbDataBins_[phase];
  const unsigned mask = (1u << nbBits_) - 1u;
  const int perDraw = 60 / nbBits_;
  uint64_t bits = 0;
  int left = 0;
  for (int bin : nbBins) {
    if (left == 0) {
      bits = rng_.Next();
      left = perDraw;
    }
    freq_[bin] = nbMapper_.MapIndex(static_cast<unsigned>(bits) & mask);
    bits >>= nbBits_;
    --left;
  }

  const auto& pBins = pilotBins_[phase];
  const auto& pVals = pilotValues_[phase];
  for (size_t i = 0; i < pBins.size(); ++i) freq_[pBins[i]] = {pVals[i], 0.0f};

  // TMCC and AC: DBPSK against the carrier's own pilot bit in symbol 0 of every frame; AC sends
  // all ones (no auxiliary data), a reversal in every symbol.
  const uint8_t tmccAcc = tmccCum_[static_cast<size_t>(frame & 1)][static_cast<size_t>(n)];
  const uint8_t acAcc = static_cast<uint8_t>(n & 1);
  for (size_t i = 0; i < dbpskBins_.size(); ++i) {
    const uint8_t bit = dbpskRef_[i] ^ (static_cast<int>(i) < tmccCount_ ? tmccAcc : acAcc);
    freq_[dbpskBins_[i]] = {bit ? -kBoost : kBoost, 0.0f};
  }

  fftwf_execute(static_cast<fftwf_plan>(plan_));
  std::memcpy(static_cast<void*>(out), time_ + (m_ - ng_), sizeof(std::complex<float>) * static_cast<size_t>(ng_));
  std::memcpy(static_cast<void*>(out + ng_), time_, sizeof(std::complex<float>) * static_cast<size_t>(m_));
}

}  // namespace zfn::sim
