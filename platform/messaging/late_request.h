#pragma once

#include <cstddef>
#include <memory>

namespace messaging {
class PartyAccount;
}

// While it exists, one request is being handled: what is answered is the answer to it, and reaches the party that asked
// and nobody else. Without one an answer is for the present party. The thread that processes the queues; may nest.
class RequestScope {
 public:
  // Of the party with this account, or of nobody. The pointer itself must outlive the scope.
  explicit RequestScope(const std::shared_ptr<messaging::PartyAccount>& account);
  ~RequestScope();
  RequestScope(const RequestScope&) = delete;
  RequestScope& operator=(const RequestScope&) = delete;

  // Whether an answer that is given now goes to the party with this account.
  static bool IsFor(const std::shared_ptr<messaging::PartyAccount>& account);

  // The request in hand has been answered.
  static void Answered();
  // Whether it still needs an answer: neither answered nor kept, and its party is there. For a handler that failed.
  static bool IsOpen();

 private:
  friend class LateRequest;

  const std::shared_ptr<messaging::PartyAccount>& m_account;
  RequestScope* const m_outer;
  bool m_open;
};

// A request that its handler keeps, to answer it in a later turn. As long as this exists, the request counts among
// those of its party that wait. It may outlive the party, its queue and the agent's run; an answer then reaches nobody.
// The thread that processes the queues.
class LateRequest {
 public:
  // When so much of a party waits, its next request is not taken; the request that reaches a bound is kept. A device
  // sets up far fewer calls at once. The same bounds hold for all that gone parties left on a queue.
  static constexpr std::size_t kMaxRequests = 1024;
  static constexpr std::size_t kMaxBytes = 1024UL * 1024;

  LateRequest() = default;  // nobody's: it counts nowhere
  // The request that is being handled; it occupies so many bytes.
  explicit LateRequest(std::size_t bytes);
  LateRequest(LateRequest&& other) noexcept { swap(other); }
  LateRequest& operator=(LateRequest other) noexcept;
  ~LateRequest();

  bool IsKept() const { return m_account != nullptr; }
  // Whether the party that asked is there.
  bool HasParty() const;
  void Resize(std::size_t bytes);
  // True when its party is gone and gone parties left too much on its queue. It is then not kept any more, and the
  // journal reports the number of such requests.
  bool DropIfBeyondBounds();

  // For the scope in which it is answered.
  const std::shared_ptr<messaging::PartyAccount>& Account() const { return m_account; }

 private:
  void swap(LateRequest& other) noexcept;

  std::shared_ptr<messaging::PartyAccount> m_account;
  std::size_t m_bytes = 0;
};
