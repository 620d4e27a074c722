#pragma once

// What the tests of the text helpers share: complete and random texts over small alphabets, and
// the line that a failed assertion writes.

#include <errno.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>

/// Calls `check` with every text of at most `maxLength` bytes out of `alphabet`.
template <typename Check>
void forEachText(std::string_view alphabet, std::size_t maxLength, const Check& check) {
  std::string text;
  const auto extend = [&](const auto& self) -> void {
    check(text);
    if (text.size() == maxLength) return;
    for (const char c : alphabet) {
      text.push_back(c);
      self(self);
      text.pop_back();
    }
  };
  extend(extend);
}

/// Calls `check` with `count` random texts of at most `maxLength` bytes out of `alphabet`, or of
/// all bytes if that is empty. The texts are the same in every run.
template <typename Check>
void forRandomTexts(std::string_view alphabet, std::size_t maxLength, int count,
                    const Check& check) {
  std::mt19937 random(20240229);
  for (int i = 0; i < count; ++i) {
    std::string text(random() % (maxLength + 1), '\0');
    for (char& c : text) {
      const auto draw = random();
      c = alphabet.empty() ? static_cast<char>(draw & 0xff) : alphabet[draw % alphabet.size()];
    }
    check(text);
  }
}

/// Runs of one to forty bytes, so that texts have long plain stretches and crowded ones.
inline std::string withRuns(const std::string& text) {
  std::string result;
  for (const char c : text) {
    result.append(static_cast<std::size_t>(1 + (static_cast<unsigned char>(c) * 7 % 40)), c);
  }
  return result;
}

/// A regular expression that matches exactly the text.
inline std::string literally(std::string_view text) {
  std::string regex;
  for (const char c : text) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) regex += '\\';
    regex += c;
  }
  return regex;
}

/// A regular expression for the line that a failed assertion writes.
inline std::string assertionLine(std::string_view file, std::string_view signature,
                                 std::string_view condition) {
  std::string regex = "^";
  regex += literally(program_invocation_short_name);
  regex += ": ";
  regex += literally(file);
  regex += ":[0-9]+: ";
  regex += literally(signature);
  regex += ": Assertion `";
  regex += literally(condition);
  regex += "' failed\\.\n";
  return regex;
}

/// Expects the statement to stop the process with this one line on the standard error stream.
#define EXPECT_ASSERTION(statement, file, signature, condition) \
  EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT),      \
              assertionLine(file, signature, condition))
