// Says what the agent's own codec makes of packets. Standard input: packets, each behind two bytes of length. Standard
// output: of each packet a line with the reason for refusing it to the agent, to the CGI queue and to a party; 0:
// taken.
#include <iostream>
#include <iterator>

#include "platform/messaging/frame.h"
#include "tests/fuzz/fuzz.h"

int main() {
  using namespace messaging;
  const std::string input((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
  std::string_view rest = input;
  while (const auto packet = fuzz::TakePacket(rest)) {
    for (const FrameWay way : {FrameWay::TO_AGENT, FrameWay::TO_CGI_QUEUE, FrameWay::TO_PARTY}) {
      Frame frame;
      FrameFault fault;
      std::cout << (DecodeFrame(packet->bytes, way, frame, fault) ? 0 : static_cast<u32>(fault.reason)) << ' ';
    }
    std::cout << '\n';
  }
}
