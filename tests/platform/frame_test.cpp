#include "platform/messaging/frame.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using namespace messaging;
using enum FrameKind;
using enum FrameWay;
using enum RefusalReason;
using namespace std::string_literals;

namespace {

constexpr u64 kId = 0x1122334455667788;
const std::string kLongText(kMaxTextBytes, 'x');

Frame Make(FrameKind kind, std::size_t items = 0, const std::string& text = "", std::size_t texts = 0) {
  Frame frame;
  frame.kind = kind;
  frame.queryId = kId;
  frame.value = 7;
  frame.text = text;
  frame.items.assign(items, {0x0100000A, 65535, 0});
  frame.answers.assign(items, {1, 2, 0, 3, 4, 0, NATFLAG_ERROR_NO_MAPPING});
  frame.texts.assign(texts, kLongText);
  return frame;
}

std::string Encoded(const Frame& frame) {
  std::string packet;
  EXPECT_TRUE(EncodeFrame(frame, packet));
  return packet;
}

const std::pair<FrameWay, Frame> kValid[] = {{TO_AGENT, Make(CS_REQUEST, 1, "\x21\x7E\x80\xFF" + kLongText.substr(4))},
                                             {TO_AGENT, Make(CS_LIST_REQUEST, kMaxItems, kLongText)},
                                             {TO_AGENT, Make(RTP_REQUEST, 2, "host.example")},
                                             {TO_AGENT, Make(REVERSE_REQUEST, kMaxItems)},
                                             {TO_AGENT, Make(CLOSE_REQUEST)},
                                             {TO_CGI_QUEUE, Make(UPDATE, 0, "", kMaxUpdateTexts)},
                                             {TO_PARTY, Make(CS_ANSWER, 1)},
                                             {TO_PARTY, Make(CS_LIST_ANSWER, kMaxItems)},
                                             {TO_PARTY, Make(REVERSE_ANSWER)},
                                             {TO_PARTY, Make(UPDATE_ANSWER)},
                                             {TO_PARTY, Make(NOTICE, 0, "", 2)},
                                             {TO_PARTY, Make(REFUSED, 0, "this is why\n")}};

TEST(FrameTest, EveryKindIsValidWholeAndOneWayOnly) {
  Frame back;  // one for all, so that nothing of an earlier frame may be left in a later one
  FrameFault fault;
  for (const auto& [way, frame] : kValid) {
    SCOPED_TRACE(static_cast<int>(frame.kind));
    const std::string packet = Encoded(frame);
    ASSERT_TRUE(DecodeFrame(packet, way, back, fault)) << fault.text;
    EXPECT_EQ(back.queryId, kId);
    EXPECT_EQ(Encoded(back), packet);
    EXPECT_FALSE(DecodeFrame(packet, way == TO_AGENT ? TO_CGI_QUEUE : TO_AGENT, back, fault));
    EXPECT_EQ(fault.reason, BAD_KIND);
    // A text that is the frame's tail may end anywhere; the cut must reach what is in front of it.
    for (std::size_t size = 0; size < packet.size() - frame.text.size(); size += size < 64 ? 1 : 61) {
      back = frame;
      ASSERT_FALSE(DecodeFrame(packet.substr(0, size), way, back, fault)) << size;
      EXPECT_EQ(fault.reason, size < sizeof(FrameHeader) ? BAD_HEADER : BAD_COUNT);
      EXPECT_EQ(back.queryId, size < sizeof(FrameHeader) ? 0 : kId);
      EXPECT_TRUE(back.items.empty() && back.answers.empty() && back.text.empty() && back.texts.empty());
    }
  }
}

TEST(FrameTest, NamesWhatIsWrong) {
  const Frame cs = Make(CS_REQUEST, 1);
  const Frame list = Make(CS_LIST_REQUEST, 2);
  const Frame update = Make(UPDATE, 0, "", 1);
  const auto with = [](const Frame& frame, std::size_t offset, auto value) {
    std::string packet = Encoded(frame);
    std::memcpy(packet.data() + offset, &value, sizeof value);
    return packet;
  };
  const struct {
    FrameWay way;
    std::string packet;
    RefusalReason reason;
  } cases[] = {{TO_AGENT, with(cs, 0, u32{0x3154414F}), BAD_HEADER},
               {TO_AGENT, with(cs, 4, u16{2}), BAD_VERSION},
               {TO_AGENT, with(cs, 6, u16{7}), BAD_KIND},
               {TO_AGENT, with(cs, 20, u32{2}), BAD_COUNT},
               {TO_AGENT, with(list, 20, u32{0x20000001}), BAD_COUNT},
               {TO_AGENT, with(list, 20, u32{1}), BAD_TEXT},
               {TO_AGENT, Encoded(cs) + "a\0b"s, BAD_TEXT},
               {TO_AGENT, Encoded(cs) + "a\r\nb", BAD_TEXT},
               {TO_AGENT, Encoded(list) + "1.2.3.4 ", BAD_TEXT},
               {TO_AGENT, Encoded(Make(RTP_REQUEST)) + "\x7F", BAD_TEXT},
               {TO_AGENT, Encoded(Make(CLOSE_REQUEST)) + "x", BAD_COUNT},
               {TO_AGENT, with(Make(CLOSE_REQUEST), 20, u32{1}), BAD_COUNT},
               {TO_AGENT, with(cs, 32, u32{3}), BAD_VALUE},
               {TO_AGENT, Encoded(list) + std::string(MaxFrameBytes(), 'x'), TOO_LONG},
               {TO_CGI_QUEUE, with(update, 20, u32{0}), BAD_COUNT},
               {TO_CGI_QUEUE, with(update, 20, kMaxUpdateTexts + 1), BAD_COUNT},
               {TO_CGI_QUEUE, with(update, 28, u16{256}), BAD_COUNT},
               {TO_CGI_QUEUE, with(update, 30, '\0'), BAD_TEXT},
               {TO_PARTY, with(Make(RTP_ANSWER, 1), 40, u32{3}), BAD_VALUE}};
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    Frame back;
    FrameFault fault;
    EXPECT_FALSE(DecodeFrame(cases[i].packet, cases[i].way, back, fault)) << i;
    EXPECT_EQ(fault.reason, cases[i].reason) << i << ": " << fault.text;
    EXPECT_FALSE(fault.text.empty()) << i;
  }
  for (const Frame& beyond :
       {Make(CS_LIST_REQUEST, kMaxItems + 1), Make(CS_LIST_REQUEST, 0, kLongText + "x"),
        Make(CS_LIST_REQUEST, 0, "a\0b"s), Make(CS_REQUEST, 1, "a\nb"), Make(NOTICE, 0, "", kMaxUpdateTexts + 1),
        Make(CS_ANSWER), Make(static_cast<FrameKind>(9))}) {
    std::string packet = "old";
    EXPECT_FALSE(EncodeFrame(beyond, packet));
    EXPECT_TRUE(packet.empty());
  }
}

// The very bytes that docs/protocol.md shows, of a little-endian host: the header, the record, the text.
TEST(FrameTest, SpeaksTheDocumentedBytes) {
  Frame frame;
  frame.kind = CS_REQUEST;
  frame.queryId = 42;
  frame.items = {{0x02004D0A, 5060, 0}};
  frame.portType = NATPORT_UDP;
  frame.text = "198.51.100.9";
  EXPECT_EQ(Encoded(frame),
            "NAT1\1\0\1\0\x2A\0\0\0\0\0\0\0\0\0\0\0\1\0\0\0"
            "\x0A\x4D\0\2\xC4\x13\0\0\0\0\0\0"
            "198.51.100.9"s);
  frame.kind = CS_ANSWER;
  frame.items = {{0x077100CB, 15060, 0}};
  frame.flag = NATFLAG_MAPPED;
  EXPECT_EQ(Encoded(frame),
            "NAT1\1\0\x81\0\x2A\0\0\0\0\0\0\0\0\0\0\0\1\0\0\0"
            "\xCB\0\x71\7\xD4\x3A\0\0\1\0\0\0"s);
}

}  // namespace
