#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/messaging/frame.h"
#include "platform/messaging/late_request.h"
#include "platform/messaging/notice_inbox.h"
#include "platform/messaging/packet_batch.h"
#include "platform/messaging/party_account.h"
#include "platform/messaging/peer.h"
#include "platform/messaging/queue_registry.h"
#include "platform/messaging/queue_socket.h"
#include "platform/messaging/queue_state.h"
#include "platform/messaging/runtime_dir_lease.h"
#include "platform/unique_fd.h"

// One queue of this process: its socket, the one connected peer that is its party, the answers the party has not read
// yet and the notices that wait. All operations but Post belong to the one thread that processes the queues.
class PartyQueue {
 public:
  // What one turn did.
  enum class Turn {
    IDLE,        // nothing waited
    DONE,        // something that is nobody else's business
    CONNECTED,   // a peer is the party now and has been welcomed
    HUNG_UP,     // the party is gone; everything it had sent was taken before
    MESSAGE,     // Message() is a request of the party
    OWN_NOTICE,  // Message() is a notice that this process posted (queue of the CGI party only)
  };

  // What a poller found ready.
  enum Ready : unsigned { LISTENER = 1, PEER = 2, DOORBELL = 4 };

  // Opens the queue in the runtime directory. Failures are reported in the journal; the queue is then closed for good
  // and has never anything to process.
  PartyQueue(int number, messaging::FrameWay way);
  ~PartyQueue();
  PartyQueue(const PartyQueue&) = delete;
  PartyQueue& operator=(const PartyQueue&) = delete;

  int Number() const { return m_number; }
  bool IsPartyOnline() const { return static_cast<bool>(m_peer); }

  // Of the present party, or the one before; the counts. The thread that processes the queues, or one that keeps it
  // out.
  messaging::QueueState State() const;
  // What was refused since the last call, if anything.
  messaging::Refusal TakeRefusal() { return std::exchange(m_refusal, {}); }
  bool HasRefusal() const { return m_refusal.reason != 0; }

  // Does one thing that waits; at most one message, connection or hang-up. A second peer is refused on the way.
  Turn Process();

  // Whether messages are left that were received with the last one and may be taken now. Nothing else tells of them: go
  // on with Process. Answers are gathered meanwhile, and go out with SendGathered once this is false.
  bool HasMore() const { return !m_incoming.IsEmpty() && !m_heldBack && m_waiting.empty(); }
  // Throws nothing: a party whose answers cannot be kept is hung up on.
  void SendGathered() noexcept;

  // The message of the last turn, valid until the next one.
  const messaging::Frame& Message() const { return m_message; }

  // Where the next answer is to be encoded.
  std::string& Packet() { return m_gathering ? m_gathered.Next() : m_packet; }

  // Sends it; `encoded` false: it is beyond the limits of a frame (a journal error). When the party does not read, it
  // is kept, and no request of the party is taken before it went out, but for those received with this one. False when
  // nothing is sent, also because the party that asked is not connected any more.
  bool SendAnswer(bool encoded);

  // What waits of the present party; null before the first.
  const std::shared_ptr<messaging::PartyAccount>& Account() const { return m_account; }

  // Hangs up on the party. What it has sent is still taken, and answers are dropped. Throws nothing.
  void GiveUpParty() noexcept;

  // Whether requests of the party are left untaken. One that has hung up in full is not held back any more: what it had
  // sent is taken, so that its successor can be.
  void HoldBack(bool held);

  // After a hang-up: says in the journal how many requests of gone parties were dropped, if any.
  void ReportDropped();

  // For a poller: from now on the epoll instance, which is shared with the poller, tells of this queue. Each event's
  // data is the number and, in the low byte, the bit of what is ready. False when the queue is not open.
  bool Watch(std::shared_ptr<const UniqueFd> epoll);
  void NoteReady(unsigned ready) { m_ready |= ready; }

  // Takes in a peer that has connected already, when there is no party.
  void AdoptWaiting();

  // For a poller: whether the listener is left alone because the process is out of descriptors. EndRest watches it
  // again once kRest is over, so it is to be called from time to time meanwhile.
  static constexpr std::chrono::milliseconds kRest{250};
  bool IsResting() const { return m_resting; }
  void EndRest();

  // Any thread: an encoded notice for the party, and on the CGI party's queue for this process too. Never blocks.
  void Post(const std::string& notice);

 private:
  friend class messaging::QueueRegistry;

  unsigned AskReady() const;
  bool HasPeerHungUp(bool inFull) const;
  bool MakesWay() const;
  bool Adopt();
  void RefuseNext();
  UniqueFd AcceptAdmitted(messaging::Peer& from);
  void Refuse(int peer, const messaging::Peer& from, messaging::RefusalReason reason, const std::string& text);
  void NoteRefusal(const messaging::Peer& from, messaging::RefusalReason reason, const std::string& text);
  void Rest();
  bool TakeOwnNotice();
  Turn Receive();  // only while no answer waits and the party is not held back
  Turn TakeNext();
  Turn TakePacket(std::string_view packet);
  bool IsEmptyPacket() const;
  void RefuseMessage(const messaging::FrameFault& fault);
  void HangUp();

  bool SendFrame(messaging::FrameKind kind, u64 queryId, u32 value, const std::string& text = {});
  bool Send(bool encoded);
  void SendPacket();
  std::size_t TrySend(const std::string* packets, std::size_t count);
  void Flush();
  void SendNotices();

  void Open(const messaging::RuntimeDirLease& lease);
  std::string Name() const;
  bool AddToEpoll(int fd, unsigned role) const;
  bool ControlEpoll(int operation, int fd, unsigned role, u32 events) const;
  u32 PeerEvents() const;
  void WatchPeer();

  const int m_number;
  const messaging::FrameWay m_way;

  // The registry's, guarded by its lock.
  std::shared_ptr<const messaging::RuntimeDirLease> m_lease;
  PartyQueue* m_next = nullptr;
  std::optional<messaging::FileId> m_file;  // of the open socket
  bool m_closed = false;                    // for good

  messaging::NoticeInbox m_inbox;  // guards itself
  std::optional<messaging::QueueSocket> m_socket;
  std::shared_ptr<const UniqueFd> m_epoll;
  unsigned m_ready = 0;
  bool m_resting = false;
  std::chrono::steady_clock::time_point m_restEnd;
  bool m_noticeWasLast = false;  // own notices and the party take turns

  UniqueFd m_peer;
  messaging::Peer m_party;         // who that is
  std::int64_t m_since = 0;        // when it connected, milliseconds since 1970
  messaging::QueueState m_counts;  // the counts only
  messaging::Refusal m_refusal;
  std::shared_ptr<messaging::PartyAccount> m_account;
  bool m_heldBack = false;
  bool m_peerReads = false;           // false: it has hung up on us, and what it sent is still being taken
  std::deque<std::string> m_waiting;  // encoded answers that the peer's socket had no room for
  messaging::IncomingPackets m_incoming;
  bool m_gathering = false;  // of the messages received together, one is in hand
  messaging::OutgoingPackets m_gathered;
  std::string m_packet;  // one packet, outgoing
  messaging::Frame m_message;
};
