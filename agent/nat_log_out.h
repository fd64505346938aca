#pragma once

#include <cstdarg>
#include <list>
#include <string>

#include "nat/nat_records.h"
#include "platform/types.h"
#include "platform/vxlogutils/log_stream.h"

inline constexpr u8 kLogOrdinary = 4;  // every ordinary message
inline constexpr u8 kLogDump = 0;      // the continuation texts of dumps, and a few STUN messages

// The agent's log. Texts carry their own line ends (CR LF) and are written unchanged. Trace and the two formatting
// forms may be called on any thread, and throw nothing: a text that cannot be written is lost, as the journal says.
// Hold, Flush and the dumps belong to the agent thread.
class NatLogOut {
 public:
  // Null: a log that writes nowhere.
  explicit NatLogOut(const char* fileName);
  virtual ~NatLogOut();
  NatLogOut(const NatLogOut&) = delete;
  NatLogOut& operator=(const NatLogOut&) = delete;

  void Trace(const char* text, u8 level) noexcept;
  // printf-style, at level 4 and at the given level.
  void TraceFormat(const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));
  void TraceFormatLevel(u8 level, const char* format, ...) noexcept __attribute__((format(printf, 3, 4)));

  // `label`, the number in decimal and CR LF, at level 4: for the lines that every request writes. Agent thread only.
  void TraceNumber(const char* label, u64 number) noexcept;

  // What is traced between the two goes to the file together.
  void Hold() { m_stream.Hold(); }
  void Flush() noexcept;

  // Signalling requests and answers; the list forms serve RTP requests too.
  void LogCSRequest(const u64& queryId, u32 destIp, const NatSetting& setting, const CA_PROTO& proto);
  void LogCSResponse(const u64& queryId, const CA_PROTO& proto, const NatSetting& setting, const NatFlag& flag);
  void LogNatListRequest(const u64& queryId, u32 destIp, const std::list<NatItem>& items, const CA_PROTO& forCsProto,
                         bool isRtp);
  void LogNatListResponse(const u64& queryId, const std::list<NatRespItem>& respItems, bool isRtp);

  // Reverse RTP requests and answers.
  void LogRevRtpRequest(const u64& queryId, const std::list<NatItem>& items);
  void LogRevRtpResponse(const u64& queryId, const std::list<NatRespItem>& respItems);

 private:
  void TraceList(u8 level, const char* format, va_list& arguments) noexcept __attribute__((format(printf, 3, 0)));
  // The endpoints of a request, and what ends their dump.
  void LogItems(const std::list<NatItem>& items, const char* end);

  const bool m_isWritten;
  LogStream m_stream;
  std::string m_text;  // the dump being put together; keeps its room between requests
};
