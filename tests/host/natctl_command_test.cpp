#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "host/status_request.h"
#include "tools/command.h"
#include "tools/command_line.h"
#include "tools/line_reader.h"
#include "tools/parsing.h"
#include "tools/status_command.h"
#include "tools/stun_command.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

Command Valid(const char* line) {
  const CommandResult result = ParseCommand(SplitWords(line), true);
  EXPECT_EQ(result.error, "") << line;
  return result.command.value_or(Command());
}

TEST(NatctlCommand, EveryWordCounts) {
  Command command = Valid("cs sip host.example 10.77.0.2:5060 tls value=4294967295 nowait id=18446744073709551615");
  EXPECT_EQ(command.kind, CommandKind::CS);
  EXPECT_EQ(command.party, NATCLIENT_SIP);
  EXPECT_EQ(command.destination, "host.example");
  EXPECT_EQ(command.items.at(0).ip, inet_addr("10.77.0.2"));
  EXPECT_EQ(command.items.at(0).port, 5060);
  EXPECT_EQ(command.portType, NATCLIENT_TLS);
  EXPECT_EQ(command.id, UINT64_MAX);
  EXPECT_EQ(command.value, UINT32_MAX);
  EXPECT_TRUE(command.nowait);
  // Options and items may be mixed.
  command = Valid("cs-list q113 198.51.100.9 1.2.3.4:0 id=7 5.6.7.8:65535");
  EXPECT_EQ(command.id, 7u);
  EXPECT_EQ(command.items.at(1).port, 65535);
  EXPECT_FALSE(command.nowait);
  command = Valid("update 92 nowait a:b value=3");
  EXPECT_EQ(command.updateType, 92u);
  EXPECT_THAT(command.texts, ElementsAre("nowait", "a:b"));
  // The call server is the party's own unless it is named.
  EXPECT_EQ(Valid("rtp sip 1.2.3.4").value, 1u);
  EXPECT_EQ(Valid("rtp cc 1.2.3.4").value, 3u);
  EXPECT_EQ(Valid("rtp cc 1.2.3.4 server=cm").value, 0u);
  EXPECT_EQ(Valid("rtp cc 1.2.3.4 server=9").value, 9u);
  EXPECT_EQ(Valid("wait").silenceMs, 1000);
  EXPECT_EQ(Valid("wait 0.25").silenceMs, 250);
}

TEST(NatctlCommand, LinesAreSplitAtBlanksUpToAComment) {
  EXPECT_THAT(SplitWords("  cs\tsip  host#1 # id=3\r"), ElementsAre("cs", "sip", "host#1"));
  EXPECT_THAT(SplitWords("# all of it"), ElementsAre());
}

TEST(NatctlCommand, WrongWordsAreNamed) {
  const struct {
    const char* line;
    const char* error;
  } cases[] = {
      {"csx sip", "'csx' is not a command; did you mean 'cs'?"},
      {"run x", "'run' is not for a run"},
      {"stun h:0", "stun: 'h:0' is not HOST[:PORT]"},
      {"cs sipp 1.2.3.4 1.2.3.4:1", "cs: 'sipp' is not a party: sip, q113, cm, cc or cgi; did you mean 'sip'?"},
      {"cs sip 1.2.3.4:5060 1.2.3.4:1", "cs: '1.2.3.4:5060' has a port, and DEST is a host alone"},
      {"cs sip 1.2.3.4 1.2.3.4:1 tpc", "or an option; did you mean 'tcp'?"},
      {"cs cgi 1.2.3.4 1.2.3.4:1", "cs: 'cgi' cannot send"},
      {"cs sip 1.2.3.4", "cs: IP:PORT is missing"},
      {"cs sip 1.2.3.4 1.2.3:5060", "cs: '1.2.3:5060' is not IP:PORT"},
      {"cs sip 1.2.3.4 1.2.3.4:65536", "cs: '1.2.3.4:65536' is not IP:PORT"},
      {"cs sip 1.2.3.4 1.2.3.4:", "cs: '1.2.3.4:' is not IP:PORT"},
      {"cs sip 1.2.3.4 1.2.3.4:1 1.2.3.4:2", "cs: '1.2.3.4:2' is one item too many"},
      {"cs sip 1.2.3.4 1.2.3.4:1 id=18446744073709551616", "'id=18446744073709551616'"},
      {"cs sip 1.2.3.4 1.2.3.4:1 id=1 id=2", "cs: 'id=2': id is given twice"},
      {"cs sip 1.2.3.4 1.2.3.4:1 udp tcp", "cs: 'tcp': the kind of port is given twice"},
      {"cs sip 1.2.3.4 1.2.3.4:1 nowait nowait", "cs: 'nowait': nowait is given twice"},
      {"cs sip 1.2.3.4 1.2.3.4:1 value=4294967296", "cs: 'value=4294967296'"},
      {"cs-list sip 1.2.3.4 udp", "cs-list: 'udp' is not IP:PORT"},
      {"rtp cc 1.2.3.4 server=sips", "rtp: 'server=sips'"},
      {"close sip", "close: id=N is missing"},
      {"update x", "update: 'x' is not an update type"},
      {"wait nan", "wait: 'nan' is not SECONDS"},
  };
  for (const auto& each : cases) {
    const CommandResult result = ParseCommand(SplitWords(each.line), true);
    EXPECT_FALSE(result.command.has_value()) << each.line;
    EXPECT_THAT(result.error, HasSubstr(each.error)) << each.line;
  }
}

TEST(NatctlLine, OptionsStandAnywhere) {
  const struct {
    const char* words;
    CommandKind kind;  // HELP: not carried out
    int exitCode;
    const char* said;
  } cases[] = {
      {"watch sip --json --timeout 2.5 --runtime-dir=/d", CommandKind::WATCH, 0, ""},
      {"--timeout=2.5 watch --runtime-dir /d --json sip", CommandKind::WATCH, 0, ""},
      {"--json --runtime-dir /d --local-port 7 stun --timeout 2.5 h", CommandKind::STUN, 0, ""},
      {"--json --runtime-dir /d --timeout 2.5 update 92 -- --json -", CommandKind::UPDATE, 0, ""},
      {"cs -h", CommandKind::HELP, 0, "Usage: natctl [OPTIONS] cs PARTY DEST IP:PORT [udp|tcp|tls] [id=N]"},
      {"help stun", CommandKind::HELP, 0, "--local-port N"},
      {"help", CommandKind::HELP, 0, "Usage: natctl [OPTIONS] COMMAND [WORD ...]\n"},
      {"-V", CommandKind::HELP, 0, "natctl "},
      {"help wach", CommandKind::HELP, 2, "did you mean 'watch'?"},
      {"watch sip --jsno", CommandKind::HELP, 2, "'--jsno' is not an option; did you mean '--json'?"},
      {"watch sip --local-port 7", CommandKind::HELP, 2, "'--local-port' is not an option"},
      {"watch", CommandKind::HELP, 2,
       "PARTY is missing: sip, q113, cm, cc or cgi\nUsage: natctl [OPTIONS] watch PARTY\n"},
      {"connect sip", CommandKind::HELP, 2, "for run only"},
      {"watch sip --timeout 1s", CommandKind::HELP, 2, "'1s' is not SECONDS"},
      {"--timeout", CommandKind::HELP, 2, "--timeout"},
      {"\x1b[31m", CommandKind::HELP, 2, "'\\x1b[31m' is not a command"},
  };
  for (const auto& each : cases) {
    std::vector<std::string> words = SplitWords(std::string("natctl ") + each.words);
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    int exitCode = 0;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const auto line = ParseNatctlLine(static_cast<int>(argv.size()), argv.data(), exitCode);
    const std::string said = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
    EXPECT_EQ(exitCode, each.exitCode) << each.words;
    EXPECT_THAT(said, HasSubstr(each.said)) << each.words;
    ASSERT_EQ(line.has_value(), each.kind != CommandKind::HELP) << each.words;
    if (!line) continue;
    EXPECT_EQ(line->command.kind, each.kind) << each.words;
    EXPECT_TRUE(line->json && line->runtimeDir == "/d" && line->timeouts.answer.count() == 2500) << each.words;
    EXPECT_EQ(line->command.stun.localPort, each.kind == CommandKind::STUN ? 7 : 0);
    EXPECT_EQ(line->command.texts.size(), each.kind == CommandKind::UPDATE ? 2u : 0u);
  }
}

TEST(NatctlStun, ServersAndPort) {
  const auto command = ParseStunCommand({"stun", "host.example", "--local-port=5060", "1.2.3.4:65535"}).command;
  ASSERT_TRUE(command.has_value());
  ASSERT_EQ(command->servers.size(), 2u);
  EXPECT_EQ(command->servers[0].host + "|" + command->servers[1].host, "host.example|1.2.3.4");
  EXPECT_EQ(command->servers[0].port, 3478);
  EXPECT_EQ(command->servers[1].port, 65535);
  EXPECT_EQ(command->localPort, 5060);
  for (const char* line :
       {"stun", "stun --local-port 1", "stun h --local-port", "stun h --local-port 0", "stun h --local-port 65536",
        "stun h --local-port=", "stun h --local-port 1 --local-port 1", "stun h:", "stun :1", "stun h:0",
        "stun h:65536", "stun h:1:2", "stun ::1", "stun h --local-prot 5"}) {
    const StunCommandResult result = ParseStunCommand(SplitWords(line));
    EXPECT_FALSE(result.command.has_value()) << line;
    EXPECT_THAT(result.error, testing::StartsWith("stun: ")) << line;
  }
}

TEST(NatctlStatus, WordsAndTheRequestThatTheyBecome) {
  const struct {
    const char* line;
    const char* request;  // or what is wrong
  } tests[] = {
      {"status", R"({"get":"summary"})"},
      {"status calls --json", R"({"get":"calls"})"},
      {"status --format openmetrics", R"({"get":"summary"})"},
      {"monitor --log", R"({"monitor":true,"log":true})"},
      {"explain cc pbx.example 10.77.0.2:10000 rtp server=sip",
       R"({"explain":{"party":"cc","dest":"pbx.example","ip":"10.77.0.2","port":10000,"kind":"rtp","server":"sip"}})"},
      {"status call", "status: 'call' is not a topic"},
      {"status calls names", "status: 'names' is one topic too many"},
      {"status calls --format openmetrics", "status: --format openmetrics stands alone"},
      {"status --format", "status: --format: text, json or openmetrics is missing"},
      {"monitor sip", "monitor: 'sip' is too much"},
      {"explain sip host", "explain: PARTY DEST IP:PORT are needed"},
      {"explain sip host 1.2.3.4:5 udp tcp", "explain: 'tcp' is one too many"},
      {"explain cgi host 1.2.3.4:5", "explain: 'cgi' is not a party"},
  };
  for (const auto& [line, request] : tests) {
    const StatusCommandResult result = ParseStatusCommand(SplitWords(line));
    EXPECT_THAT(result.command ? result.command->request.dump() : result.error, testing::StartsWith(request)) << line;
    // What natctl sends is what natagentd takes.
    EXPECT_TRUE(!result.command || ParseStatusRequest(result.command->request.dump()).request) << line;
  }
}

TEST(NatctlCommand, LimitsOfTheMessagesAreRefusedBeforeSending) {
  const auto isValid = [](const std::vector<std::string>& words) {
    return ParseCommand(words, false).command.has_value();
  };
  EXPECT_TRUE(isValid({"cs", "sip", std::string(255, 'a'), "1.2.3.4:1"}));
  EXPECT_FALSE(isValid({"cs", "sip", std::string(256, 'a'), "1.2.3.4:1"}));
  for (const char forbidden : {'\0', '\n', '\x1B', ' ', '\x7F'}) {
    EXPECT_FALSE(isValid({"cs", "sip", std::string("a") + forbidden, "1.2.3.4:1"})) << int{forbidden};
  }
  std::vector<std::string> words{"reverse", "cc"};
  words.resize(2 + NATCLIENT_MAX_ITEMS, "1.2.3.4:1");
  EXPECT_TRUE(isValid(words));
  words.push_back("1.2.3.4:1");
  EXPECT_FALSE(isValid(words));
  EXPECT_FALSE(isValid({"connect", "sip"})) << "for run only";
}

TEST(NatctlLines, LinesComeWholeHoweverTheyWereWritten) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  std::vector<std::string> pieces{"o\nlast", "e\n\ntw", "\xEF\xBB\xBFon"};  // the next one last
  const auto writeNext = [&] {
    if (pieces.empty()) {
      ::close(ends[1]);
      return;
    }
    EXPECT_GT(::write(ends[1], pieces.back().data(), pieces.back().size()), 0);
    pieces.pop_back();
  };
  LineReader reader(ends[0]);
  for (const char* expected : {"one", "", "two", "last"}) EXPECT_EQ(reader.Next(writeNext), expected);
  EXPECT_EQ(reader.Next(writeNext), std::nullopt);
  EXPECT_EQ(reader.Error(), 0);
  ::close(ends[0]);
  const int endless = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
  for (const auto& [fd, error] : {std::pair(-1, EBADF), std::pair(endless, EMSGSIZE)}) {
    LineReader failing(fd);
    EXPECT_EQ(failing.Next([] {}), std::nullopt);
    EXPECT_EQ(failing.Error(), error);
  }
  ::close(endless);
}

}  // namespace
