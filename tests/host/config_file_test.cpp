#include "host/config_file.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
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
          "exclusions = [{ip = '0.0.0.0', mask = '0.0.0.0'}, {ip = '10.1.2.3', mask = '255.255.255.255'}]\n"
          "sip_udp_use_stun = true\n[stun]\nserver_host = ['stun.a', '192.0.2.1:3479']\n"
          "sends_per_probe = 4294967295\nfirst_timeout_ms = 7\nprobe_period_s = 8\n")
          .nat;
  EXPECT_EQ(nat.gwInterface, "abcd#\"gh'k[m:\xC3\xA9");
  EXPECT_EQ(nat.sipUdpPublicPort, 1) << "the local one, as it is absent";
  EXPECT_EQ(nat.gwPublicPortStart, 65535);
  EXPECT_EQ(nat.gwPublicPortEnd, 65535);
  EXPECT_EQ(nat.natExclusions.back().ipText, "10.1.2.3") << "in the file's order";
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
      {"[[nat]]\n", "f.toml:1: nat: must be a table, is an array"},
      {"[media]\nrtp_port = 1\n", "f.toml:2: media.rtp_port: unknown key"},
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
      {"[nat]\nexclusions = [\n  '10.0.0.0/8',\n]\n", "f.toml:3: nat.exclusions[0]: must be a table"},
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
      {"255.0.0.0", "255.255.0.0", 0x0080},
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
