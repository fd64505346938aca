#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <string_view>

#include "nat/nat_records.h"
#include "platform/types.h"

// The messages on a queue's socket (SOCK_SEQPACKET: one frame a packet). docs/protocol.md describes them for other
// languages. All numbers are in the host's byte order, but for the addresses inside the records (network byte order).
namespace messaging {

inline constexpr u32 kFrameMagic = 0x3154414E;  // "NAT1" in memory on a little-endian host
inline constexpr u16 kFrameVersion = 1;
inline constexpr u32 kMaxItems = 1024;      // items a request or an answer may carry
inline constexpr u32 kMaxUpdateTexts = 64;  // strings of an update or a notice
inline constexpr u32 kMaxTextBytes = 255;   // a destination, an update's string or an error's text

enum class FrameKind : u16 {
  // party -> agent
  CS_REQUEST = 1,       // value: the request's value; one CsRequestRecord; then the destination text
  CS_LIST_REQUEST = 2,  // value: the request's value; count NatItems; then the destination text
  RTP_REQUEST = 3,      // value: the call server's protocol; count NatItems; then the destination text
  REVERSE_REQUEST = 4,  // value: the request's value; count NatItems
  CLOSE_REQUEST = 5,    // nothing further; it is not answered
  UPDATE = 6,           // CGI party only; value: the value; a u32 update type; count strings (u16 length, bytes)

  // agent -> party; an answer carries its request's query id
  CS_ANSWER = 0x81,       // value: the answer's value; one CsAnswerRecord
  CS_LIST_ANSWER = 0x82,  // value: the last flag; count NatRespItems
  RTP_ANSWER = 0x83,      // value: the call server's protocol; count NatRespItems
  REVERSE_ANSWER = 0x84,  // value: 0; count NatRespItems
  UPDATE_ANSWER = 0x86,   // value: the value; a u32 update type
  WELCOME = 0x90,         // the connection is the queue's party now; value: the queue's number
  NOTICE = 0x91,          // value: 0; a u32 update type; count strings (u16 length, bytes)
  REFUSED = 0x92,         // value: a RefusalReason; then a text for people. It is the answer to a malformed request
};

enum class RefusalReason : u32 {
  QUEUE_TAKEN = 1,  // another party is connected; the connection is closed after this frame
  BAD_HEADER = 2,   // too short, or not this protocol
  BAD_VERSION = 3,
  BAD_KIND = 4,     // unknown, or not for this queue
  BAD_COUNT = 5,    // too many items, or a count that the frame's length contradicts
  BAD_TEXT = 6,     // destination or string too long, or with a byte inside that it may not contain
  BAD_VALUE = 7,    // a field outside its enumeration
  TOO_LONG = 8,     // longer than any valid frame
  NOT_ALLOWED = 9,  // the peer's user may not use the queue; the connection is closed after this frame
};

// Whether a destination may contain the byte: no blank and no control character. The agent logs a destination as it
// came, so a line end in it would forge a line of the log.
constexpr bool IsDestinationByte(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte > 0x20 && byte != 0x7F;
}

struct FrameHeader {
  u32 magic = kFrameMagic;
  u16 version = kFrameVersion;
  u16 kind = 0;
  u64 queryId = 0;
  u32 value = 0;
  u32 count = 0;
};
static_assert(sizeof(FrameHeader) == 24);

struct CsRequestRecord {
  NatItem item;
  u32 portType = 0;
};
static_assert(sizeof(CsRequestRecord) == 12);

struct CsAnswerRecord {
  NatItem item;
  u32 flag = 0;
};
static_assert(sizeof(CsAnswerRecord) == 12);

// A frame taken apart. Which fields are filled depends on the kind.
struct Frame {
  FrameKind kind{};
  u64 queryId = 0;
  u32 value = 0;
  std::string text{};          // destination, or a refusal's text
  std::list<NatItem> items{};  // list requests; the one item of a single request or answer
  std::list<NatRespItem> answers{};
  u32 portType = 0;                // single request
  u32 flag = 0;                    // single answer
  u32 updateType = 0;              // update, its answer, notice
  std::list<std::string> texts{};  // update, notice
};

// Which way a frame travels: only the kinds of that direction are valid.
enum class FrameWay { TO_AGENT, TO_CGI_QUEUE, TO_PARTY };

// Longest frame of any kind; a receiver with a buffer of this size plus one sees every longer one as TOO_LONG.
std::size_t MaxFrameBytes();

// What was wrong with a frame.
struct FrameFault {
  RefusalReason reason{};
  std::string text;
};

// Checks a packet in full and takes it apart. On a fault, `frame` holds the query id when the header was long enough to
// have one, else 0, and nothing else; `fault` says what is wrong. Every byte of the packet must be accounted for.
bool DecodeFrame(std::string_view packet, FrameWay way, Frame& frame, FrameFault& fault);

// The packet of a frame, appended to nothing: `packet` is replaced (its capacity is kept). False, with `packet` empty,
// when the frame exceeds the limits above.
bool EncodeFrame(const Frame& frame, std::string& packet);

// The same for answers, from what they are made of.
void EncodeCsAnswer(u64 queryId, u32 value, const CsAnswerRecord& answer, std::string& packet);
bool EncodeListAnswer(FrameKind kind, u64 queryId, u32 value, const std::list<NatRespItem>& answers,
                      std::string& packet);

}  // namespace messaging
