#include "tools/ts_services.h"

#include <stdbool.h>
#include <stdint.h>

#include <algorithm>
#include <cstdio>

extern "C" {
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/demux.h>
#include <dvbpsi/pat.h>
#include <dvbpsi/pmt.h>
#include <dvbpsi/sdt.h>
#include <dvbpsi/nit.h>
#include <dvbpsi/dr_40.h>
#include <dvbpsi/dr_48.h>
}

namespace zfn::tools {

namespace {

constexpr int32_t PAT_PID = 0x0000;
constexpr int32_t NIT_PID = 0x0010;
constexpr int32_t SDT_PID = 0x0011;
constexpr uint8_t NIT_ACTUAL = 0x40;
constexpr uint8_t SDT_ACTUAL = 0x42;
constexpr uint8_t NETWORK_NAME_DESCRIPTOR = 0x40;
constexpr uint8_t SERVICE_DESCRIPTOR = 0x48;
constexpr size_t PACKET = 188;

ServiceInfo& ServiceById(StreamServices& s, int32_t id) {
  for (ServiceInfo& v : s.services)
    if (v.id == id) return v;
  s.services.push_back(ServiceInfo{});
  s.services.back().id = id;
  return s.services.back();
}

}  // namespace

struct TsServiceReader::Callbacks {
  static void Pat(void* data, dvbpsi_pat_t* pat) {
    auto* r = static_cast<TsServiceReader*>(data);
    std::vector<std::pair<int32_t, int32_t>> programmes;
    {
      std::lock_guard<std::mutex> hold(r->lock_);
      r->state_.havePat = true;
      r->state_.transportStreamId = pat->i_ts_id;
      std::vector<ServiceInfo> ordered;
      for (dvbpsi_pat_program_t* p = pat->p_first_program; p != nullptr; p = p->p_next) {
        if (p->i_number == 0) continue;  // the NIT's PID
        ServiceInfo s = ServiceById(r->state_, p->i_number);
        s.pmtPid = p->i_pid;
        ordered.push_back(s);
        programmes.emplace_back(p->i_number, p->i_pid);
      }
      r->state_.services = std::move(ordered);
    }
    dvbpsi_pat_delete(pat);
    for (const auto& [number, pid] : programmes) {
      if (r->decoders_.count(pid) != 0 || pid == PAT_PID || pid == NIT_PID || pid == SDT_PID) continue;
      dvbpsi_t* d = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
      if (d == nullptr) continue;
      if (!dvbpsi_pmt_attach(d, static_cast<uint16_t>(number), &Callbacks::Pmt, r)) {
        dvbpsi_delete(d);
        continue;
      }
      r->decoders_[pid] = d;
    }
  }

  static void Pmt(void* data, dvbpsi_pmt_t* pmt) {
    auto* r = static_cast<TsServiceReader*>(data);
    {
      std::lock_guard<std::mutex> hold(r->lock_);
      ServiceInfo& s = ServiceById(r->state_, pmt->i_program_number);
      s.streamTypes.clear();
      for (dvbpsi_pmt_es_t* es = pmt->p_first_es; es != nullptr; es = es->p_next) s.streamTypes.push_back(es->i_type);
    }
    dvbpsi_pmt_delete(pmt);
  }

  static void Sdt(void* data, dvbpsi_sdt_t* sdt) {
    auto* r = static_cast<TsServiceReader*>(data);
    {
      std::lock_guard<std::mutex> hold(r->lock_);
      r->state_.haveSdt = true;
      for (dvbpsi_sdt_service_t* v = sdt->p_first_service; v != nullptr; v = v->p_next) {
        ServiceInfo& s = ServiceById(r->state_, v->i_service_id);
        for (dvbpsi_descriptor_t* d = v->p_first_descriptor; d != nullptr; d = d->p_next) {
          if (d->i_tag != SERVICE_DESCRIPTOR) continue;
          if (const dvbpsi_service_dr_t* sd = dvbpsi_DecodeServiceDr(d)) {
            s.type = sd->i_service_type;
            s.name = PrintableText(sd->i_service_name, sd->i_service_name_length);
            s.provider = PrintableText(sd->i_service_provider_name, sd->i_service_provider_name_length);
          }
        }
      }
    }
    dvbpsi_sdt_delete(sdt);
  }

  static void Nit(void* data, dvbpsi_nit_t* nit) {
    auto* r = static_cast<TsServiceReader*>(data);
    {
      std::lock_guard<std::mutex> hold(r->lock_);
      r->state_.haveNit = true;
      for (dvbpsi_descriptor_t* d = nit->p_first_descriptor; d != nullptr; d = d->p_next) {
        if (d->i_tag != NETWORK_NAME_DESCRIPTOR) continue;
        if (const dvbpsi_network_name_dr_t* nd = dvbpsi_DecodeNetworkNameDr(d))
          r->state_.networkName = PrintableText(nd->i_name_byte, nd->i_name_length);
      }
    }
    dvbpsi_nit_delete(nit);
  }

  // A new sub-table on the NIT or SDT PID: attach the decoder of the actual network's table.
  static void NewSubtable(dvbpsi_t* handle, uint8_t tableId, uint16_t extension, void* data) {
    if (tableId == SDT_ACTUAL) dvbpsi_sdt_attach(handle, tableId, extension, &Callbacks::Sdt, data);
    if (tableId == NIT_ACTUAL) dvbpsi_nit_attach(handle, tableId, extension, &Callbacks::Nit, data);
  }
};

TsServiceReader::TsServiceReader() { Open(); }
TsServiceReader::~TsServiceReader() { Close(); }

void TsServiceReader::Open() {
  if (dvbpsi_t* d = dvbpsi_new(nullptr, DVBPSI_MSG_NONE)) {
    if (dvbpsi_pat_attach(d, &Callbacks::Pat, this)) decoders_[PAT_PID] = d;
    else dvbpsi_delete(d);
  }
  for (int32_t pid : {NIT_PID, SDT_PID}) {
    if (dvbpsi_t* d = dvbpsi_new(nullptr, DVBPSI_MSG_NONE)) {
      if (dvbpsi_AttachDemux(d, &Callbacks::NewSubtable, this)) decoders_[pid] = d;
      else dvbpsi_delete(d);
    }
  }
}

void TsServiceReader::Close() {
  for (auto& [pid, d] : decoders_) {
    if (pid == PAT_PID) dvbpsi_pat_detach(d);
    else if (pid == NIT_PID || pid == SDT_PID) dvbpsi_DetachDemux(d);
    else dvbpsi_pmt_detach(d);
    dvbpsi_delete(d);
  }
  decoders_.clear();
}

void TsServiceReader::Reset() {
  Close();
  {
    std::lock_guard<std::mutex> hold(lock_);
    state_ = StreamServices{};
  }
  Open();
}

void TsServiceReader::Push(const uint8_t* data, size_t length) {
  for (size_t at = 0; at + PACKET <= length; at += PACKET) {
    const uint8_t* p = data + at;
    if (p[0] != 0x47 || (p[1] & 0x80) != 0) continue;  // lost sync or marked with an error
    const int32_t pid = (p[1] & 0x1f) << 8 | p[2];
    const auto d = decoders_.find(pid);
    if (d != decoders_.end()) dvbpsi_packet_push(d->second, const_cast<uint8_t*>(p));
  }
}

StreamServices TsServiceReader::Snapshot() const {
  std::lock_guard<std::mutex> hold(lock_);
  return state_;
}

std::string PrintableText(const uint8_t* bytes, size_t length) {
  std::string s;
  for (size_t i = 0; i < length; ++i) s += bytes[i] >= 0x20 && bytes[i] < 0x7f ? static_cast<char>(bytes[i]) : '?';
  return s;
}

std::string JsonString(const std::string& text) {
  std::string s = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      s += '\\';
      s += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char buffer[8];
      std::snprintf(buffer, sizeof buffer, "\\u%04x", static_cast<unsigned>(c));
      s += buffer;
    } else {
      s += c;
    }
  }
  return s + "\"";
}

}  // namespace zfn::tools
