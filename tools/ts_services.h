#pragma once
// What a received transport stream says about itself: the services of its PAT and PMTs, their
// names from the SDT and the network name from the NIT. The tables are parsed with libdvbpsi.
// Packets go in on one thread (Push); the summary is read on any thread (Snapshot).
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct dvbpsi_s;

namespace zfn::tools {

struct ServiceInfo {
  int32_t id = 0;          // program_number / service_id
  int32_t pmtPid = -1;
  std::string name;        // from the SDT's service descriptor; empty until known
  std::string provider;
  int32_t type = -1;       // service_type of the descriptor
  std::vector<int32_t> streamTypes;  // of the PMT, in order; empty until the PMT came
};

struct StreamServices {
  bool havePat = false, haveSdt = false, haveNit = false;
  int32_t transportStreamId = -1;
  std::string networkName;
  std::vector<ServiceInfo> services;  // in PAT order (the SDT's order where no PAT came)
};

class TsServiceReader {
 public:
  TsServiceReader();
  ~TsServiceReader();
  TsServiceReader(const TsServiceReader&) = delete;
  TsServiceReader& operator=(const TsServiceReader&) = delete;

  // Whole 188-byte packets; a trailing part packet is ignored.
  void Push(const uint8_t* data, size_t length);
  StreamServices Snapshot() const;
  // Forgets everything (after a retune).
  void Reset();

  // The table callbacks of libdvbpsi.
  struct Callbacks;

 private:
  void Close();
  void Open();
  dvbpsi_s* Decoder(int32_t pid);

  mutable std::mutex lock_;
  StreamServices state_;
  std::map<int32_t, dvbpsi_s*> decoders_;  // by PID: PAT, NIT, SDT, each PMT
};

// Text of a descriptor string: printable ASCII as it is, anything else (control codes, the
// ARIB character set's escapes and kanji) as '?'.
std::string PrintableText(const uint8_t* bytes, size_t length);

// The string as a JSON string literal, quotes included.
std::string JsonString(const std::string& text);

}  // namespace zfn::tools
