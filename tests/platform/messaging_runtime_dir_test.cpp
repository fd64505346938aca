#include "platform/messaging/runtime_dir.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>

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
    Channel channel(112);
    EXPECT_TRUE(Serves(channel));
    EXPECT_EQ(fs::status(dir).permissions(), fs::perms(0755));
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
  std::ofstream(m_dir + "/queue-112") << "precious";
  const std::pair<std::string, std::string> cases[] = {
      {m_dir + "/no/run", "cannot create the runtime directory " + m_dir + "/no/run: No such file or directory\n"},
      {longName, "is too long (136 bytes, at most 107): " + longName + "/queue-112\n"},
      {m_dir, "/queue-112 is there and is no socket; it is left alone and the queue stays closed\n"},
  };
  for (const auto& [dir, expected] : cases) {
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
  EXPECT_EQ(journal, "the runtime directory " + m_dir + " is in use by another agent, process 4711\n");
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

}  // namespace
