// What arrives on the sockets of the queues, either way: taken apart, put together again, the same bytes.

#include <algorithm>

#include "platform/messaging/frame.h"
#include "tests/fuzz/fuzz.h"

using namespace messaging;

namespace {

// With something in every field, so that what a decoder leaves there is seen.
Frame UsedFrame() {
  Frame frame;
  frame.text = "left over";
  frame.items.resize(3);
  frame.answers.resize(3);
  frame.texts.resize(3, "left over");
  frame.portType = frame.flag = frame.updateType = frame.value = 2;
  frame.queryId = 9;
  return frame;
}

void CheckDecoded(std::string_view packet, const Frame& frame) {
  std::string encoded;
  fuzz::Require(EncodeFrame(frame, encoded), "a decoded frame can be encoded");
  fuzz::Require(encoded == packet, "its bytes are those of the packet");
  fuzz::Require(
      frame.kind == FrameKind::REFUSED || std::all_of(frame.text.begin(), frame.text.end(), IsDestinationByte),
      "a destination has no blank and no control character");
}

void CheckRefused(std::string_view packet, const Frame& frame, const FrameFault& fault) {
  fuzz::Require(!fault.text.empty() && fault.reason >= RefusalReason::BAD_HEADER, "a fault has a reason and a text");
  fuzz::Require(frame.items.empty() && frame.answers.empty() && frame.texts.empty() && frame.text.empty(),
                "a refused frame is empty");
  Frame refusal;
  refusal.kind = FrameKind::REFUSED;
  refusal.queryId = frame.queryId;
  refusal.text = fault.text;
  std::string encoded;
  fuzz::Require(EncodeFrame(refusal, encoded), "the refusal can be sent");
  fuzz::Require(packet.size() >= sizeof(FrameHeader) || frame.queryId == 0, "no query id without a header");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view packet = fuzz::Text(data, size);
  int accepted = 0;
  for (const FrameWay way : {FrameWay::TO_AGENT, FrameWay::TO_CGI_QUEUE, FrameWay::TO_PARTY}) {
    Frame frame = UsedFrame();
    FrameFault fault;
    if (DecodeFrame(packet, way, frame, fault)) {
      ++accepted;
      CheckDecoded(packet, frame);
    } else {
      CheckRefused(packet, frame, fault);
    }
  }
  fuzz::Require(accepted <= 1, "a frame is valid one way only");
  return 0;
}
