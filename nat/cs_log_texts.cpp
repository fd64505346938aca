// The dumps of signalling requests and answers, which RTP requests share.

#include "agent/log_text.h"
#include "agent/nat_log_out.h"
#include "nat/nat_names.h"

void NatLogOut::LogCSRequest(const u64& queryId, u32 destIp, const NatSetting& setting, const CA_PROTO& proto) {
  m_text = "Got Request for CS Nat Settings\r\n for protocol ";
  m_text += GetCsProtocolName(proto);
  m_text += "\r\nLocalIp = ";
  AppendIp(m_text, setting.localIp, '\r');
  m_text += "\nremoteIp = ";
  AppendIp(m_text, destIp, '\r');
  m_text += "\nselfPort = ";
  AppendNumber(m_text, setting.selfPort);
  m_text += " - ";
  m_text += GetPortTypeName(setting.portType);
  m_text += "\r\nqueryId = ";
  AppendNumber(m_text, queryId);
  m_text += "\r\n\r\n";
  Trace(m_text.c_str(), kLogOrdinary);
}

void NatLogOut::LogCSResponse(const u64& queryId, const CA_PROTO& proto, const NatSetting& setting,
                              const NatFlag& flag) {
  m_text = "Send Response CS Nat Settings\r\nFor protocol ";
  m_text += GetCsProtocolName(proto);
  m_text += "\r\n ";
  m_text += GetNatFlagName(flag);
  m_text += "\r\nqueryId = ";
  AppendNumber(m_text, queryId);
  m_text += "\r\n";
  Trace(m_text.c_str(), kLogOrdinary);
  if (flag != NATFLAG_MAPPED) {
    return;
  }
  m_text = "MappedIp = ";
  AppendIp(m_text, setting.mappedIp, '\r');
  m_text += "\nMapPort = ";
  AppendNumber(m_text, setting.mappedPort);
  m_text += "\r\n";
  m_text += kRule;
  Trace(m_text.c_str(), kLogDump);
}

void NatLogOut::LogItems(const std::list<NatItem>& items, const char* end) {
  m_text = "LocalIp  = ";
  for (const NatItem& item : items) {
    AppendIp(m_text, item.ip, ' ');
  }
  m_text += "\r\nSelfPort = ";
  for (const NatItem& item : items) {
    AppendNumber(m_text, item.port);
    m_text += kTenBlanks;
  }
  m_text += end;
  Trace(m_text.c_str(), kLogDump);
}

void NatLogOut::LogNatListRequest(const u64& queryId, u32 destIp, const std::list<NatItem>& items,
                                  const CA_PROTO& forCsProto, bool isRtp) {
  m_text = "\r\n";
  m_text += kRule;
  m_text += "Got ";
  m_text += isRtp ? "RTP" : "CS";
  m_text += " Request for Nat Settings\r\nremoteIp = ";
  AppendIp(m_text, destIp, '\r');
  m_text += "\n for CS ";
  m_text += GetCsProtocolName(forCsProto);
  m_text += "\r\nqueryId  = ";
  AppendNumber(m_text, queryId);
  m_text += "\r\n";
  Trace(m_text.c_str(), kLogOrdinary);

  LogItems(items, "\r\n\r\n");
}

void NatLogOut::LogNatListResponse(const u64& queryId, const std::list<NatRespItem>& respItems, bool isRtp) {
  m_text = "Send Response ";
  m_text += isRtp ? "RTP" : "CS";
  m_text += " Nat Settings\r\nqueryId = ";
  AppendNumber(m_text, queryId);
  m_text += "\r\n";
  Trace(m_text.c_str(), kLogOrdinary);
  if (respItems.empty()) {
    Trace("Error Nat map(may be wrong hostname?)\r\n", kLogOrdinary);
    return;
  }
  m_text = "MappedIps  = ";
  for (const NatRespItem& item : respItems) {
    AppendMappedIp(m_text, item, GetNatFlagName(item.flag));
  }
  m_text += "\r\nMappedPort = ";
  for (const NatRespItem& item : respItems) {
    if (item.flag == NATFLAG_MAPPED) {
      AppendNumber(m_text, item.mappedPort);
    }
    m_text += kTenBlanks;
  }
  m_text += "\r\n";
  m_text += kRule;
  Trace(m_text.c_str(), kLogDump);
}
