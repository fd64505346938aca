#include "platform/messaging/runtime_dir.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>

#include "platform/messaging/queue_registry.h"
#include "platform/unique_fd.h"
#include "tests/platform/messaging_fixture.h"

using namespace messaging_test;
namespace fs = std::filesystem;

namespace {

class RuntimeDirectoryTest : public MessagingTest {
 protected:
  // Whether a party can connect and is taken in.
  static bool Serves(Channel& channel) {
    const Party party(NATCLIENT_SIP);
    return channel.ProcessMessageFromQueue(1) && channel.IsPartyOnline();
  }
  // Asks for, or takes, the lock as another agent would. The type of the lock that was found.
  int Lock(int command) {
    struct flock whole {};
    whole.l_type = F_WRLCK;
    EXPECT_EQ(::fcntl(m_lockFile.Get(), command, &whole), 0);
    return whole.l_type;
  }
  const UniqueFd m_lockFile{::open(messaging::LockPath(m_dir).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)};
};

TEST_F(RuntimeDirectoryTest, IsMadeWithItsQueuesAndReplacesThoseOfACrashedAgent) {
  const std::string dir = m_dir + "/run";
  const std::string queue = dir + "/queue-112";
  ::setenv("NATAGENT_RUNTIME_DIR", dir.c_str(), 1);
  {
    const mode_t umask = ::umask(0077);
    Channel channel(112);
    ::umask(umask);
    EXPECT_TRUE(Serves(channel));
    EXPECT_EQ(fs::status(dir).permissions(), fs::perms(0755));
    EXPECT_EQ(fs::status(messaging::LockPath(dir)).permissions(), fs::perms(0600));
    EXPECT_EQ(fs::status(queue).permissions(), fs::perms(0660));
    EXPECT_EQ(Journal([] { const Channel again(112); }), "queue 112 is open in this process already\n");
  }
  EXPECT_FALSE(fs::exists(queue));
  ASSERT_EQ(::mknod(queue.c_str(), S_IFSOCK | 0600, 0), 0);
  Channel channel(112);
  EXPECT_TRUE(Serves(channel));
}

TEST_F(RuntimeDirectoryTest, WhatCannotBeAQueueIsSaidAndLeftAlone) {
  const std::string longName = m_dir + "/" + std::string(100, 'x');
  const auto lockAt = [this](const char* dir) {
    fs::create_directory(m_dir + dir);
    return messaging::LockPath(m_dir + dir);
  };
  ::mkfifo(lockAt("/fifo").c_str(), 0600);
  fs::create_symlink(m_dir + "/queue-112", lockAt("/link"));
  fs::create_hard_link(messaging::LockPath(m_dir), lockAt("/twice"));
  std::ofstream(lockAt("/foreign")).put('x');
  const bool foreign = ::chown(lockAt("/foreign").c_str(), 65534, 65534) == 0;
  std::ofstream(m_dir + "/queue-112") << "precious";
  const std::pair<std::string, std::string> cases[] = {
      {m_dir + "/no/run", "cannot create the runtime directory " + m_dir + "/no/run: No such file or directory\n"},
      {longName, "the runtime directory's name is too long for the sockets in it: " + longName + "\n"},
      {m_dir + "/fifo", "the lock file " + m_dir + "/fifo/agent.lock is not a regular file\n"},
      {m_dir + "/link", "the lock file " + m_dir + "/link/agent.lock is not a regular file\n"},
      {m_dir + "/twice", "the lock file " + m_dir + "/twice/agent.lock has a second name elsewhere\n"},
      {m_dir + "/foreign", "/foreign/agent.lock belongs to user 65534, not to user 0, who runs this agent\n"},
      {m_dir, "/queue-112 is there and is no socket; it is left alone and the queue stays closed\n"},
  };
  for (const auto& [dir, expected] : cases) {
    if (dir.ends_with("foreign") && !foreign) {
      continue;  // only root can give a file away
    }
    if (dir == m_dir) {
      fs::remove(m_dir + "/twice/agent.lock");
    }
    ::setenv("NATAGENT_RUNTIME_DIR", dir.c_str(), 1);
    const std::string journal = Journal([this] {
      Channel channel(112);
      EXPECT_FALSE(channel.ProcessMessageFromQueue(1) || m_loop->poller.SelectQueue(112, "/", true, false));
    });
    EXPECT_TRUE(journal.ends_with(expected)) << journal;
  }
  EXPECT_EQ(fs::file_size(m_dir + "/queue-112"), 8U);
}

TEST_F(RuntimeDirectoryTest, AnotherAgentIsNamedOnceAndItsSocketsStay) {
  ASSERT_EQ(::write(m_lockFile.Get(), "4711\n", 5), 5);
  Lock(F_OFD_SETLK);
  std::ofstream(m_dir + "/queue-112");
  const std::string journal = Journal([] {
    Channel one(112);
    Channel two(114);
    EXPECT_FALSE(one.ProcessMessageFromQueue(1) || two.ProcessMessageFromQueue(1));
  });
  EXPECT_EQ(journal, "the runtime directory " + m_dir + " is in use by process 4711\n");
  EXPECT_TRUE(fs::exists(m_dir + "/queue-112"));
  EXPECT_FALSE(fs::exists(m_dir + "/queue-114"));
}

TEST_F(RuntimeDirectoryTest, TheLockIsGivenBackWithTheLastQueue) {
  auto one = std::make_unique<Channel>(112);
  auto two = std::make_unique<Channel>(114);
  // Whoever in the process looks into the file, and closes it, must not give the lock away.
  std::ifstream(messaging::LockPath(m_dir)).get();
  one.reset();
  EXPECT_EQ(Lock(F_OFD_GETLK), F_WRLCK);
  two.reset();
  EXPECT_EQ(Lock(F_OFD_GETLK), F_UNLCK);
}

TEST_F(RuntimeDirectoryTest, AReaderOfAnOldLockFileKeepsNoAgentOut) {
  const UniqueFd reader(::open(messaging::LockPath(m_dir).c_str(), O_RDONLY | O_CLOEXEC));
  struct flock whole {};
  whole.l_type = F_RDLCK;
  ASSERT_EQ(::fcntl(reader.Get(), F_OFD_SETLK, &whole), 0);
  Channel channel(112);
  EXPECT_TRUE(Serves(channel));
  EXPECT_EQ(fs::status(messaging::LockPath(m_dir)).permissions(), fs::perms(0600));
}

TEST_F(RuntimeDirectoryTest, TheHostsLeaseIsSharedAndOutlivesTheQueues) {
  messaging::RuntimeDirLease host(m_dir);
  EXPECT_EQ(messaging::QueueRegistry::UseLease(std::string(200, 'x').c_str(), host.Lock()), ENAMETOOLONG);
  ASSERT_EQ(messaging::QueueRegistry::UseLease(m_dir.c_str(), host.Lock()), 0);
  ::setenv("NATAGENT_RUNTIME_DIR", "/nonexistent/dir", 1);
  {
    Channel channel(112);
    ::setenv("NATAGENT_RUNTIME_DIR", m_dir.c_str(), 1);
    EXPECT_TRUE(Serves(channel));
  }
  EXPECT_EQ(Lock(F_OFD_GETLK), F_WRLCK);
  fs::rename(m_dir, m_dir + "-moved");
  fs::create_directory(m_dir);
  EXPECT_EQ(Journal([] { const Channel channel(112); }), messaging::LockPath(m_dir) + " was removed or replaced\n");
  fs::remove_all(m_dir + "-moved");
  EXPECT_EQ(messaging::QueueRegistry::UseLease(nullptr, -1), 0);
}

TEST_F(RuntimeDirectoryTest, OnlyItsOwnSocketIsRemovedAndEveryLossIsNoticed) {
  using State = messaging::QueueRegistry::State;
  const std::string dir = m_dir + "/run";
  const std::string moved = m_dir + "/moved";
  const std::string queue = dir + "/queue-112";
  ::setenv("NATAGENT_RUNTIME_DIR", dir.c_str(), 1);
  const struct {
    std::function<void()> harm;
    std::string fault;
    bool replaced;
  } cases[] = {
      {[&] { fs::rename(dir, moved), fs::create_directory(dir), ::mknod(queue.c_str(), S_IFSOCK | 0600, 0); },
       "the runtime directory " + dir + " was removed, renamed or replaced", true},
      {[&] { fs::remove_all(dir); }, "the runtime directory " + dir + " was removed, renamed or replaced", false},
      {[&] { fs::remove(queue), ::mknod(queue.c_str(), S_IFSOCK | 0600, 0); }, queue + " was removed or replaced",
       true},
      {[&] { fs::remove(messaging::LockPath(dir)); }, messaging::LockPath(dir) + " was removed or replaced", false},
  };
  for (const auto& [harm, fault, replaced] : cases) {
    m_loop.emplace();
    std::string found;
    EXPECT_EQ(messaging::QueueRegistry::Check(found), State::OPENING);
    m_loop->OpenCgi();
    for (int number = 112; number <= 115; ++number) {
      m_loop->Open(number);
    }
    EXPECT_EQ(messaging::QueueRegistry::Check(found), State::OPEN) << found;
    harm();
    EXPECT_EQ(messaging::QueueRegistry::Check(found), State::LOST);
    EXPECT_EQ(found, fault);
    m_loop.reset();
    EXPECT_EQ(fs::exists(queue), replaced) << fault;
    EXPECT_FALSE(fs::exists(moved + "/queue-112")) << "its own, wherever it is now";
    fs::remove_all(dir);
    fs::remove_all(moved);
  }
}

}  // namespace
