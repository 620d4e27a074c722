// The page of the tool shows what the program prints, and the page, the manual and the completion
// name all its commands and options.

#include "recordings.h"

#ifdef KORVO_ETCD_PROGRAM
#include "etcd_server.h"
#endif

#include <set>
#include <sstream>
#include <vector>

namespace {

using korvotest::contentOf;
using korvotest::Outcome;
using korvotest::shell;
using korvotest::variable;

std::string source(const std::string& path) {
  return contentOf(variable("KORVO_SOURCE") + '/' + path);
}

/// A command of the page, with what is shown below it.
struct Shown {
  std::string command;
  std::string below;
};

std::vector<Shown> shownBy(const std::string& page) {
  std::vector<Shown> all;
  std::istringstream lines(page);
  bool inBlock = false;
  for (std::string line; std::getline(lines, line);) {
    if (line == "```console") {
      inBlock = true;
    } else if (line == "```") {
      inBlock = false;
    } else if (inBlock && line.starts_with("$ ")) {
      all.push_back({line.substr(2), ""});
    } else if (inBlock) {
      EXPECT_FALSE(all.empty()) << line;
      all.back().below += line + '\n';
    }
  }
  return all;
}

/// A command with " &" at its end, which writes into a file of its own: others' output is looked at
/// while it goes on.
std::string quietly(const std::string& command) {
  return command.substr(0, command.size() - 2) + " >>background.txt 2>&1 &";
}

/// Runs what goes on in the background while the page goes on, until its socket is there.
void serve(const std::string& command) {
  const std::size_t begin = command.find("unix:") + 5;
  const std::string path = command.substr(begin, command.find(' ', begin) - begin);
  shell("rm -f " + path + "; " + quietly(command) + "\necho $! >serve.pid\n" +
        "for i in {1..500}; do [ ! -S " + path + " ] || break; sleep 0.02; done; sleep 0.2");
}

/// The same for a bridge, until rows have come over it.
void bridge(const std::string& command) {
  const std::size_t end = command.rfind(" &");
  const std::size_t begin = command.rfind(' ', end - 1) + 1;
  const std::string target = command.substr(begin, end - begin);
  shell(quietly(command) + "\necho $! >>bridges.pid\n" +
        "for i in {1..500}; do [ -z \"$(korvo get " + target +
        " net/port 2>&1 >/dev/null)\" ] && break; sleep 0.02; done");
}

/// The page's member of a cluster is one of the test's.
std::string atMember(std::string text, const std::string& member) {
  const std::string shown = "127.0.0.1:2379";
  for (std::size_t at = text.find(shown); at != text.npos; at = text.find(shown, at)) {
    text.replace(at, shown.size(), member);
    at += member.size();
  }
  return text;
}

TEST(ToolPage, ShowsWhatIsPrinted) {
  const std::vector<Shown> all = shownBy(source("docs/tool.md"));
  korvotest::write("ports.rec", korvotest::portRecording().bytes);
  shell("rm -f links.rec copy.sock bridges.pid");
  std::string member;
#ifdef KORVO_ETCD_PROGRAM
  const etcdtest::Cluster server(1);
  server.waitUntilReady();
  member = server.member(0);
#endif
  EXPECT_GT(all.size(), 30U);
  std::set<std::string> files;
  for (const Shown& onPage : all) {
    const Shown shown = {atMember(onPage.command, member), atMember(onPage.below, member)};
#ifndef KORVO_ETCD_PROGRAM
    // There is no server, or this build knows none.
    if (shown.command.find("etcd:") != std::string::npos) continue;
    if (shown.command.find("copy.sock") != std::string::npos) continue;
#endif
#ifndef KORVO_WITH_ARCHIVE
    if (shown.command.find("gzip") != std::string::npos) continue;  // this build reads none
#endif
#ifndef KORVO_WITH_TABLES
    if (shown.command.find(".rec") != std::string::npos) continue;  // this build has no tables
    if (shown.command.find(".sock") != std::string::npos) continue;
#endif
    // What is shown of a file is the file.
    const bool isFile = shown.command.starts_with("cat ");
    if (isFile && files.insert(shown.command).second) {
      korvotest::write(shown.command.substr(4), shown.below);
    }
    if (shown.command.starts_with("korvo bridge") && shown.command.ends_with(" &")) {
      bridge(shown.command);
      continue;
    }
    if (shown.command.ends_with(" &")) {
      serve(shown.command);
      continue;
    }
    const Outcome result = shell("exec 2>&1; " + shown.command);
    EXPECT_EQ(result.out, shown.below) << shown.command;
  }
#ifdef KORVO_WITH_TABLES
  shell("kill $(cat bridges.pid) $(cat serve.pid)");
#endif
}

/// The commands that a help text lists.
std::vector<std::string> commandsOf(const std::string& help) {
  std::vector<std::string> all;
  const std::size_t begin = help.find("\nSubcommands:\n");
  if (begin == std::string::npos) return all;
  std::istringstream lines(help.substr(begin + 14));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("  ") && line[2] != ' ') {
      all.push_back(line.substr(2, line.find(' ', 2) - 2));
    }
  }
  return all;
}

std::set<std::string> longOptionsOf(const std::string& help) {
  std::set<std::string> all;
  for (std::size_t at = help.find("--"); at != std::string::npos; at = help.find("--", at + 2)) {
    const std::size_t end = help.find_first_not_of("abcdefghijklmnopqrstuvwxyz-", at);
    if (end > at + 2) all.insert(help.substr(at, end - at));
  }
  return all;
}

void expectKnown(const std::string& command, const std::string& manual) {
  const Outcome help = korvotest::korvo(command + "--help");
  ASSERT_EQ(help.status, 0) << command << help.err;
  EXPECT_EQ(help.err, "");
  EXPECT_NE(help.out.find("Usage: "), std::string::npos);

  const auto completed = [&](const std::string& begin) {
    // As bash asks: the words of the line, the last of which is being written.
    const Outcome words =
        shell("source '" + variable("KORVO_SOURCE") +
              "/tool/completion/korvo'; COMP_WORDS=(korvo " + command + "'" + begin +
              "'); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _korvo; "
              "printf '%s\\n' \"${COMPREPLY[@]}\"");
    EXPECT_EQ(words.err, "") << command;
    std::set<std::string> all;
    std::istringstream lines(words.out);
    for (std::string line; std::getline(lines, line);) all.insert(line);
    return all;
  };
  const std::set<std::string> options = completed("--");
  for (const std::string& option : longOptionsOf(help.out)) {
    EXPECT_TRUE(options.contains(option)) << command << option << " is not completed";
    std::string escaped;
    for (const char c : option) escaped += c == '-' ? "\\-" : std::string(1, c);
    EXPECT_NE(manual.find(escaped), std::string::npos) << command << option << " has no manual";
  }
  for (const std::string& option : options) {
    EXPECT_NE(help.out.find(option), std::string::npos) << command << option << " does not exist";
  }
  for (const std::string& sub : commandsOf(help.out)) {
    EXPECT_TRUE(completed(sub.substr(0, 2)).contains(sub)) << sub << " is not completed";
    EXPECT_NE(manual.find(command + sub), std::string::npos) << sub << " has no manual";
    expectKnown(command + sub + ' ', manual);
  }
}

TEST(ToolPage, ManualAndCompletionKnowAllCommands) {
  expectKnown("", source("tool/korvo.1"));
}

TEST(ToolPage, CompletesValuesAndFiles) {
  const auto completed = [&](const std::string& words) {
    return shell("source '" + variable("KORVO_SOURCE") + "/tool/completion/korvo'; COMP_WORDS=(" +
                 words +
                 "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _korvo; "
                 "printf '%s ' \"${COMPREPLY[@]}\"")
        .out;
  };
  korvotest::write("completed.rows", "");
  EXPECT_EQ(completed("korvo show --color ''"), "auto always never ");
  EXPECT_EQ(completed("korvo convert --as j"), "json ");
  EXPECT_EQ(completed("korvo check --layout completed"), "completed.rows ");
  EXPECT_EQ(completed("korvo check completed"), "completed.rows ");
  EXPECT_EQ(completed("korvo check --layout port.korvo completed"), "completed.rows ");
  EXPECT_EQ(completed("korvo prefix ''"), "parse contains order --help ");
}

}  // namespace
