// What a STUN server, or anybody in its place, answers.

#include "platform/stunutils/message.h"

#include <algorithm>

#include "tests/fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using Kind = stun::Answer::Kind;
  const auto answer = stun::ParseAnswer({data, size});
  if (!answer) {
    return 0;
  }
  fuzz::Require(size >= stun::kHeaderSize && std::equal(answer->id.begin(), answer->id.end(), data + 8),
                "the transaction id is that of the datagram");
  fuzz::Require((answer->kind == Kind::MAPPED) == answer->mapped.Known(), "exactly a mapped answer has an endpoint");
  fuzz::Require(
      answer->errorCode == 0 || (answer->kind == Kind::REFUSED && answer->errorCode >= 300 && answer->errorCode < 700),
      "an error code is one of the protocol's");
  const stun::Request request = stun::BindingRequest(answer->id);
  fuzz::Require(!stun::ParseAnswer(request), "a request is no answer");
  return 0;
}
