#include "host/config_file.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

HostSettings Valid(const std::string& text) {
  const ConfigResult result = ParseConfig(text, "f.toml");
  EXPECT_THAT(result.errors, ElementsAre());
  return result.settings.value_or(HostSettings());
}

std::string Repeated(const char* part, std::size_t times) {
  std::string text;
  while (times-- > 0) {
    text += part;
  }
  return text;
}

std::string ExampleText() {
  std::ifstream in(NATAGENT_EXAMPLES "/natagentd.toml");
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(ConfigFile, TheExampleIsReadFieldByField) {
  const auto [media, nat, access, statusGroup] = Valid(ExampleText());
  const u32 publicIp = inet_addr("203.0.113.7");
  EXPECT_THAT((std::vector<u32>{media.rtpPortStart, media.rtpPortEnd, media.rtcpEnabled}),
              ElementsAre(10000, 10199, 1));
  EXPECT_THAT((std::vector<u32>{nat.sipUdpPort, nat.sipTcpPort, nat.sipUdpUseStun, nat.gwUseStun}),
              ElementsAre(5060, 5060, 0, 0));
  EXPECT_THAT((std::vector<u32>{nat.sipUdpPublicIp, nat.sipTcpPublicIp, nat.gwPublicIp}), testing::Each(publicIp));
  EXPECT_THAT((std::vector<u32>{nat.sipUdpPublicPort, nat.sipTcpPublicPort, nat.gwPublicPortStart, nat.gwPublicPortEnd,
                                nat.stunServerPort}),
              ElementsAre(15060, 15061, 20000, 20199, 3478));
  ASSERT_EQ(nat.natExclusions.size(), 1u);
  EXPECT_EQ(nat.gwInterface + nat.natExclusions.front().ipText + nat.natExclusions.front().maskText,
            "*10.0.0.0255.0.0.0");
  EXPECT_EQ(nat.stunServerHost, "stun.example.net");
}

TEST(ConfigFile, DefaultsAndEdgesThatAreValid) {
  EXPECT_EQ(ChangesBetween(DefaultSettings(), Valid("# nothing\n[nat]\n[media]\n[stun]\n")), 0);
  const NatConfig nat =
      Valid(
          "\xEF\xBB\xBF[media]  # \xC3\xA9]}'\"\nrtp_port_start = 65535\nrtp_port_end = 65535\n"
          "[nat]\nsip_udp_port = 1\nsip_udp_public_ip = '203.0.113.7'\ngw_public_ip = '203.0.113.7'\n"
          "gw_interface = \"abcd#\\\"gh'k[m:\\u00e9\"\nsip_tcp_public_ip = '0.0.0.0'\nsip_tcp_public_port = 0\n"
          "exclusions = ['1.2.3.4/0', {ip = '0.0.0.0', mask = '0.0.0.0'}, '172.16.0.0/12', '10.1.2.3/32']\n"
          "sip_udp_use_stun = true\n[stun]\nserver_host = ['stun.a', '192.0.2.1:3479']\n"
          "sends_per_probe = 4294967295\nfirst_timeout_ms = 7\nprobe_period_s = 8\n")
          .nat;
  EXPECT_EQ(nat.gwInterface, "abcd#\"gh'k[m:\xC3\xA9");
  EXPECT_EQ(nat.sipUdpPublicPort, 1) << "the local one, as it is absent";
  EXPECT_EQ(nat.gwPublicPortStart, 65535);
  EXPECT_EQ(nat.gwPublicPortEnd, 65535);
  std::string rules;
  for (const NatExcRuleText& rule : nat.natExclusions) {
    rules += rule.ipText + "/" + rule.maskText + " ";
  }
  EXPECT_EQ(rules, "1.2.3.4/0.0.0.0 0.0.0.0/0.0.0.0 172.16.0.0/255.240.0.0 10.1.2.3/255.255.255.255 ");
  EXPECT_EQ(nat.stunServerHost, "stun.a,192.0.2.1:3479");
  EXPECT_THAT((std::vector<u32>{nat.stunSetting1, nat.stunSetting2, nat.stunSetting3}), ElementsAre(8, 7, 4294967295u));
}

TEST(ConfigFile, QueuesAreLimitedToUsersByNameOrNumber) {
  const auto [media, nat, access, statusGroup] =
      Valid("[access]\nsip_users = ['root', '1001']\ncgi_users = []\nstatus_group = 'root'\n");
  EXPECT_EQ(statusGroup, 0u);
  EXPECT_EQ(access, (QueueAccess{{112, {0, 1001}}, {102, {}}}));
  std::string many;
  for (int i = 0; i < 65; ++i) {
    many += "'1',";
  }
  EXPECT_THAT(ParseConfig("[access]\ncm_users = [" + many + "]", "f").errors,
              ElementsAre("f:2: access.cm_users: names more than 64 users"));
}

TEST(ConfigFile, ARefusalNamesFileLineKeyAndReason) {
  const std::pair<std::string, const char*> cases[] = {
      {"\n[nat\n", "f.toml:2: "},
      // The TOML library aborts at these, or runs into undefined behaviour or out of stack.
      {"\n[)x]\n", "f.toml:2: the name of a table"},
      {"[[ \n", "f.toml:1: the name of a table"},
      {"\xCD\x92 = 1\n", "f.toml:1: only comments may"},
      {"[nat]\na = 0o\"#\xCF\x8A\"\n", "f.toml:2: only comments may"},
      {"[nat]\na = [}\n", "f.toml:2: '}' closes nothing"},
      {"[nat]\na = 1979-05-27T:\n", "f.toml:2: ':' has no place here"},
      {"[nat]\na = \"\"\"\n", "f.toml:2: strings of several lines"},
      {"a = " + std::string(1 << 19, '['), "f.toml:1: nested too deeply"},
      {Repeated("a.", 1 << 18) + "a = 1\n", "f.toml:1: the key has too many parts"},
      {"[" + Repeated("'a' . ", 1 << 17) + "a]\n", "f.toml:1: the key has too many parts"},
      {"a = 1\n", "f.toml:1: a: unknown key"},
      {"\n[sip]\nx = 1\n", "f.toml:2: sip: unknown table"},
      {"[meida]\n", "f.toml:1: meida: unknown table; did you mean 'media'?"},
      {"[[nat]]\n", "f.toml:1: nat: must be a table, is an array"},
      {"[media]\nrtp_port_strat = 1\n", "f.toml:2: media.rtp_port_strat: unknown key; did you mean 'rtp_port_start'?"},
      {"[nat]\nsip_udp_port = '5060'\n", "f.toml:2: nat.sip_udp_port: must be an integer, is a string"},
      {"[media]\nrtcp_enabled = 1\n", "f.toml:2: media.rtcp_enabled: must be true or false, is an integer"},
      {"[nat]\nsip_tcp_port = 65536\n", "f.toml:2: nat.sip_tcp_port: 65536 is not in 1..65535"},
      {"[stun]\nsetting1 = 4294967296\n", "f.toml:2: stun.setting1: 4294967296 is not in 0..4294967295"},
      {"[stun]\nsetting1 = 5\nprobe_period_s = 5\n", "f.toml:2: stun.setting1: is the same as probe_period_s"},
      {"[stun]\nserver_host = ['a', 3]\n",
       "f.toml:2: stun.server_host: must be a string or an array of strings, has an"},
      {"[stun]\nserver_host = ['a', 'b:0']\n", "f.toml:2: stun.server_host: \"b:0\" has no port"},
      {"[stun]\nserver_host = ['a', ':1']\n", "f.toml:2: stun.server_host: \":1\" is not HOST or HOST:PORT"},
      {"[nat]\ngw_public_ip = '203.0.113.300'\n", "f.toml:2: nat.gw_public_ip: \"203.0.113.300\" is not a"},
      {"[media]\nrtp_port_start = 200\nrtp_port_end = 100\n", "f.toml:2: media.rtp_port_start: range upside"},
      {"[nat]\ngw_public_port_start = 9\ngw_public_port_end = 8\n",
       "f.toml:2: nat.gw_public_port_start: range upside down"},
      {"[nat]\nsip_udp_public_ip = '203.0.113.7'\nsip_udp_public_port = 0\n",
       "f.toml:3: nat.sip_udp_public_port: 0 is no port"},
      {"[nat]\ngw_public_ip = '203.0.113.7'\ngw_public_port_start = 0\n",
       "f.toml:3: nat.gw_public_port_start: 0 is no port"},
      {"[nat]\ngw_public_ip = '203.0.113.7'\ngw_public_port_start = 65337\n",
       "f.toml:3: nat.gw_public_port_start: rtp_port_end would be seen as port 65536"},
      {"[nat]\ngw_interface = 'abcdefghijklmnop'\n", "f.toml:2: nat.gw_interface: must be"},
      {"[nat]\nsip_udp_use_stun = true\n", "f.toml:2: nat.sip_udp_use_stun: true needs stun.server_host"},
      {"[nat]\nexclusions = [\n  '10.0.0.0/33',\n]\n", "f.toml:3: nat.exclusions[0]: \"10.0.0.0/33\" is not ADDR"},
      {"[nat]\nexclusions = [ '10.0.0.0' ]\n", "f.toml:2: nat.exclusions[0]: \"10.0.0.0\" is not ADDRESS/BITS"},
      {"[nat]\nexclusions = [ '10.0.0/8' ]\n", "f.toml:2: nat.exclusions[0]: \"10.0.0/8\" is not ADDRESS/BITS"},
      {"[nat]\nexclusions = [ 8 ]\n", "f.toml:2: nat.exclusions[0]: must be \"ADDRESS/BITS\" or a table"},
      {"[nat]\ngw_public_ip = '203.0.113.7:5060'\n",
       "f.toml:2: nat.gw_public_ip: \"203.0.113.7:5060\" is not a dotted IPv4 address: a port has a key of its own"},
      {"[nat]\nsip_udp_public_ip = '0.0.0.1'\n", "f.toml:2: nat.sip_udp_public_ip: \"0.0.0.1\" cannot be an"},
      {"[nat]\nsip_tcp_public_ip = '127.0.0.1'\n", "f.toml:2: nat.sip_tcp_public_ip: \"127.0.0.1\" cannot be an"},
      {"[nat]\ngw_public_ip = '224.0.0.1'\n", "f.toml:2: nat.gw_public_ip: \"224.0.0.1\" cannot be an"},
      {"[nat]\ngw_public_ip = '255.255.255.255'\n", "f.toml:2: nat.gw_public_ip: \"255.255.255.255\" cannot be an"},
      {"[nat]\nexclusions = [ { ip = '10.0.0.0', mask = '255.0.0.0' },\n { ip = '10.0.0.0' } ]\n",
       "f.toml:3: nat.exclusions[1].mask: is missing"},
      {"[[nat.exclusions]]\nip = '10.0.0.0'\nmask = '255.0.255.0'\n",
       "f.toml:3: nat.exclusions[0].mask: \"255.0.255.0\" is not a mask"},
      {"[[nat.exclusions]]\nip = '10.0.0.0'\nmask = '255.0.0.0'\nname = 'x'\n",
       "f.toml:4: nat.exclusions[0].name: unknown key"},
      {"[[nat.exclusions]]\nip = 'ten'\nmask = '255.0.0.0'\n",
       "f.toml:2: nat.exclusions[0].ip: \"ten\" is not a dotted"},
      {"[access]\nsip_user = []\n", "f.toml:2: access.sip_user: unknown key"},
      {"[access]\nstatus_group = 'no such'\n", "f.toml:2: access.status_group: must not contain blanks"},
      {"[access]\nstatus_group = '-1'\n", "f.toml:2: access.status_group: \"-1\" is not a group of this system"},
      {"[access]\ncm_users = 'root'\n", "f.toml:2: access.cm_users: must be an array, is a string"},
      {"[access]\ncc_users = [ 'root',\n 1001 ]\n", "f.toml:3: access.cc_users: must be a string, is an integer"},
      {"[access]\ncgi_users = [ '-1' ]\n", "f.toml:2: access.cgi_users: \"-1\" is not a user of this system"},
      {"[access]\nq113_users = [ '4294967295' ]\n", "f.toml:2: access.q113_users: \"4294967295\" is not a user"},
  };
  for (const auto& [text, error] : cases) {
    const ConfigResult result = ParseConfig(text, "f.toml");
    EXPECT_FALSE(result.settings.has_value()) << text;
    EXPECT_THAT(result.errors, ElementsAre(testing::StartsWith(error))) << text;
  }
}

// A configuration with drop-ins, in a directory of its own.
class ConfigDropIns : public testing::Test {
 protected:
  ConfigDropIns() : m_directory(testing::TempDir() + "natagentd-drop-ins-" + std::to_string(::getpid())) {
    std::filesystem::create_directories(m_directory + "/conf.d");
  }
  ~ConfigDropIns() override { std::filesystem::remove_all(m_directory); }
  std::string Write(const std::string& name, const std::string& text) {
    std::ofstream(m_directory + "/" + name) << text;
    return m_directory + "/" + name;
  }
  const std::string m_directory;
};

TEST_F(ConfigDropIns, LaterFilesOverrideKeyByKey) {
  const std::string main = Write("natagentd.toml",
                                 "[nat]\nsip_udp_port = 5070\ngw_interface = \"g\\u00e9\\\"\"\n"
                                 "exclusions = ['10.0.0.0/8', '192.168.0.0/16']\n[access]\nsip_users = ['root']\n");
  const std::string second = Write("conf.d/20.toml", "[nat]\nsip_udp_port = 5072\n");
  const std::string first = Write("conf.d/10-site.toml",
                                  "\n[nat]\nsip_udp_port = 5071\nexclusions = ['172.16.0.0/12']\n"
                                  "[stun]\nserver_host = ['a', 'b:1']\nsetting1 = 9\n");
  Write("conf.d/.hidden.toml", "x");
  Write("conf.d/30.toml.bak", "x");
  const ConfigResult result = ReadConfigWithDropIns(main);
  EXPECT_THAT(result.errors, ElementsAre());
  EXPECT_THAT(result.files, ElementsAre(main, first, second));
  ASSERT_TRUE(result.settings.has_value());
  EXPECT_EQ(result.settings->nat.sipUdpPort, 5072);
  EXPECT_EQ(result.settings->nat.natExclusions.size(), 1u) << "an array is replaced";
  // What is in force, and from where; read again it is the same.
  for (const std::string& line :
       {"\nsip_udp_port = 5072 +# " + second + ":2\n", "\nexclusions = [^\n]+ # " + first + ":4\n",
        "\nsip_users = ..root.. +# " + main + ":6\n", std::string("\nsip_tcp_port = 5060 +# default\n")}) {
    EXPECT_THAT(result.text, testing::ContainsRegex(line));
  }
  const ConfigResult again = ParseConfig(result.text, "kept");
  EXPECT_THAT(again.errors, ElementsAre());
  ASSERT_TRUE(again.settings.has_value());
  EXPECT_EQ(ChangesBetween(*result.settings, *again.settings), 0);
  EXPECT_EQ(result.settings->access, again.settings->access);
}

TEST_F(ConfigDropIns, AWrongOneIsRefusedWithItsFileAndLine) {
  const std::string main = Write("natagentd.toml", "[nat]\n\n\nsip_udp_use_stun = true\n");
  const std::string drop = Write("conf.d/a.toml", "[nat]\nsip_udp_port = 0\n");
  EXPECT_THAT(ReadConfigWithDropIns(main).errors,
              ElementsAre(HasSubstr(main + ":4: nat.sip_udp_use_stun"), HasSubstr(drop + ":2: nat.sip_udp_port: 0")));
  Write("conf.d/a.toml", "nat = 1\n");
  EXPECT_THAT(ReadConfigWithDropIns(main).errors, ElementsAre(drop + ":1: nat: must be a table, is an integer"));
  Write("conf.d/a.toml", "\n[)\n");
  const std::string directory = m_directory + "/conf.d/b.toml";
  std::filesystem::create_directory(directory);
  EXPECT_THAT(ReadConfigWithDropIns(main).errors,
              ElementsAre(HasSubstr(drop + ":2: the name of a table"), directory + ": cannot be read: Is a directory"));
  std::filesystem::remove_all(m_directory + "/conf.d");
  Write("conf.d", "");
  EXPECT_THAT(ReadConfigWithDropIns(main).errors,
              ElementsAre(m_directory + "/conf.d: cannot be read: Not a directory"));
}

TEST(AccountLookup, NamesTakeABoundedTime) {
  using Result = AccountLookup::Answer;
  std::promise<void> end;
  const auto hanging = [future = end.get_future().share()](AccountLookup::Kind, const std::string&) {
    future.wait();
    return Result{7, 0};
  };
  const auto failing = [](AccountLookup::Kind, const std::string&) { return Result{std::nullopt, EIO}; };
  unsigned number = 0;
  AccountLookup slow(std::chrono::milliseconds(1), hanging);
  EXPECT_THAT(slow.Find(AccountLookup::USER, "voip", number), HasSubstr("no answer within 1 s"));
  EXPECT_TRUE(slow.IsPassing());
  EXPECT_EQ(slow.Find(AccountLookup::USER, "1001", number), "") << "numbers are not looked up";
  EXPECT_EQ(number, 1001u);
  end.set_value();
  AccountLookup working(std::chrono::minutes(1), hanging);
  EXPECT_EQ(working.Find(AccountLookup::USER, "voip", number), "");
  EXPECT_EQ(number, 7u);
  AccountLookup system(std::chrono::minutes(1));
  EXPECT_EQ(system.Find(AccountLookup::GROUP, "root", number), "");
  EXPECT_EQ(number, 0u);
  EXPECT_EQ(system.Find(AccountLookup::GROUP, "-1", number), "\"-1\" is not a group of this system");
  EXPECT_FALSE(working.IsPassing() || system.IsPassing());
  AccountLookup broken(std::chrono::minutes(1), failing);
  EXPECT_THAT(broken.Find(AccountLookup::USER, "voip", number), HasSubstr("cannot be looked up: Input/output error"));
  EXPECT_TRUE(broken.IsPassing());
}

TEST(ConfigFile, EveryFaultIsReportedInTheOrderOfTheLines) {
  EXPECT_THAT(ParseConfig("[stun]\nserver_port = 0\n[nat]\nx = 1\n[y]\n", "f").errors,
              ElementsAre(HasSubstr("f:2: stun.server_port"), HasSubstr("f:4: nat.x"), HasSubstr("f:5: y")));
  EXPECT_THAT(ReadConfig("/").errors, ElementsAre(HasSubstr("/: cannot be read: ")));
  EXPECT_THAT(ReadConfig("/dev/zero").errors, ElementsAre("/dev/zero: cannot be read: not a regular file"));
  const std::string large = testing::TempDir() + "natagentd-large-" + std::to_string(::getpid());
  std::ofstream(large) << std::string((1 << 20) + 1, '\n');
  EXPECT_THAT(ReadConfig(large).errors, ElementsAre(large + ": cannot be read: larger than 1 MiB"));
  ASSERT_EQ(::truncate(large.c_str(), 1 << 20), 0);
  EXPECT_THAT(ReadConfig(large).errors, ElementsAre());
  ::unlink(large.c_str());
}

TEST(ConfigChanges, EveryFieldIsToldWithItsBit) {
  const HostSettings before = Valid(ExampleText());
  const struct {
    const char* from;
    const char* to;
    u16 bits;
  } changes[] = {
      {"rtcp_enabled   = true", "rtcp_enabled   = false", 0x0080},
      {"\"*\"", "\"eth0\"", 0x0080},
      {"gw_use_stun          = false", "gw_use_stun          = true", 0x0080},
      {"10.0.0.0/8", "10.0.0.0/9", 0x0080},
      {"stun.example.net", "stun.example.org", 0x2000},
      {"server_port = 3478", "server_port = 3479", 0x2000},
  };
  for (const auto& change : changes) {
    std::string text = ExampleText();
    const std::size_t at = text.find(change.from);
    ASSERT_NE(at, std::string::npos) << change.from;
    text.replace(at, std::strlen(change.from), change.to);
    EXPECT_EQ(ChangesBetween(before, Valid(text)), change.bits) << change.to;
  }
  HostSettings both = before;
  both.media.rtpPortEnd = both.nat.stunServerPort = 1;
  EXPECT_EQ(ChangesBetween(before, both), 0x2080);
}

}  // namespace
