// The lines on natagentd's status.sock.

#include "host/status_request.h"
#include "platform/messaging/frame.h"
#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const StatusRequestResult result = ParseStatusRequest(fuzz::Text(data, size));
  fuzz::Require(result.request.has_value() == result.error.empty(), "a request, or an error");
  if (result.request && result.request->kind == StatusRequest::Kind::EXPLAIN) {
    const NatHostQuestion& question = result.request->question;
    fuzz::Require(question.queue >= 112 && question.queue <= 115 && question.kind <= NAT_HOST_RTP, "a question");
    fuzz::Require(result.request->destination.size() <= messaging::kMaxTextBytes, "a destination as of a request");
  }
  return 0;
}
