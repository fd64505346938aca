// The dumps of reverse RTP requests and answers. Under "LocalIp" and "SelfPort" stand the public endpoints asked for.

#include "agent/log_text.h"
#include "agent/nat_log_out.h"

void NatLogOut::LogRevRtpRequest(const u64& queryId, const std::list<NatItem>& items) {
  m_text = "------------\r\nGot Request Rev Rtp for Nat Settings\r\nqueryId = ";
  AppendNumber(m_text, queryId);
  m_text += "\r\n";
  Trace(m_text.c_str(), kLogOrdinary);

  LogItems(items, "\r\n");
}

void NatLogOut::LogRevRtpResponse(const u64& queryId, const std::list<NatRespItem>& respItems) {
  m_text = "------------\r\nSend Response Rev Rtp Nat Settings\r\nqueryId = ";
  AppendNumber(m_text, queryId);
  m_text += "\r\n\r\n";
  Trace(m_text.c_str(), kLogOrdinary);
  if (respItems.empty()) {
    Trace("\r\n Error no such mapping)\r\n", kLogOrdinary);
    return;
  }
  m_text = "MappedIps  = ";
  for (const NatRespItem& item : respItems) {
    AppendMappedIp(m_text, item, "     No need Nat  ");
  }
  m_text += "\r\nMappedPort = ";
  for (const NatRespItem& item : respItems) {
    if (item.flag == NATFLAG_MAPPED) {
      AppendNumber(m_text, item.mappedPort);
      m_text += kTenBlanks;
    } else {
      m_text += "      ";
    }
  }
  m_text += "\r\n";
  Trace(m_text.c_str(), kLogDump);
}
