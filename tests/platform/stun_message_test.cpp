#include "platform/stunutils/message.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <map>
#include <tuple>

#include "platform/stunutils/transport.h"

namespace stun {
namespace {

using Bytes = std::vector<u8>;

constexpr TransactionId kId{0xb7, 0xe7, 0xa7, 0x01, 0xbc, 0x34, 0xd6, 0x86, 0xfa, 0x87, 0xdf, 0xae};
const Bytes kMapped{0x00, 0x01, 0x00, 0x08, 0x00, 0x01, 0x13, 0xc4, 198, 51, 100, 7};            // 198.51.100.7:5060
const Bytes kXorMapped{0x00, 0x20, 0x00, 0x08, 0x00, 0x01, 0xa1, 0x47, 0xe1, 0x12, 0xa6, 0x43};  // RFC 5769, 2.2
const Bytes kIntegrity{0x00, 0x08, 0x00, 0x04, 0xaa, 0xaa, 0xaa, 0xaa};

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Bytes Message(u16 type, const Bytes& attributes) {
  Bytes message{
      static_cast<u8>(type >> 8), static_cast<u8>(type), 0, static_cast<u8>(attributes.size()), 0x21, 0x12, 0xa4, 0x42};
  return message + Bytes(kId.begin(), kId.end()) + attributes;
}

std::string Describe(const std::optional<Answer>& answer) {
  if (!answer) {
    return "ignored";
  }
  EXPECT_EQ(answer->id, kId);
  if (answer->kind == Answer::Kind::MAPPED) {
    return ::inet_ntoa({answer->mapped.address}) + (":" + std::to_string(answer->mapped.port));
  }
  return answer->kind == Answer::Kind::UNUSABLE ? "unusable" : "refused " + std::to_string(answer->errorCode);
}

TEST(StunMessage, AnswersAreReadAsTheRfcsSay) {
  const char* const plain = "198.51.100.7:5060";
  const Bytes errorCode500{0, 9, 0, 7, 0, 0, 5, 0, 'o', 'o', 'p', 0};
  const std::tuple<const char*, u16, Bytes, const char*> cases[] = {
      {"both addresses: the XORed one", kSuccessType, kMapped + kXorMapped, "192.0.2.1:32853"},
      {"two of a kind: the first", kSuccessType, kMapped + Bytes{0, 1, 0, 8, 0, 1, 0, 1, 1, 2, 3, 4}, plain},
      {"an IPv6 XORed address beside", kSuccessType, Bytes{0, 0x20, 0, 0x14, 0, 2} + Bytes(18, 1) + kMapped, plain},
      {"an optional attribute", kSuccessType, Bytes{0xff, 0x01, 0, 1, 9, 0, 0, 0} + kMapped, plain},
      {"address 0", kSuccessType, {0, 1, 0, 8, 0, 1, 0x13, 0xc4, 0, 0, 0, 0}, "unusable"},
      {"port 0", kSuccessType, {0, 1, 0, 8, 0, 1, 0, 0, 198, 51, 100, 7}, "unusable"},
      {"to be understood", kSuccessType, kXorMapped + Bytes{0x7f, 0, 0, 0}, "unusable"},
      {"below those of RFC 3489", kSuccessType, kXorMapped + Bytes{0, 0, 0, 0}, "unusable"},
      {"an address behind the integrity", kSuccessType, kIntegrity + kMapped, "unusable"},
      {"to be understood, behind it", kSuccessType, kMapped + kIntegrity + Bytes{0x7f, 0, 0, 0}, plain},

      {"error 500", kErrorType, errorCode500, "refused 500"},
      {"an error does not map", kErrorType, kXorMapped + errorCode500, "refused 500"},
      {"a mapping on this network", kSuccessType, {0, 1, 0, 8, 0, 1, 0x13, 0xc4, 0, 1, 2, 3}, "unusable"},
      {"on the loopback", kSuccessType, {0, 1, 0, 8, 0, 1, 0x13, 0xc4, 127, 255, 255, 254}, "unusable"},
      {"to a group", kSuccessType, {0, 1, 0, 8, 0, 1, 0x13, 0xc4, 224, 0, 0, 1}, "unusable"},
      {"to everybody", kSuccessType, {0, 1, 0, 8, 0, 1, 0x13, 0xc4, 255, 255, 255, 255}, "unusable"},
      {"in a private network", kSuccessType, {0, 1, 0, 8, 0, 1, 0x13, 0xc4, 10, 0, 0, 1}, "10.0.0.1:5060"},
      {"a code out of range", kErrorType, {0, 9, 0, 4, 0, 0, 7, 100}, "refused 0"},

      {"a request", 0x0001, {}, "ignored"},
      {"an answer to another method", 0x0103, kMapped, "ignored"},
      {"longer than the message", kSuccessType, {0, 1, 0, 9, 0, 1, 0, 1, 1, 2, 3, 4}, "ignored"},
      {"without its padding", kSuccessType, kMapped + Bytes{0x80, 0x22, 0, 1, 7}, "ignored"},
      {"half an attribute header", kSuccessType, kMapped + Bytes{0x80, 0x22}, "ignored"},
      {"an address of 4 bytes", kSuccessType, {0, 1, 0, 4, 0, 1, 0x13, 0xc4}, "ignored"},
  };
  for (const auto& [name, type, attributes, expected] : cases) {
    EXPECT_EQ(Describe(ParseAnswer(Message(type, attributes))), expected) << name;
  }
}

TEST(StunMessage, HeaderThatDoesNotFitTheDatagramIsIgnored) {
  const Bytes whole = Message(kSuccessType, kXorMapped + kIntegrity);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(ParseAnswer(std::span(whole).first(size))) << size;
  }
  EXPECT_FALSE(ParseAnswer(whole + Bytes{0, 0, 0, 0})) << "longer than it says";
  for (std::size_t at = 0; at < 8; ++at) {
    Bytes other = whole;
    other[at] ^= 0x40;
    EXPECT_FALSE(ParseAnswer(other)) << "byte " << at;
  }
}

TEST(StunPacket, DatagramCarriesItsChecksum) {
  const std::pair<Bytes, u16> cases[] = {{{}, 0x9833},
                                         {{1}, 0x9731},
                                         {{1, 2, 3}, 0x942b},
                                         {Bytes(1000, 0xff), 0x9063},
                                         {{0x98, 0x2f}, 0xffff}};  // it comes to 0, which would say that there is none
  for (const auto& [message, checksum] : cases) {
    const Bytes datagram = UdpDatagram(::inet_addr("10.77.0.2"), 5060, {::inet_addr("203.0.113.1"), 3478}, message);
    const std::size_t size = message.size() + 8;
    EXPECT_EQ(Bytes(datagram.begin(), datagram.begin() + 8),
              (Bytes{0x13, 0xc4, 0x0d, 0x96, static_cast<u8>(size >> 8), static_cast<u8>(size),
                     static_cast<u8>(checksum >> 8), static_cast<u8>(checksum)}));
  }
}

TEST(StunPacket, OnlyWholeUdpPacketsAreRead) {
  const Bytes whole{0x45, 0,    0,    36,   0, 0,  0,    0,    64, 17, 0, 0, 203, 0, 113, 1, 10, 77, 0, 2,  // IPv4
                    0x0d, 0x96, 0x13, 0xc4, 0, 16, 0xba, 0xd0, 0,  8,  3, 4, 5,   6, 7,   8};  // UDP, checksum wrong
  const std::tuple<const char*, std::map<std::size_t, u8>, int> cases[] = {
      // the payload's size, or -1: not read
      {"whole", {}, 8},
      {"a shorter datagram in it", {{25, 10}}, 2},
      {"a packet that ends before its buffer", {{3, 30}, {25, 10}}, 2},
      {"options in its header", {{0, 0x46}, {20, 1}, {24, 0x0d}, {25, 0x96}, {26, 0x13}, {27, 0xc4}}, 0},
      {"a datagram shorter than its header", {{25, 7}}, -1},
      {"a datagram longer than its packet", {{25, 17}}, -1},
      {"a packet longer than its buffer", {{3, 37}}, -1},
      {"a header shorter than any", {{0, 0x44}}, -1},
      {"a header longer than its packet", {{0, 0x4f}}, -1},
      {"IPv6", {{0, 0x65}}, -1},
  };
  Datagram datagram;
  for (const auto& [name, changes, payload] : cases) {
    Bytes packet = whole;
    for (const auto& [at, value] : changes) {
      packet[at] = value;
    }
    ASSERT_EQ(ReadUdpPacket(packet, datagram), payload >= 0) << name;
    EXPECT_EQ(datagram.source, (Endpoint{::inet_addr("203.0.113.1"), 3478})) << name;
    EXPECT_EQ(datagram.localPort, 5060) << name;
    EXPECT_TRUE(payload < 0 || datagram.payload == Bytes(&whole[28], &whole[28] + payload)) << name;
  }
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(ReadUdpPacket(std::span(whole).first(size), datagram)) << size;
  }
}

}  // namespace
}  // namespace stun
