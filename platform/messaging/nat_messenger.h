#pragma once

#include <list>
#include <memory>
#include <string>

#include "nat/nat_records.h"
#include "platform/messaging/queue_state.h"
#include "platform/types.h"

class PartyQueue;

namespace messaging {
struct Frame;
enum class FrameKind : u16;
}  // namespace messaging

// One call agent's queue: turns what arrives into calls of the virtual handlers and sends the answers back. A request
// that is malformed in any way is answered with an error frame here and reaches no handler. All operations belong to
// the one thread that processes the queues. A handler that does not answer a request keeps it as a LateRequest; while
// too many requests of the party wait so, the next one is not taken.
class NatMessenger {
 public:
  // Opens the queue; a queue that cannot be opened is reported in the journal and never has anything to process.
  explicit NatMessenger(u32 queue);
  virtual ~NatMessenger();
  NatMessenger(const NatMessenger&) = delete;
  NatMessenger& operator=(const NatMessenger&) = delete;

  bool IsPartyOnline() const;
  // Also on a thread that keeps the one of the queues out.
  messaging::QueueState State() const;

  // Processes what waits, at most one message, connection or hang-up. The argument must be 1. False when nothing
  // waited.
  virtual bool ProcessMessageFromQueue(int count);

  // Whether messages that were received together with the last one wait. They belong to the same turn: no wait tells of
  // them, and the answers given so far go out, together, when this is false.
  bool HasMore() const;

  // Hangs up on the party, which then waits no longer for an answer that cannot be given. Throws nothing.
  void HangUp() noexcept;

  // Sends an answer to the party, from within the request's handler or later. When it does not read, the answer is kept
  // and no further request of this party is taken until it has gone out. Returns 1, or 0 when the party that asked is
  // not connected any more (there is then nobody to answer).
  u32 ResponseCSNatMapping(const u64& queryId, const NatItem& item, const NatFlag& flag, const u32& value);
  u32 ResponseCSNatMapping(const u64& queryId, const std::list<NatRespItem>& items, const u32& value);
  u32 ResponseRTPNatMapping(const u64& queryId, const std::list<NatRespItem>& items, const u32& value);
  u32 ResponseReverceRTPNatMapping(const u64& queryId, const std::list<NatRespItem>& items, u32 value);

 protected:
  // The handlers; their results have no meaning here.
  virtual bool OnPartyStateChanged(bool online) = 0;
  // A connection or a message was refused.
  virtual void OnRefused(const messaging::Refusal&) {}
  virtual u32 OnRequestCSNatMapping(const u64& queryId, const std::string& destination, const std::list<NatItem>& items,
                                    const u32& value) = 0;
  virtual u32 OnRequestCSNatMapping(const u64& queryId, const std::string& destination, const NatItem& item,
                                    const NatPortType& portType, const u32& value) = 0;
  virtual u32 OnRequestRTPNatMapping(const u64& queryId, const std::string& destination,
                                     const std::list<NatItem>& items, const u32& csProto) = 0;
  virtual u32 OnRequestReverceRTPNatMapping(const u64& queryId, const std::list<NatItem>& items, const u32& value) = 0;
  virtual u32 OnCloseRTPNatMapping(const u64& queryId) = 0;

  // The protocol of the party at the other end, fixed by the queue number: 112 SIP, 114 CM, 115 CC, 113 the value 2.
  CA_PROTO m_proto;

 private:
  void Dispatch(const messaging::Frame& request);
  u32 SendList(messaging::FrameKind kind, const u64& queryId, const std::list<NatRespItem>& items, u32 value);

  std::unique_ptr<PartyQueue> m_queue;
};
