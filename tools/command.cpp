#include "tools/command.h"

#include <algorithm>
#include <set>

#include "platform/did_you_mean.h"
#include "platform/messaging/frame.h"
#include "tools/grammar.h"
#include "tools/parsing.h"

namespace {

std::uint32_t OwnServer(natclient_party party) {
  switch (party) {
    case NATCLIENT_CM:
      return NATCLIENT_SERVER_CM;
    case NATCLIENT_SIP:
      return NATCLIENT_SERVER_SIP;
    case NATCLIENT_CC:
      return NATCLIENT_SERVER_CC;
    default:
      return 2;  // the nameless protocol of queue 113
  }
}

std::optional<std::uint64_t> ParseServer(std::string_view word) {
  if (word == "sip") return NATCLIENT_SERVER_SIP;
  if (word == "cm") return NATCLIENT_SERVER_CM;
  if (word == "cc") return NATCLIENT_SERVER_CC;
  return ParseNumber(word, UINT32_MAX);
}

std::string Quoted(std::string_view word) { return "'" + std::string(word) + "'"; }

constexpr std::string_view kPartyNames[] = {"sip", "q113", "cm", "cc", "cgi"};
constexpr std::string_view kPortTypes[] = {"udp", "tcp", "tls"};

// HOST:PORT, of which the host only is wanted.
bool HasPort(std::string_view destination) {
  const std::size_t colon = destination.find(':');
  return colon != std::string_view::npos && ParseNumber(destination.substr(colon + 1), UINT64_MAX).has_value();
}

bool IsRequest(CommandKind kind) {
  return kind == CommandKind::CS || kind == CommandKind::CS_LIST || kind == CommandKind::RTP ||
         kind == CommandKind::REVERSE || kind == CommandKind::CLOSE;
}

// Takes the words of one command in their order. Every step returns what is wrong, or an empty text.
class Parser {
 public:
  Parser(const Grammar& grammar, const std::vector<std::string>& words) : m_grammar(grammar), m_words(words) {
    m_command.kind = grammar.kind;
  }

  std::string Parse() {
    std::string error = Fixed();
    while (error.empty() && m_next < m_words.size()) error = Word(m_words[m_next++]);
    return error.empty() ? Complete() : error;
  }

  Command& Result() { return m_command; }

 private:
  // The words that stand at fixed places.
  std::string Fixed() {
    if (m_grammar.party) {
      if (m_next == m_words.size()) return "PARTY is missing: sip, q113, cm, cc or cgi";
      const auto party = ParseParty(m_words[m_next]);
      if (!party) {
        return Quoted(m_words[m_next]) + " is not a party: sip, q113, cm, cc or cgi" +
               DidYouMean(m_words[m_next], kPartyNames);
      }
      if (*party == NATCLIENT_CGI && IsRequest(m_grammar.kind)) return "'cgi' cannot send this request";
      m_command.party = *party;
      ++m_next;
    }
    if (m_grammar.destination) {
      if (m_next == m_words.size()) return "DEST is missing";
      const std::string& destination = m_words[m_next++];
      if (!std::all_of(destination.begin(), destination.end(), messaging::IsDestinationByte)) {
        return "DEST has a blank or a control character inside";
      }
      if (HasPort(destination)) return Quoted(destination) + " has a port, and DEST is a host alone";
      std::string error = CheckText(destination);
      if (!error.empty()) return error;
      m_command.destination = destination;
    }
    return {};
  }

  static std::string CheckText(const std::string& text) {
    if (text.find('\0') != std::string::npos) return Quoted(text) + " contains a NUL";
    if (text.size() > NATCLIENT_MAX_TEXT_BYTES) return Quoted(text) + " is longer than 255 bytes";
    return {};
  }

  std::string Word(const std::string& word) {
    if (word.starts_with("id=") && m_grammar.id) return Option("id", word);
    if (word.starts_with("value=") && m_grammar.value) return Option("value", word);
    if (word.starts_with("server=") && m_grammar.server) return Option("server", word);
    if (m_grammar.kind == CommandKind::RUN || m_grammar.kind == CommandKind::HELP) return OnlyWord(word);
    if (m_grammar.kind == CommandKind::UPDATE) return UpdateWord(word);
    if (m_grammar.kind == CommandKind::WAIT) return WaitWord(word);
    if (word == "nowait" && m_grammar.nowait) return Nowait(word);
    if (m_grammar.portType && (word == "udp" || word == "tcp" || word == "tls")) return PortType(word);
    if (m_grammar.mostItems != 0) return ItemWord(word);
    return Quoted(word) + " is too much";
  }

  std::string Once(const std::string& what, const std::string& word) {
    return m_given.insert(what).second ? "" : Quoted(word) + ": " + what + " is given twice";
  }

  std::string Option(const std::string& name, const std::string& word) {
    std::string error = Once(name, word);
    if (!error.empty()) return error;
    const std::string_view text = std::string_view(word).substr(name.size() + 1);
    if (name == "id") {
      m_command.id = ParseNumber(text, UINT64_MAX);
      return m_command.id ? "" : Quoted(word) + ": not a number of 64 bits";
    }
    m_command.value = name == "server" ? ParseServer(text) : ParseNumber(text, UINT32_MAX);
    if (m_command.value) return {};
    return Quoted(word) + (name == "server" ? ": not sip, cm, cc or a number of 32 bits" : ": not a number of 32 bits");
  }

  std::string Nowait(const std::string& word) {
    m_command.nowait = true;
    return Once("nowait", word);
  }

  std::string PortType(const std::string& word) {
    m_command.portType = word == "udp" ? NATCLIENT_UDP : word == "tcp" ? NATCLIENT_TCP : NATCLIENT_TLS;
    return Once("the kind of port", word);
  }

  std::string ItemWord(const std::string& word) {
    const auto item = ParseItem(word);
    if (!item) {
      return Quoted(word) + " is not IP:PORT" + (m_grammar.portType ? ", udp, tcp, tls or an option" : "") +
             DidYouMean(word, OtherWords());
    }
    if (m_command.items.size() == m_grammar.mostItems) return Quoted(word) + " is one item too many";
    m_command.items.push_back(*item);
    return {};
  }

  // What may stand where items do.
  std::vector<std::string_view> OtherWords() const {
    std::vector<std::string_view> words;
    if (m_grammar.portType) words.assign(std::begin(kPortTypes), std::end(kPortTypes));
    if (m_grammar.nowait) words.emplace_back("nowait");
    return words;
  }

  std::string OnlyWord(const std::string& word) {
    if (m_next != 2) return Quoted(word) + " is too much";
    if (m_grammar.kind == CommandKind::HELP && FindGrammar(word) == nullptr) {
      return Quoted(word) + " is not a command" + DidYouMeanCommand(word);
    }
    if (word.empty()) return "'' is no file";
    m_command.word = word == "-" ? "" : word;
    return {};
  }

  std::string UpdateWord(const std::string& word) {
    if (!m_haveType) {
      const auto type = ParseNumber(word, UINT32_MAX);
      if (!type) return Quoted(word) + " is not an update type, a number of 32 bits";
      m_command.updateType = static_cast<std::uint32_t>(*type);
      m_haveType = true;
      return {};
    }
    if (m_command.texts.size() == NATCLIENT_MAX_TEXTS) return Quoted(word) + " is one string too many";
    m_command.texts.push_back(word);
    return CheckText(word);
  }

  std::string WaitWord(const std::string& word) {
    const auto silence = ParseMilliseconds(word);
    if (!silence || !m_given.insert("seconds").second) return Quoted(word) + " is not SECONDS";
    m_command.silenceMs = *silence;
    return {};
  }

  std::string Complete() {
    if (m_grammar.kind == CommandKind::CS && m_command.items.empty()) return "IP:PORT is missing";
    if (m_grammar.kind == CommandKind::CLOSE && !m_command.id) return "id=N is missing";
    if (m_grammar.kind == CommandKind::UPDATE && !m_haveType) return "TYPE is missing";
    if (m_grammar.server && !m_command.value) m_command.value = OwnServer(m_command.party);
    return {};
  }

  const Grammar& m_grammar;
  const std::vector<std::string>& m_words;
  std::size_t m_next = 1;
  Command m_command;
  bool m_haveType = false;
  std::set<std::string> m_given;  // what may be given once
};

}  // namespace

std::vector<std::string> SplitWords(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r\n";
  std::vector<std::string> words;
  std::size_t at = line.find_first_not_of(kBlanks);
  while (at != std::string_view::npos && line[at] != '#') {
    const std::size_t end = std::min(line.find_first_of(kBlanks, at), line.size());
    words.emplace_back(line.substr(at, end - at));
    at = line.find_first_not_of(kBlanks, end);
  }
  return words;
}

CommandResult ParseCommand(const std::vector<std::string>& words, bool inRun) {
  const Grammar* grammar = FindGrammar(words.front());
  if (grammar == nullptr) {
    return {std::nullopt, Quoted(words.front()) + " is not a command" + DidYouMeanCommand(words.front())};
  }
  if (grammar->place == (inRun ? Grammar::Place::COMMAND_LINE : Grammar::Place::RUN)) {
    return {std::nullopt, Quoted(words.front()) + (inRun ? " is not for a run" : " is for run only")};
  }
  if (grammar->kind == CommandKind::STUN) {
    StunCommandResult stun = ParseStunCommand(words);
    if (!stun.command) return {std::nullopt, std::move(stun.error)};
    Command command;
    command.kind = CommandKind::STUN;
    command.stun = std::move(*stun.command);
    return {std::move(command), {}};
  }
  Parser parser(*grammar, words);
  std::string error = parser.Parse();
  if (!error.empty()) return {std::nullopt, words.front() + ": " + error};
  return {std::move(parser.Result()), {}};
}
