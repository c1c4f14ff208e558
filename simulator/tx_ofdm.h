#pragma once
// Transmitter internals below the SignalGenerator: the layer chain of segment 0 and the OFDM
// synthesis of segments 3, 1, 0, 2, 4 at the device rate. Exposed for the tests.
#include <complex>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "simulator/transmitter.h"
#include "simulator/tx_random.h"
#include "simulator/tx_stages.h"

namespace zfn::sim {

// Layer A on segment 0: packets in, Nd carrier symbols per OFDM symbol out, in data slot order
// (after time interleaving and carrier randomisation). The first carrier symbol it makes belongs
// to data slot 0 of symbol 202 of a frame, counted at the time interleaver's input; the packet
// frames then line up with the OFDM frames as ARIB STD-B31 requires.
class LayerChain {
 public:
  LayerChain(const BroadcastConfig& b, PacketSource* source);
  void NextSymbol(std::complex<float>* slots);
  void SetRecord(std::vector<uint8_t>* record) { record_ = record; }
  int PacketsPerFrame() const { return packetsPerFrame_; }
  // Frames of delay of the time interleaver together with its receiver: (95*I + A) / 204.
  int InterleaveFrames() const { return interleaveFrames_; }

 private:
  uint8_t NextUnitByte();
  void MakeUnit();
  // The unit of a null packet at this position of its frame, dispersed.
  void MakeNullUnit(int positionInFrame, uint8_t* unit);

  PacketSource* source_;
  std::vector<uint8_t>* record_ = nullptr;
  int packetsPerFrame_;
  int q_;
  int nd_;
  int interleaveFrames_;
  RsEncoder rs_;
  DispersalPrbs prbs_;
  ByteInterleaver byteInterleaver_;
  ConvolutionalEncoder encoder_;
  BitInterleaver bitInterleaver_;
  Mapper mapper_;
  TimeInterleaver timeInterleaver_;
  std::span<const int32_t> randomise_;
  std::array<uint8_t, kUnitBytes> unit_{};
  int unitPos_ = kUnitBytes;
  int64_t fillersLeft_;
  int64_t packetCount_ = 0;
  std::vector<uint8_t> bytes_, coded_, delayed_;
  std::vector<std::complex<float>> mapped_, interleaved_;
};

// OFDM synthesis at 2 x 64/63 MHz: a transform of 2*n1 points, segment 0's carrier Nc/2 on
// bin 0, guard interval as cyclic prefix, the carriers of segments 3, 1, 0, 2, 4 that the device
// filter lets through.
class OfdmSynthesiser {
 public:
  // filterShiftHz: where the device filter is centred in the broadcast's frequency scale
  // (minus the carrier offset of the channel), so that the filter stays with the device.
  // oversample > 1: the whole band of 13 segments (and the continual pilot at its upper edge) at
  // oversample times the rate, with no device filter.
  OfdmSynthesiser(const BroadcastConfig& b, double filterShiftHz, int oversample = 1);
  ~OfdmSynthesiser();
  OfdmSynthesiser(const OfdmSynthesiser&) = delete;
  OfdmSynthesiser& operator=(const OfdmSynthesiser&) = delete;

  int SymbolSamples() const { return m_ + ng_; }
  int TransformSize() const { return m_; }
  // One symbol: n is the symbol number in the frame, frame the frame count (even/odd sync word).
  void Synthesise(int64_t frame, int n, const std::complex<float>* seg0Slots, std::complex<float>* out);
  double Segment0Power() const { return segment0Power_; }
  double TotalPower() const { return totalPower_; }
  // Mean power of each transform bin over the four pilot phases (the sum is TotalPower()).
  const std::vector<double>& BinPowers() const { return binPower_; }
  // Transform bin of band carrier offset o (carriers from the channel centre).
  int BinOf(int offset) const { return (offset % m_ + m_) % m_; }
  // For tests: the data slot bins of segment 0 in symbol n.
  std::span<const int> Segment0DataBins(int n) const { return seg0DataBins_[n % 4]; }

 private:
  int m_, ng_, nd_;
  std::vector<int> seg0DataBins_[4];
  std::vector<int> nbDataBins_[4];
  std::vector<int> pilotBins_[4];
  std::vector<float> pilotValues_[4];
  std::vector<int> dbpskBins_;      // TMCC then AC carriers
  std::vector<uint8_t> dbpskRef_;   // w(k) of each
  int tmccCount_ = 0;
  std::array<std::array<uint8_t, 204>, 2> tmccCum_{};  // B1 xor .. xor Bn, even and odd frames
  Mapper nbMapper_;
  int nbBits_;
  Rng rng_;
  double segment0Power_ = 0, totalPower_ = 0;
  std::vector<double> binPower_;
  std::complex<float>* freq_ = nullptr;
  std::complex<float>* time_ = nullptr;
  void* plan_ = nullptr;
};

// What both front ends share: the layer chain and the OFDM synthesis one symbol at a time, the
// samples of each symbol (after the front end's own processing) drained as asked, and the record
// of the packets sent.
class SymbolStreamGenerator : public SignalGenerator {
 public:
  SymbolStreamGenerator(const BroadcastConfig& b, const ChannelConfig& c, std::unique_ptr<PacketSource> source,
                        double filterShiftHz, int oversample);

  void GenerateSamples(std::complex<float>* out, size_t count) final;
  void RecordPackets(bool on) final { chain_.SetRecord(on ? &record_ : nullptr); }
  const std::vector<uint8_t>& TransmittedPackets() const final { return record_; }
  int PacketsPerFrame() const final { return chain_.PacketsPerFrame(); }
  double LayerBitRate() const final;

 protected:
  // The front end's processing of the next synthesised symbol (in symbol_, SymbolSamples() long):
  // writes its device samples to ready_ and returns how many (none while its filters fill).
  virtual int ProcessSymbol() = 0;

  BroadcastConfig b_;
  ChannelConfig c_;
  std::unique_ptr<PacketSource> source_;
  LayerChain chain_;
  OfdmSynthesiser synth_;
  std::vector<std::complex<float>> symbol_, slots_, ready_;

 private:
  std::vector<uint8_t> record_;
  size_t readyPos_ = 0, readyFill_ = 0;
  int64_t frame_ = 0;
  int n_ = 0;
};

// TMCC content that our transmitter sends for a configuration.
TmccContent TmccOfConfig(const BroadcastConfig& b);

}  // namespace zfn::sim
