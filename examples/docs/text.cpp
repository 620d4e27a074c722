// What the guide shows of the text helpers.

#include <Korvo/KoStrUtils.h>

#include <iostream>
#include <string>
#include <vector>

using Korvo::KoStrUtils;

namespace {

void print(const std::vector<std::string>& pieces) {
  for (const std::string& piece : pieces) std::cout << '[' << piece << ']';
  std::cout << '\n';
}

void queries() {
  const std::string query =
      KoStrUtils::canonicalize("select a,  b /* note */\n  from t into T named q1;");
  std::cout << query << '\n';
  std::cout << KoStrUtils::extractOutputType(query) << ' ' << KoStrUtils::extractQueryName(query)
            << '\n';
}

void splitting() {
  std::vector<std::string> pieces;
  Korvo::splitString("a::b:", ':', pieces);  // drops empty pieces
  print(pieces);
  pieces.clear();
  KoStrUtils::split("a::b:", ':', pieces);  // keeps them, but for one at the end
  print(pieces);
  print(Korvo::processArrayString("\"a,b\",c"));  // quotes do not protect commas
}

void escaping() {
  const std::string text = "say \"hi\"\\\n";
  std::cout << Korvo::escapeString(text) << '\n';
  std::cout << (Korvo::deescapeString(Korvo::escapeString(text)) == text) << '\n';
}

}  // namespace

int main() {
  queries();
  splitting();
  escaping();
}
