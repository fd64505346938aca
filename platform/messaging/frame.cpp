#include "platform/messaging/frame.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace messaging {
namespace {

enum class Records { NONE, ITEMS, ANSWERS, CS_REQUEST, CS_ANSWER };
enum class Tail { NONE, DESTINATION, EXPLANATION, TYPE, TYPE_AND_TEXTS };

// What a frame of a kind is made of behind its header: the records, `minCount` to `maxCount` of them, then the tail.
// Where the tail has strings, the count is theirs.
struct Layout {
  FrameKind kind;
  FrameWay way;
  Records records;
  Tail tail;
  u32 minCount;
  u32 maxCount;
};

constexpr Layout kLayouts[] = {
    {FrameKind::CS_REQUEST, FrameWay::TO_AGENT, Records::CS_REQUEST, Tail::DESTINATION, 1, 1},
    {FrameKind::CS_LIST_REQUEST, FrameWay::TO_AGENT, Records::ITEMS, Tail::DESTINATION, 0, kMaxItems},
    {FrameKind::RTP_REQUEST, FrameWay::TO_AGENT, Records::ITEMS, Tail::DESTINATION, 0, kMaxItems},
    {FrameKind::REVERSE_REQUEST, FrameWay::TO_AGENT, Records::ITEMS, Tail::NONE, 0, kMaxItems},
    {FrameKind::CLOSE_REQUEST, FrameWay::TO_AGENT, Records::NONE, Tail::NONE, 0, 0},
    {FrameKind::UPDATE, FrameWay::TO_CGI_QUEUE, Records::NONE, Tail::TYPE_AND_TEXTS, 0, kMaxUpdateTexts},
    {FrameKind::CS_ANSWER, FrameWay::TO_PARTY, Records::CS_ANSWER, Tail::NONE, 1, 1},
    {FrameKind::CS_LIST_ANSWER, FrameWay::TO_PARTY, Records::ANSWERS, Tail::NONE, 0, kMaxItems},
    {FrameKind::RTP_ANSWER, FrameWay::TO_PARTY, Records::ANSWERS, Tail::NONE, 0, kMaxItems},
    {FrameKind::REVERSE_ANSWER, FrameWay::TO_PARTY, Records::ANSWERS, Tail::NONE, 0, kMaxItems},
    {FrameKind::UPDATE_ANSWER, FrameWay::TO_PARTY, Records::NONE, Tail::TYPE, 0, 0},
    {FrameKind::WELCOME, FrameWay::TO_PARTY, Records::NONE, Tail::NONE, 0, 0},
    {FrameKind::NOTICE, FrameWay::TO_PARTY, Records::NONE, Tail::TYPE_AND_TEXTS, 0, kMaxUpdateTexts},
    {FrameKind::REFUSED, FrameWay::TO_PARTY, Records::NONE, Tail::EXPLANATION, 0, 0},
};

const Layout* FindLayout(u32 kind) {
  const auto* found = std::find_if(std::begin(kLayouts), std::end(kLayouts),
                                   [kind](const Layout& layout) { return static_cast<u32>(layout.kind) == kind; });
  return found != std::end(kLayouts) ? found : nullptr;
}

bool IsText(std::string_view text) { return text.size() <= kMaxTextBytes && text.find('\0') == std::string_view::npos; }

bool IsDestination(std::string_view text) {
  return text.size() <= kMaxTextBytes && std::all_of(text.begin(), text.end(), IsDestinationByte);
}

template <class T>
bool Take(std::string_view& rest, T& value) {
  static_assert(std::is_trivially_copyable_v<T>);
  if (rest.size() < sizeof(T)) return false;
  std::memcpy(&value, rest.data(), sizeof(T));
  rest.remove_prefix(sizeof(T));
  return true;
}

template <class T>
void Put(std::string& packet, const T& value) {
  static_assert(std::is_trivially_copyable_v<T>);
  packet.append(reinterpret_cast<const char*>(&value), sizeof(T));
}

bool Fail(FrameFault& fault, RefusalReason reason, std::string text) {
  fault.reason = reason;
  fault.text = std::move(text);
  return false;
}

bool FailCut(FrameFault& fault, u32 count) {
  return Fail(fault, RefusalReason::BAD_COUNT,
              "the frame ends before what its count of " + std::to_string(count) + " promises");
}

// Nodes that a list has already are used again.
template <class T>
bool TakeList(std::string_view& rest, u32 count, std::list<T>& list) {
  if (rest.size() / sizeof(T) < count) return false;
  list.resize(count);
  for (T& element : list) Take(rest, element);
  return true;
}

bool TakeRecords(std::string_view& rest, Records records, u32 count, Frame& frame) {
  frame.items.resize(records == Records::CS_REQUEST || records == Records::CS_ANSWER ? 1 : 0);
  if (records != Records::ANSWERS) frame.answers.clear();
  switch (records) {
    case Records::NONE:
      return true;
    case Records::ITEMS:
      return TakeList(rest, count, frame.items);
    case Records::ANSWERS:
      return TakeList(rest, count, frame.answers);
    case Records::CS_REQUEST:
      return Take(rest, frame.items.front()) && Take(rest, frame.portType);
    case Records::CS_ANSWER:
      return Take(rest, frame.items.front()) && Take(rest, frame.flag);
  }
  return false;
}

bool TakeTexts(std::string_view& rest, u32 count, std::list<std::string>& texts, FrameFault& fault) {
  for (u32 i = 0; i < count; ++i) {
    u16 length = 0;
    if (!Take(rest, length) || rest.size() < length) return FailCut(fault, count);
    const std::string_view text = rest.substr(0, length);
    if (!IsText(text)) {
      return Fail(fault, RefusalReason::BAD_TEXT, "a string is longer than 255 bytes or has a NUL inside");
    }
    texts.emplace_back(text);
    rest.remove_prefix(length);
  }
  return true;
}

bool TakeTail(std::string_view& rest, Tail tail, u32 count, Frame& frame, FrameFault& fault) {
  if (tail == Tail::DESTINATION && !IsDestination(rest)) {
    return Fail(fault, RefusalReason::BAD_TEXT,
                "the destination is longer than 255 bytes or has a blank or a control character inside");
  }
  if (tail == Tail::EXPLANATION && !IsText(rest)) {
    return Fail(fault, RefusalReason::BAD_TEXT, "the text is longer than 255 bytes or has a NUL inside");
  }
  if (tail == Tail::DESTINATION || tail == Tail::EXPLANATION) {
    frame.text.assign(rest);
    rest = {};
  }
  if (tail == Tail::TYPE || tail == Tail::TYPE_AND_TEXTS) {
    if (!Take(rest, frame.updateType)) return FailCut(fault, count);
  }
  return tail != Tail::TYPE_AND_TEXTS || TakeTexts(rest, count, frame.texts, fault);
}

bool IsFlag(u32 flag) { return flag <= NATFLAG_ERROR_NO_MAPPING; }

bool HasValidValues(const Frame& frame) {
  return frame.portType <= NATPORT_TLS && IsFlag(frame.flag) &&
         std::all_of(frame.answers.begin(), frame.answers.end(),
                     [](const NatRespItem& item) { return IsFlag(item.flag); });
}

bool CheckHeader(const FrameHeader& header, const Layout* layout, FrameWay way, FrameFault& fault) {
  if (header.magic != kFrameMagic)
    return Fail(fault, RefusalReason::BAD_HEADER, "the frame does not begin with the magic number");
  if (header.version != kFrameVersion) {
    return Fail(fault, RefusalReason::BAD_VERSION, "version " + std::to_string(header.version) + " is not spoken here");
  }
  if (layout == nullptr) return Fail(fault, RefusalReason::BAD_KIND, "unknown kind " + std::to_string(header.kind));
  if (layout->way != way) {
    return Fail(fault, RefusalReason::BAD_KIND, "kind " + std::to_string(header.kind) + " is not for this queue");
  }
  if (header.count < layout->minCount || header.count > layout->maxCount) {
    return Fail(fault, RefusalReason::BAD_COUNT,
                "a count of " + std::to_string(header.count) + " is not allowed for this kind");
  }
  return true;
}

bool Decode(std::string_view packet, FrameWay way, Frame& frame, FrameFault& fault) {
  std::string_view rest = packet;
  FrameHeader header;
  if (!Take(rest, header)) {
    frame.queryId = 0;
    return Fail(fault, RefusalReason::BAD_HEADER, "the frame is shorter than its header");
  }
  frame.queryId = header.queryId;
  if (packet.size() > MaxFrameBytes()) return Fail(fault, RefusalReason::TOO_LONG, "longer than any frame");
  const Layout* layout = FindLayout(header.kind);
  if (!CheckHeader(header, layout, way, fault)) return false;

  frame.kind = layout->kind;
  frame.value = header.value;
  frame.portType = frame.flag = frame.updateType = 0;
  frame.text.clear();
  frame.texts.clear();
  if (!TakeRecords(rest, layout->records, header.count, frame)) return FailCut(fault, header.count);
  if (!TakeTail(rest, layout->tail, header.count, frame, fault)) return false;
  if (!rest.empty()) {
    return Fail(fault, RefusalReason::BAD_COUNT, std::to_string(rest.size()) + " bytes follow the end of the frame");
  }
  return HasValidValues(frame) || Fail(fault, RefusalReason::BAD_VALUE, "a port type or a flag is outside its values");
}

std::size_t CountOf(const Layout& layout, const Frame& frame) {
  if (layout.tail == Tail::TYPE_AND_TEXTS) return frame.texts.size();
  if (layout.records == Records::ANSWERS) return frame.answers.size();
  return layout.records == Records::NONE ? 0 : frame.items.size();
}

bool HasValidTexts(const Layout& layout, const Frame& frame) {
  switch (layout.tail) {
    case Tail::NONE:
    case Tail::TYPE:
      return true;
    case Tail::DESTINATION:
      return IsDestination(frame.text);
    case Tail::EXPLANATION:
      return IsText(frame.text);
    case Tail::TYPE_AND_TEXTS:
      return std::all_of(frame.texts.begin(), frame.texts.end(), IsText);
  }
  return false;
}

void PutRecords(std::string& packet, Records records, const Frame& frame) {
  switch (records) {
    case Records::NONE:
      return;
    case Records::ITEMS:
      for (const NatItem& item : frame.items) Put(packet, item);
      return;
    case Records::ANSWERS:
      for (const NatRespItem& item : frame.answers) Put(packet, item);
      return;
    case Records::CS_REQUEST:
      return Put(packet, CsRequestRecord{frame.items.front(), frame.portType});
    case Records::CS_ANSWER:
      return Put(packet, CsAnswerRecord{frame.items.front(), frame.flag});
  }
}

void PutTail(std::string& packet, Tail tail, const Frame& frame) {
  if (tail == Tail::DESTINATION || tail == Tail::EXPLANATION) {
    packet.append(frame.text);
  }
  if (tail == Tail::TYPE || tail == Tail::TYPE_AND_TEXTS) Put(packet, frame.updateType);
  if (tail != Tail::TYPE_AND_TEXTS) return;
  for (const std::string& text : frame.texts) {
    Put(packet, static_cast<u16>(text.size()));
    packet.append(text);
  }
}

FrameHeader HeaderOf(FrameKind kind, u64 queryId, u32 value, std::size_t count) {
  FrameHeader header;
  header.kind = static_cast<u16>(kind);
  header.queryId = queryId;
  header.value = value;
  header.count = static_cast<u32>(count);
  return header;
}

}  // namespace

std::size_t MaxFrameBytes() {
  constexpr std::size_t kAnswer = kMaxItems * sizeof(NatRespItem);
  constexpr std::size_t kList = kMaxItems * sizeof(NatItem) + kMaxTextBytes;
  constexpr std::size_t kUpdate = sizeof(u32) + kMaxUpdateTexts * (sizeof(u16) + kMaxTextBytes);
  return sizeof(FrameHeader) + std::max({kAnswer, kList, kUpdate});
}

bool DecodeFrame(std::string_view packet, FrameWay way, Frame& frame, FrameFault& fault) {
  if (Decode(packet, way, frame, fault)) return true;
  const u64 queryId = frame.queryId;
  frame = Frame{};
  frame.queryId = queryId;
  return false;
}

bool EncodeFrame(const Frame& frame, std::string& packet) {
  packet.clear();
  const Layout* layout = FindLayout(static_cast<u32>(frame.kind));
  if (layout == nullptr) return false;
  const std::size_t count = CountOf(*layout, frame);
  if (count < layout->minCount || count > layout->maxCount || !HasValidTexts(*layout, frame)) return false;

  Put(packet, HeaderOf(frame.kind, frame.queryId, frame.value, count));
  PutRecords(packet, layout->records, frame);
  PutTail(packet, layout->tail, frame);
  return true;
}

void EncodeCsAnswer(u64 queryId, u32 value, const CsAnswerRecord& answer, std::string& packet) {
  packet.clear();
  Put(packet, HeaderOf(FrameKind::CS_ANSWER, queryId, value, 1));
  Put(packet, answer);
}

bool EncodeListAnswer(FrameKind kind, u64 queryId, u32 value, const std::list<NatRespItem>& answers,
                      std::string& packet) {
  packet.clear();
  if (answers.size() > kMaxItems) return false;
  packet.reserve(sizeof(FrameHeader) + answers.size() * sizeof(NatRespItem));
  Put(packet, HeaderOf(kind, queryId, value, answers.size()));
  for (const NatRespItem& answer : answers) Put(packet, answer);
  return true;
}

}  // namespace messaging
